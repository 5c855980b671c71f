// SPDX-License-Identifier: Apache-2.0

#include "daemon/http/unix_socket.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace l2fibd {

namespace {

constexpr mode_t lock_file_mode = 0600;
constexpr mode_t socket_umask = 0117; // leaves a new socket file the mode 0660

sockaddr_un address_of(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, max_socket_path);
    return address;
}

int connect_or_bind(int socket, const std::string &path, int (*call)(int, const sockaddr *, socklen_t))
{
    const sockaddr_un address = address_of(path);
    return call(socket, reinterpret_cast<const sockaddr *>(&address), sizeof(address));
}

base::result socket_failure(const std::string &path, int error = errno)
{
    return base::system_failure(error, "socket " + path);
}

// Fails if a file stands at the path that cannot be a socket of an earlier l2fibd.
base::result check_foreign_file(const std::string &path)
{
    struct stat found {};
    if (lstat(path.c_str(), &found) != 0) {
        return errno == ENOENT ? base::success() : socket_failure(path);
    }
    if (S_ISSOCK(found.st_mode)) {
        return base::success();
    }
    const std::string kind = S_ISDIR(found.st_mode) ? "a directory" : "a file that is no socket";
    return base::failure(EEXIST, "socket " + path + ": " + kind + " is there; expected none, or an old socket");
}

// Removes a socket that was left behind. A socket that answers stays: it may belong to a program that does not use our
// lock file.
base::result remove_stale(const std::string &path)
{
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int error = connect_or_bind(probe, path, connect) == 0 ? 0 : errno;
    ::close(probe);
    switch (error) {
    case ENOENT: return base::success();
    case ECONNREFUSED: return unlink(path.c_str()) == 0 ? base::success() : socket_failure(path);
    case 0:
    case EAGAIN:
        return base::failure(EADDRINUSE, "socket " + path + ": another process serves it; end that, or use --socket");
    default: return socket_failure(path, error);
    }
}

} // namespace

base::result listening_socket::open(const std::string &path, const std::string &group)
{
    base::result done = check_foreign_file(path); // before a lock file is left beside it
    if (done.ok()) {
        done = lock(path + ".lock");
    }
    if (done.ok()) {
        done = remove_stale(path);
    }
    if (done.ok()) {
        done = bind_to(path);
    }
    if (done.ok() && !group.empty()) {
        done = give_to(group);
    }
    return done;
}

base::result listening_socket::lock(const std::string &path)
{
    lock_file_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, lock_file_mode);
    if (lock_file_ < 0) {
        return base::system_failure(errno, "lock file " + path);
    }
    struct flock whole {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    if (fcntl(lock_file_, F_SETLK, &whole) == 0) {
        return base::success();
    }
    struct flock holder = whole;
    const bool is_known = fcntl(lock_file_, F_GETLK, &holder) == 0 && holder.l_type != F_UNLCK;
    return base::failure(
        EADDRINUSE, "another l2fibd" + (is_known ? ", process " + std::to_string(holder.l_pid) + "," : std::string())
                        + " serves this socket (" + path + " is locked); end it, or use --socket");
}

base::result listening_socket::bind_to(const std::string &path)
{
    listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (listener_ < 0) {
        return socket_failure(path);
    }
    // The umask, not a later chmod: nobody else may connect between the two.
    const mode_t before = umask(socket_umask);
    base::result bound = connect_or_bind(listener_, path, bind) == 0 ? base::success() : socket_failure(path);
    umask(before);
    if (!bound.ok()) {
        return bound;
    }
    bound_path_ = path;
    return listen(listener_, SOMAXCONN) == 0 ? base::success() : socket_failure(path);
}

base::result listening_socket::give_to(const std::string &group) const
{
    const struct group *found = getgrnam(group.c_str()); // NOLINT(concurrency-mt-unsafe)
    if (found == nullptr) {
        return base::failure(ENOENT, "--socket-group " + group + ": there is no such group; getent group lists them");
    }
    const bool is_given = chown(bound_path_.c_str(), static_cast<uid_t>(-1), found->gr_gid) == 0;
    return is_given ? base::success() : base::system_failure(errno, "--socket-group " + group + " of " + bound_path_);
}

void listening_socket::close()
{
    if (!bound_path_.empty()) {
        unlink(bound_path_.c_str());
        bound_path_.clear();
    }
    // The lock file stays. If it were removed, two processes could lock two files of the same name.
    for (int *descriptor : {&listener_, &lock_file_}) {
        if (*descriptor >= 0) {
            ::close(*descriptor);
            *descriptor = -1;
        }
    }
}

void notify_service_manager(const std::string &state)
{
    const char *path = std::getenv("NOTIFY_SOCKET"); // NOLINT(concurrency-mt-unsafe)
    if (path == nullptr || (*path != '/' && *path != '@') || std::strlen(path) > max_socket_path) {
        return;
    }
    sockaddr_un address = address_of(path);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(path));
    if (*path == '@') {
        address.sun_path[0] = '\0'; // an address in the abstract namespace
    }
    const int sender = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sendto(sender, state.data(), state.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&address), length);
    ::close(sender);
}

} // namespace l2fibd
