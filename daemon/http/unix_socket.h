// SPDX-License-Identifier: Apache-2.0

// The Unix socket that the daemon serves, and the service manager's socket that it reports to.
//
// A lock file beside the socket says who serves it; a socket file without one was left behind and is replaced.
//
// Threads: the one that starts and ends the daemon.
#pragma once

#include <string>

namespace l2fibd {

class listening_socket {
public:
    listening_socket() = default;
    ~listening_socket() { close(); }
    listening_socket(const listening_socket &) = delete;
    listening_socket &operator=(const listening_socket &) = delete;

    // Binds to `path` with mode 0660, for members of `group` unless that is empty, and listens. Returns nothing on
    // success, otherwise a text for the operator.
    std::string open(const std::string &path, const std::string &group);

    // Removes the socket file and lets the lock go; harmless when repeated.
    void close();

    int descriptor() const { return listener_; }

    // The descriptor is somebody else's to close from now on.
    void hand_over() { listener_ = -1; }

private:
    std::string lock(const std::string &path);
    std::string bind_to(const std::string &path);
    std::string give_to(const std::string &group) const;

    std::string bound_path_ = {};
    int lock_file_ = -1;
    int listener_ = -1;
};

// The longest path of a socket.
size_t longest_socket_path();

// Tells the service manager that started this process, if one did, a state such as "READY=1".
void notify_service_manager(const std::string &state);

} // namespace l2fibd
