// SPDX-License-Identifier: Apache-2.0

#include "cli/output/output.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "cli/failure.h"

namespace l2fibctl {

namespace {

constexpr size_t piece_size = size_t(64) * 1024;
constexpr size_t held_size = size_t(4) * 1024 * 1024; // in memory, of held output
constexpr auto quiet_time = std::chrono::seconds(1);
constexpr auto redraw_time = std::chrono::milliseconds(250);

// Standard output may be shared with a process that made it non-blocking.
void wait_for_room()
{
    pollfd waits = {STDOUT_FILENO, POLLOUT, 0};
    poll(&waits, 1, -1);
}

[[noreturn]] void fail(const std::string &what)
{
    throw failure{ending::cut, what + ": " + std::strerror(errno)}; // NOLINT(concurrency-mt-unsafe): as in http.cpp
}

} // namespace

progress::progress()
    : enabled_(isatty(STDERR_FILENO) == 1)
{}

void progress::tick()
{
    const auto now = clock::now();
    if (!enabled_ || now - start_ < quiet_time || now - last_ < redraw_time) {
        return;
    }
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - start_).count();
    const std::string text = text_.empty() ? std::to_string(items_) + " items" : text_;
    std::fprintf(stderr, "\r%s, %lld s\033[K", text.c_str(), static_cast<long long>(seconds));
    drawn_ = true;
    last_ = now;
}

void progress::stop()
{
    if (drawn_) {
        std::fputs("\r\033[K", stderr);
    }
    drawn_ = false;
    enabled_ = false;
}

output::output(progress &line, bool held)
    : progress_line_(line)
    , terminal_(isatty(STDOUT_FILENO) == 1)
    , held_(held)
    , spilled_(nullptr, std::fclose)
{}

void output::put(std::string_view text)
{
    pending_ += text;
    if (held_ && pending_.size() >= held_size) {
        spill();
    } else if (!held_ && pending_.size() >= piece_size) {
        flush();
    }
}

// Moves what is pending into the temporary file, which has no name and disappears with the process.
void output::spill()
{
    if (spilled_ == nullptr) {
        spilled_.reset(std::tmpfile());
    }
    if (spilled_ == nullptr || std::fwrite(pending_.data(), 1, pending_.size(), spilled_.get()) != pending_.size()
        || std::fflush(spilled_.get()) != 0) {
        fail("cannot hold back the answer in a temporary file in " P_tmpdir);
    }
    pending_.clear();
}

void output::release()
{
    held_ = false;
    if (spilled_ != nullptr) {
        std::string piece(piece_size, '\0');
        std::rewind(spilled_.get());
        while (const size_t size = std::fread(piece.data(), 1, piece.size(), spilled_.get())) {
            write_out(std::string_view(piece).substr(0, size));
        }
        if (std::ferror(spilled_.get()) != 0) {
            fail("cannot read the held answer from its temporary file");
        }
        spilled_.reset();
    }
    flush();
}

void output::flush()
{
    if (!held_) {
        write_out(pending_);
        pending_.clear();
    }
}

void output::write_out(std::string_view text)
{
    if (terminal_ && !text.empty()) {
        progress_line_.stop();
    }
    while (!text.empty()) {
        const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
        if (written >= 0) {
            text.remove_prefix(static_cast<size_t>(written));
        } else if (errno == EPIPE) {
            throw failure{ending::done, ""};
        } else if (errno == EAGAIN) {
            wait_for_room();
        } else if (errno != EINTR) {
            fail("cannot write the answer");
        }
    }
}

} // namespace l2fibctl
