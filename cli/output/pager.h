// SPDX-License-Identifier: Apache-2.0

// A pager such as less between standard output and the terminal.
//
// While it runs, standard output is a pipe to it, and the client ignores SIGINT and SIGQUIT: they are for the pager,
// which otherwise would fight with the shell for the terminal. If the pager ends early, a write fails with EPIPE.
//
// Threads: the main thread only.
#pragma once

#include <string>
#include <sys/types.h>

namespace l2fibctl {

// The shell that runs the pager's command.
inline constexpr char pager_shell[] = "/bin/sh";

class pager {
public:
    // `command` is for the shell. An empty one means no pager.
    explicit pager(std::string command);
    ~pager();
    pager(const pager &) = delete;
    pager &operator=(const pager &) = delete;

    bool is_wanted() const { return !command_.empty(); }

    // Starts the pager unless it runs. Throws a failure if that is not possible.
    void start();

    // Closes the pipe and waits until the operator has left the pager. Throws a failure if the pager could not run.
    void finish();

private:
    bool is_running() const { return process_ > 0; }
    int end();

    std::string command_;
    pid_t process_ = 0;
    int terminal_ = -1; // standard output before the pager started
};

} // namespace l2fibctl
