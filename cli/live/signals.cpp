// SPDX-License-Identifier: Apache-2.0

#include "cli/live/signals.h"

#include <algorithm>
#include <poll.h>

namespace l2fibctl {

namespace {

using clock = std::chrono::steady_clock;

// A signal that arrives between `check` and the wait is seen after at most this time.
constexpr auto max_wait = std::chrono::milliseconds(100);

volatile std::sig_atomic_t has_arrived = 0;

void take_signal(int /*signal*/)
{
    has_arrived = 1;
}

} // namespace

stop_signals::stop_signals()
{
    has_arrived = 0;
    struct sigaction wanted = {}; // without SA_RESTART: a write to a reader that stalls ends with EINTR
    wanted.sa_handler = take_signal;
    for (size_t i = 0; i < handled.size(); i++) {
        sigaction(handled[i], nullptr, &before_[i]);
        if (before_[i].sa_handler != SIG_IGN) {
            sigaction(handled[i], &wanted, nullptr);
        }
    }
}

stop_signals::~stop_signals()
{
    for (size_t i = 0; i < handled.size(); i++) {
        sigaction(handled[i], &before_[i], nullptr);
    }
}

void stop_signals::check()
{
    if (has_arrived != 0) {
        throw stopped();
    }
}

void stop_signals::pause(std::chrono::milliseconds time)
{
    const auto end = clock::now() + time;
    check();
    for (auto now = clock::now(); now < end; now = clock::now()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - now);
        poll(nullptr, 0, static_cast<int>(std::min(left, max_wait).count()));
        check();
    }
}

} // namespace l2fibctl
