// SPDX-License-Identifier: Apache-2.0

// The signals that end a command that has no end of its own: SIGINT, SIGTERM and SIGHUP. They end the wait that they
// interrupt, and the command ends where it next looks.
//
//      const stop_signals signals;
//      while (...) {
//          stop_signals::check();                          // throws `stopped`
//          stop_signals::pause(std::chrono::seconds(2));   // throws `stopped` as soon as a signal arrives
//      }
//
// A signal that the process ignores stays ignored, so that nohup keeps its meaning.
//
// Threads: the main thread only. The kernel prefers the main thread for signals to the process.
#pragma once

#include <array>
#include <chrono>
#include <csignal>
#include <exception>

namespace l2fibctl {

struct stopped : std::exception {
    const char *what() const noexcept override { return "ended by a signal"; }
};

class stop_signals {
public:
    // Installs the handlers. One object at a time exists.
    stop_signals();
    ~stop_signals();
    stop_signals(const stop_signals &) = delete;
    stop_signals &operator=(const stop_signals &) = delete;

    // Throws `stopped` if a signal has arrived since the object was made.
    static void check();

    // Returns after this time.
    static void pause(std::chrono::milliseconds time);

private:
    static constexpr std::array<int, 3> handled = {SIGINT, SIGTERM, SIGHUP};

    std::array<struct sigaction, handled.size()> before_ = {};
};

} // namespace l2fibctl
