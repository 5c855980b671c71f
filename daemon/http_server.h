// The HTTP server: takes requests from the socket, answers them by resources.h, and holds its limits.
//
// Threads: start and stop are for one thread. Each connection has a thread of its own, which may wait for its answer.
#pragma once

#include <cstdint>
#include <string>

namespace l2fibd {

inline constexpr uint32_t most_requests = 32;
inline constexpr uint32_t most_connections = 64;
inline constexpr uint32_t send_seconds = 10; // for a client to send its next request, all of it
// For a client to take a piece of its answer, beyond twice the resync wait time: a request may wait for two.
inline constexpr uint32_t take_seconds = 60;
inline constexpr size_t most_header_bytes = size_t{48} * 1024; // and all else that a connection keeps
inline constexpr size_t most_body_bytes = 4096;

// Serves a socket that listens, and closes it in the end. Returns nothing on success, otherwise a text for the
// operator.
std::string http_start(int listener, uint32_t resync_wait_seconds);

// Gives up what is under way and waits until all threads have ended.
void http_stop();

} // namespace l2fibd
