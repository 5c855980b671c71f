// SPDX-License-Identifier: Apache-2.0

// Divides places, for connections or for requests, so that no user takes them all.
//
// A user gets a common place while the user has fewer of them than are free. One user alone gets at most half of them,
// a second one half of the rest, and so on: the next user always finds room. Root may use a reserve as well.
//
// A client that gets no place is refused. It may send one request, which is answered with the reason, or with the
// daemon's health. Refused connections are few: the oldest one makes room for the next.
//
// Threads: any.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace l2fibd {

enum class place : uint8_t { none, common, reserve };

class fair_places {
public:
    // `what` names those that take places, in messages: "connections open".
    explicit fair_places(const char *what)
        : what_(what)
    {}

    // Call it before any other function, while nothing is taken.
    void set_size(uint32_t common, uint32_t reserve);

    // Takes a place for a user. If there is none, counts a refusal and puts the reason into `reason`. The caller gives
    // the place back.
    place take(uid_t user, std::string &reason);
    void give_back(uid_t user, place taken);

    uint32_t taken() const;
    uint64_t refused() const;

private:
    struct holding {
        uint32_t common = 0;
        uint32_t reserve = 0;
    };

    std::string reason_for(uid_t user, const holding &of) const;

    const char *what_;
    mutable std::mutex lock_; // protects what follows
    holding size_;
    holding taken_;
    std::map<uid_t, holding> users_; // those that hold a place
    uint64_t refused_ = 0;
};

class refused_connections {
public:
    explicit refused_connections(size_t most)
        : most_(most)
    {}

    // Adds a connection. If they are too many then, removes the oldest of the user who has most and returns its socket,
    // which the caller shuts down.
    std::optional<int> add(int socket, uid_t user);

    // Harmless if the socket is not among them.
    void remove(int socket);

private:
    struct refused {
        int socket;
        uid_t user;
    };

    const size_t most_;
    std::mutex lock_;           // protects what follows
    std::deque<refused> queue_; // the oldest first
};

} // namespace l2fibd
