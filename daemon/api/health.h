// SPDX-License-Identifier: Apache-2.0

// What the health resource and --check tell.
#pragma once

#include <cstdint>
#include <string>

#include "daemon/api/json_writer.h"

namespace l2fibd {

void write_health(json_writer &json);

// In a few lines, for --check.
std::string health_text();

// What the server and the log add. Zeros until a source is set, which the server does before it starts.
struct server_health {
    uint32_t active_requests = 0;
    uint64_t refused_requests = 0;
    uint32_t open_connections = 0; // refused ones that have not gone yet included
    uint64_t refused_connections = 0;
    uint64_t dropped_log_lines = 0;
};
void set_server_health(server_health (*source)());

} // namespace l2fibd
