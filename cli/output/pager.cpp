// SPDX-License-Identifier: Apache-2.0

#include "cli/output/pager.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include "cli/failure.h"

namespace l2fibctl {

namespace {

constexpr int first_not_run_status = 126; // of the shell: 126 the program cannot be executed, 127 there is none
constexpr int last_not_run_status = 127;

// Starts the command with `input` as its standard input. Returns 0 or an error number. The client may have a second
// thread at this time, so nothing but system calls may happen between fork and exec.
int spawn(const std::string &command, int input, pid_t &process)
{
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    sigset_t to_default;
    sigemptyset(&to_default);
    sigaddset(&to_default, SIGPIPE);
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigdefault(&attributes, &to_default);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    std::string text = command;
    char name[] = "sh";
    char option[] = "-c";
    char *arguments[] = {name, option, text.data(), nullptr};
    const int code = posix_spawn(&process, pager_shell, &actions, &attributes, arguments, environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return code;
}

void ignore_keys(bool ignores)
{
    const auto handler = ignores ? SIG_IGN : SIG_DFL;
    std::signal(SIGINT, handler);
    std::signal(SIGQUIT, handler);
}

[[noreturn]] void fail_start(const std::string &command, const std::string &reason)
{
    throw failure(exit_status::cut, "cannot start the pager \"" + command + "\": " + reason
                                        + "; L2FIBCTL_PAGER or PAGER names it, --no-pager goes without");
}

} // namespace

pager::pager(std::string command)
    : command_(std::move(command))
{
    if (is_wanted()) {
        // less ends at once if everything fits on the screen, shows colours, and leaves the text on the screen.
        setenv("LESS", "FRX", 0); // NOLINT(concurrency-mt-unsafe): before the second thread starts
    }
}

pager::~pager()
{
    end();
}

void pager::start()
{
    if (!is_wanted() || is_running()) {
        return;
    }
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        fail_start(command_, std::strerror(errno)); // NOLINT(concurrency-mt-unsafe): as in http.cpp
    }
    const int code = spawn(command_, ends[0], process_);
    close(ends[0]);
    if (code != 0) {
        close(ends[1]);
        process_ = 0;
        fail_start(command_, std::strerror(code)); // NOLINT(concurrency-mt-unsafe): as in http.cpp
    }
    ignore_keys(true);
    terminal_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    dup2(ends[1], STDOUT_FILENO);
    close(ends[1]);
}

// Returns the exit status of the pager, 0 if none ran.
int pager::end()
{
    if (!is_running()) {
        return 0;
    }
    dup2(terminal_, STDOUT_FILENO); // closes the pipe
    close(terminal_);
    int status = 0;
    while (waitpid(process_, &status, 0) < 0 && errno == EINTR) {}
    process_ = 0;
    ignore_keys(false);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 0;
}

void pager::finish()
{
    const int status = end();
    if (status >= first_not_run_status && status <= last_not_run_status) {
        fail_start(command_, "the shell could not run it");
    }
}

} // namespace l2fibctl
