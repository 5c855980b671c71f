// SPDX-License-Identifier: Apache-2.0

// The HTTP server: accepts connections on the socket, admits requests within the limits, and answers them by
// daemon/api/resources.h. This directory knows HTTP and sockets; daemon/api knows the resources.
//
//      http_server server;
//      if (const base::result started = server.start(listener, 30); !started.ok()) { ... }
//      ... wait for the end ...
//      server.stop();
//
// Threads: one thread calls start and stop. Inside, each connection has a thread of its own, which may wait for its
// answer.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "base/result.h"

namespace l2fibd {

// Places for connections and for requests under way. An eighth of each is a reserve for root (admission.h).
inline constexpr uint32_t max_connections = 64; // fewer if the limit of open files leaves less
inline constexpr uint32_t max_requests = 32;
inline constexpr uint32_t reserve_divisor = 8;

// Places for event streams. A connection that becomes a stream gives back its place as a connection.
inline constexpr uint32_t max_watchers = 64; // fewer if the limit of open files leaves less

// How long a client may take to send its next request, all of it.
inline constexpr auto max_send_time = std::chrono::seconds(10);

// How long a client may take for a piece of its answer, beyond twice the resync wait time: a request may wait for two
// resyncs.
inline constexpr auto max_take_time = std::chrono::seconds(60);

inline constexpr size_t max_header_bytes = size_t{48} * 1024; // with everything else that a connection keeps
inline constexpr size_t max_body_bytes = 4096;                // the input of an operation takes at most about 400

// Connections that got no place: how many are kept at once, and how long each may take to send its one request.
inline constexpr uint32_t max_refused_connections = 8;
inline constexpr auto max_refused_time = std::chrono::seconds(2);

// Descriptors that the server needs beside its places: for refused connections, for connections that are being closed
// while the next ones arrive, and for the HTTP library itself.
inline constexpr uint32_t max_closing_connections = 16;
inline constexpr uint32_t library_descriptors = 4;
inline constexpr uint32_t own_descriptors = max_refused_connections + max_closing_connections + library_descriptors;

// A start needs this number of descriptors: the server's own, and places for a few clients. Event streams get at most
// half of the places that there are, and none of these.
inline constexpr uint32_t min_places = 8;
inline constexpr uint32_t min_http_descriptors = own_descriptors + min_places;

struct server_state;

class http_server {
public:
    http_server();
    ~http_server(); // stops the server
    http_server(const http_server &) = delete;
    http_server &operator=(const http_server &) = delete;

    // Serves a listening socket. On success the server closes the socket when it stops; on a failure the caller does.
    base::result start(int listener, uint32_t resync_wait_seconds);

    // Gives up the requests under way and waits until all threads have ended. Does nothing when repeated.
    void stop();

private:
    std::unique_ptr<server_state> state_;
};

} // namespace l2fibd
