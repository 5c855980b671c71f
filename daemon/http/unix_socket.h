// SPDX-License-Identifier: Apache-2.0

// The Unix socket that the daemon serves, and the service manager's socket to which it reports its state.
//
// A process that serves a socket holds a lock on a file beside it. The next start takes the lock and connects to the
// old socket. If nobody answers, it replaces the socket file. Otherwise it refuses to start.
//
//      listening_socket socket;
//      if (const base::result opened = socket.open("/run/l2fibd.sock", "operators"); !opened.ok()) { ... }
//      ... serve socket.descriptor() ...
//      socket.close();
//
// Threads: the one that starts and ends the daemon.
#pragma once

#include <sys/un.h>

#include <cstddef>
#include <string>

#include "base/result.h"

namespace l2fibd {

// In bytes. The kernel's address has room for one more, the final zero.
inline constexpr size_t max_socket_path = sizeof(sockaddr_un::sun_path) - 1;

class listening_socket {
public:
    listening_socket() = default;
    ~listening_socket() { close(); }
    listening_socket(const listening_socket &) = delete;
    listening_socket &operator=(const listening_socket &) = delete;

    // Binds to `path` and listens. The file has mode 0660 and belongs to `group`, or to the process's group if `group`
    // is empty. On a failure the object is closed by close() or its destructor.
    base::result open(const std::string &path, const std::string &group);

    // Removes the socket file, closes the descriptors and releases the lock. Does nothing when repeated.
    void close();

    int descriptor() const { return listener_; }

    // From now on the caller closes the descriptor.
    void hand_over() { listener_ = -1; }

private:
    base::result lock(const std::string &path);
    base::result bind_to(const std::string &path);
    base::result give_to(const std::string &group) const;

    std::string bound_path_ = {};
    int lock_file_ = -1;
    int listener_ = -1;
};

// Sends a state such as "READY=1" to the service manager that started this process. Does nothing without one.
void notify_service_manager(const std::string &state);

} // namespace l2fibd
