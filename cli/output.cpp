#include "cli/output.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "cli/failure.h"

namespace l2fibctl {

namespace {

constexpr size_t piece_size = size_t(64) * 1024;
constexpr auto quiet_time = std::chrono::seconds(1);
constexpr auto redraw_time = std::chrono::milliseconds(250);

// Standard output may be shared with somebody who has made it non-blocking.
void wait_for_room()
{
    pollfd waits = {STDOUT_FILENO, POLLOUT, 0};
    poll(&waits, 1, -1);
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
    std::fprintf(stderr, "\r%llu items, %lld s\033[K", static_cast<unsigned long long>(items_),
                 static_cast<long long>(seconds));
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

output::output(progress &line)
    : progress_line_(line)
    , terminal_(isatty(STDOUT_FILENO) == 1)
{}

void output::put(std::string_view text)
{
    pending_ += text;
    if (pending_.size() >= piece_size) {
        flush();
    }
}

void output::flush()
{
    if (terminal_ && !pending_.empty()) {
        progress_line_.stop();
    }
    std::string_view rest = pending_;
    while (!rest.empty()) {
        const ssize_t written = write(STDOUT_FILENO, rest.data(), rest.size());
        if (written >= 0) {
            rest.remove_prefix(static_cast<size_t>(written));
        } else if (errno == EPIPE) {
            throw failure{ending::done, ""};
        } else if (errno == EAGAIN) {
            wait_for_room();
        } else if (errno != EINTR) {
            throw failure{ending::cut, std::string("cannot write the answer: ") + std::strerror(errno)};
        }
    }
    pending_.clear();
}

} // namespace l2fibctl
