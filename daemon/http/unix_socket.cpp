// SPDX-License-Identifier: Apache-2.0

#include "daemon/http/unix_socket.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace l2fibd {

namespace {

std::string failed(const std::string &what, const std::string &path, int error = errno)
{
    return what + " " + path + ": " + std::strerror(error); // NOLINT(concurrency-mt-unsafe)
}

sockaddr_un address_of(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

int connect_or_bind(int socket, const std::string &path, int (*call)(int, const sockaddr *, socklen_t))
{
    const sockaddr_un address = address_of(path);
    return call(socket, reinterpret_cast<const sockaddr *>(&address), sizeof(address));
}

// What is there and can be no socket of ours; nothing when there is none.
std::string foreign_file(const std::string &path)
{
    struct stat found {};
    if (lstat(path.c_str(), &found) != 0) {
        return errno == ENOENT ? "" : failed("socket", path);
    }
    const std::string what = S_ISDIR(found.st_mode) ? "a directory" : "a file that is no socket";
    return S_ISSOCK(found.st_mode) ? "" : "socket " + path + ": " + what + " is there; expected none, or an old socket";
}

// Removes a socket that was left behind, and nothing else: one that somebody serves may be of a program that knows
// nothing of our lock file.
std::string remove_stale(const std::string &path)
{
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int error = connect_or_bind(probe, path, connect) == 0 ? 0 : errno;
    ::close(probe);
    switch (error) {
    case ENOENT: return {};
    case ECONNREFUSED: return unlink(path.c_str()) == 0 ? "" : failed("socket", path);
    case 0:
    case EAGAIN: return "socket " + path + ": another process serves it";
    default: return failed("socket", path, error);
    }
}

} // namespace

std::string listening_socket::open(const std::string &path, const std::string &group)
{
    std::string error = foreign_file(path); // before a lock file is left beside it
    if (error.empty()) {
        error = lock(path + ".lock");
    }
    if (error.empty()) {
        error = remove_stale(path);
    }
    if (error.empty()) {
        error = bind_to(path);
    }
    if (error.empty() && !group.empty()) {
        error = give_to(group);
    }
    return error;
}

std::string listening_socket::lock(const std::string &path)
{
    lock_file_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (lock_file_ < 0) {
        return failed("lock file", path);
    }
    struct flock whole {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    if (fcntl(lock_file_, F_SETLK, &whole) == 0) {
        return {};
    }
    struct flock holder = whole;
    const bool is_known = fcntl(lock_file_, F_GETLK, &holder) == 0 && holder.l_type != F_UNLCK;
    return "another l2fibd" + (is_known ? ", process " + std::to_string(holder.l_pid) + "," : std::string())
           + " serves this socket (" + path + " is locked)";
}

std::string listening_socket::bind_to(const std::string &path)
{
    listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (listener_ < 0) {
        return failed("socket", path);
    }
    // The file has its mode from its first moment.
    const mode_t before = umask(0117);
    const int status = connect_or_bind(listener_, path, bind);
    umask(before);
    if (status != 0) {
        return failed("socket", path);
    }
    bound_path_ = path;
    return listen(listener_, SOMAXCONN) == 0 ? "" : failed("socket", path);
}

std::string listening_socket::give_to(const std::string &group) const
{
    const struct group *found = getgrnam(group.c_str()); // NOLINT(concurrency-mt-unsafe)
    if (found == nullptr) {
        return "socket group " + group + ": there is no such group";
    }
    const bool given = chown(bound_path_.c_str(), static_cast<uid_t>(-1), found->gr_gid) == 0;
    return given ? "" : failed("socket group " + group + " for", bound_path_);
}

void listening_socket::close()
{
    if (!bound_path_.empty()) {
        unlink(bound_path_.c_str());
        bound_path_.clear();
    }
    // The lock file stays: removing it would let two processes lock two files of the same name.
    for (int *descriptor : {&listener_, &lock_file_}) {
        if (*descriptor >= 0) {
            ::close(*descriptor);
            *descriptor = -1;
        }
    }
}

size_t longest_socket_path()
{
    return sizeof(sockaddr_un::sun_path) - 1;
}

void notify_service_manager(const std::string &state)
{
    const char *path = std::getenv("NOTIFY_SOCKET"); // NOLINT(concurrency-mt-unsafe)
    if (path == nullptr || (*path != '/' && *path != '@') || std::strlen(path) > longest_socket_path()) {
        return;
    }
    sockaddr_un address = address_of(path);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(path));
    if (*path == '@') {
        address.sun_path[0] = '\0'; // a name that is no file
    }
    const int to = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sendto(to, state.data(), state.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&address), length);
    ::close(to);
}

} // namespace l2fibd
