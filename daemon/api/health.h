// SPDX-License-Identifier: Apache-2.0

// The daemon's health: the resource `health` and the report of --check. It shows the forwarding plane, the table's
// completeness, the memory pools, and the load of the server and the log.
//
// Threads: any thread may call every function.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "daemon/api/json/json_writer.h"
#include "host/pool/chunk_statistics.h"

namespace l2fibd {

// What the HTTP server and the log contribute. Counters count since the start.
struct server_health {
    uint32_t active_requests = 0;
    uint64_t refused_requests = 0;
    uint32_t open_connections = 0; // with refused ones that are still open
    uint64_t refused_connections = 0;
    uint32_t watchers = 0; // event streams that are open
    uint64_t refused_watchers = 0;
    uint64_t dropped_log_lines = 0;
    int64_t start_time = 0; // when the server began, in seconds since the epoch
};

// The statistics of each memory pool.
std::vector<host::chunk_statistics> pool_statistics();

void write_health(json_writer &json, const server_health &server);

// A few lines for --check.
std::string health_text();

} // namespace l2fibd
