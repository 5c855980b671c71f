// SPDX-License-Identifier: Apache-2.0

#include "cli/output/output.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "cli/failure.h"

namespace l2fibctl {

namespace {

constexpr size_t piece_size = size_t(64) * 1024;          // large enough to make the cost of a write small
constexpr size_t max_held_size = size_t(4) * 1024 * 1024; // of held output in memory
constexpr int max_wait_ms = 100;                          // for room in a pipe, before the caller's next look

// Another process that shares standard output may have made it non-blocking.
void wait_for_room()
{
    pollfd waits = {STDOUT_FILENO, POLLOUT, 0};
    poll(&waits, 1, max_wait_ms);
}

// `problem` names what failed; errno has the reason.
[[noreturn]] void fail(const std::string &problem)
{
    const std::string reason = std::strerror(errno); // NOLINT(concurrency-mt-unsafe): as in http.cpp
    throw output_failure(exit_status::cut, problem + ": " + reason);
}

} // namespace

output::output(progress &line, bool held, std::string pager_command, text_sink sink)
    : progress_line_(line)
    , pager_(std::move(pager_command))
    , terminal_(isatty(STDOUT_FILENO) == 1)
    , held_(held)
    , spilled_(nullptr, std::fclose)
    , sink_(std::move(sink))
{}

void output::end_item()
{
    if (held_ && pending_.size() >= max_held_size) {
        spill();
    } else if (!held_ && pending_.size() >= piece_size) {
        flush();
    }
}

// Moves the pending text into a temporary file. The file has no name and disappears with the process.
void output::spill()
{
    if (spilled_ == nullptr) {
        spilled_.reset(std::tmpfile());
    }
    if (spilled_ == nullptr
        || std::fwrite(pending_.text().data(), 1, pending_.size(), spilled_.get()) != pending_.size()
        || std::fflush(spilled_.get()) != 0) {
        fail("cannot keep the answer for --strict in a temporary file in " P_tmpdir);
    }
    pending_.shorten(0);
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
            fail("cannot read the answer for --strict from its temporary file in " P_tmpdir);
        }
        spilled_.reset();
    }
    flush();
}

void output::flush()
{
    if (!held_) {
        write_out(pending_.text());
        pending_.shorten(0);
    }
}

void output::write_out(std::string_view text)
{
    if (sink_) {
        sink_(text);
        return;
    }
    if (terminal_ && !text.empty()) {
        progress_line_.stop();
        pager_.start();
    }
    while (!text.empty()) {
        const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
        if (written >= 0) {
            text.remove_prefix(static_cast<size_t>(written));
        } else if (errno == EPIPE) {
            throw output_failure(exit_status::done, "");
        } else if (errno == EAGAIN || errno == EINTR) {
            progress_line_.tick(); // may end the command after a signal
            wait_for_room();
        } else {
            fail("cannot write the answer to standard output");
        }
    }
}

} // namespace l2fibctl
