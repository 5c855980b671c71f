// SPDX-License-Identifier: Apache-2.0

// The HTTP server: takes requests from the socket, answers them by resources.h, and holds its limits.
//
// Threads: start and stop are for one thread. Each connection has a thread of its own, which may wait for its answer.
#pragma once

#include <cstdint>
#include <string>

namespace l2fibd {

// Places for connections and for requests under way. Some are a reserve for root (admission.h).
inline constexpr uint32_t most_connections = 64; // fewer if the limit of open files leaves less
inline constexpr uint32_t most_requests = 32;
inline constexpr uint32_t reserved_part = 8; // one place of so many is in the reserve

inline constexpr uint32_t send_seconds = 10; // for a client to send its next request, all of it
// For a client to take a piece of its answer, beyond twice the resync wait time: a request may wait for two.
inline constexpr uint32_t take_seconds = 60;
inline constexpr size_t most_header_bytes = size_t{48} * 1024; // and all else that a connection keeps
inline constexpr size_t most_body_bytes = 4096;

// Connections that get no place: how many at once, and how long each has to send its one request.
inline constexpr uint32_t most_refused_connections = 8;
inline constexpr uint32_t refused_seconds = 2;

// Descriptors that the server needs beside its places: for refused connections, for those that are being closed while
// the next ones come, and for the HTTP library itself.
inline constexpr uint32_t closing_connections = 16;
inline constexpr uint32_t http_own_descriptors = most_refused_connections + closing_connections + 4;

// The least that a start needs: places for a few clients.
inline constexpr uint32_t http_least_descriptors = http_own_descriptors + 8;

// Serves a socket that listens, and closes it in the end. Returns nothing on success, otherwise a text for the
// operator.
std::string http_start(int listener, uint32_t resync_wait_seconds);

// Gives up the requests under way and waits until all threads have ended.
void http_stop();

} // namespace l2fibd
