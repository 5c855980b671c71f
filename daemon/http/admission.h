// SPDX-License-Identifier: Apache-2.0

// Divides places, for connections or for requests, so that no user takes all of them.
//
// A user gets a common place if more common places are free than the user holds. One user alone gets at most half of
// them, a second user half of the rest, and so on. With 8 common places:
//
//      ann takes 4    4 free, ann holds 4: refused
//      bob takes 2    2 free, bob holds 2: refused
//      cid takes 1    1 free, cid holds 1: refused
//
// Root may also take places of a reserve.
//
// A client that gets no place is refused. It may send one request. The answer is the reason, or the daemon's health
// or metrics. Few refused connections are kept: the oldest one makes room for the next.
//
// Threads: any thread may call every function.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>

#include "base/mutex.h"

namespace l2fibd {

enum class place : uint8_t { none, common, reserve };

struct admission {
    place taken = place::none;
    std::string refusal = {}; // for the client, if no place was taken
};

class fair_places {
public:
    // `unit` names those who take places in messages, such as "connections open".
    explicit fair_places(const char *unit)
        : unit_(unit)
    {}

    // Call this before any other function.
    void set_size(uint32_t common, uint32_t reserve) L2FIB_EXCLUDES(lock_);

    // Takes a place for a user, or counts a refusal. The caller gives the place back.
    admission take(uid_t user) L2FIB_EXCLUDES(lock_);
    void give_back(uid_t user, place taken) L2FIB_EXCLUDES(lock_);

    uint32_t taken() const L2FIB_EXCLUDES(lock_);
    uint64_t refused() const L2FIB_EXCLUDES(lock_);

private:
    struct holding {
        uint32_t common = 0;
        uint32_t reserve = 0;

        uint32_t total() const { return common + reserve; }
    };

    std::string refusal_of(uid_t user, const holding &own) const L2FIB_REQUIRES(lock_);

    const char *unit_;
    mutable base::mutex lock_;
    holding size_ L2FIB_GUARDED_BY(lock_);
    holding taken_ L2FIB_GUARDED_BY(lock_);
    std::map<uid_t, holding> users_ L2FIB_GUARDED_BY(lock_); // users who hold a place
    uint64_t refused_ L2FIB_GUARDED_BY(lock_) = 0;
};

class refused_connections {
public:
    explicit refused_connections(size_t max)
        : max_(max)
    {}

    // Adds a connection. If there are too many now, removes the oldest one of the user with the most and returns its
    // socket. The caller shuts that socket down.
    std::optional<int> add(int socket, uid_t user) L2FIB_EXCLUDES(lock_);

    // Does nothing if the socket was not added, or was removed before.
    void remove(int socket) L2FIB_EXCLUDES(lock_);

private:
    struct refused {
        int socket;
        uid_t user;
    };

    static std::deque<refused>::iterator oldest_of_largest_user(std::deque<refused> &queue);

    const size_t max_;
    base::mutex lock_;
    std::deque<refused> queue_ L2FIB_GUARDED_BY(lock_); // the oldest first
};

} // namespace l2fibd
