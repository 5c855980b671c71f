// What the health resource and --check tell.
#pragma once

#include <cstdint>
#include <string>

#include "daemon/json_writer.h"

namespace l2fibd {

void write_health(json_writer &json);

// In a few lines, for --check.
std::string health_text();

// What the server itself adds; nothing until it is set. Before the server starts.
struct server_health {
    uint32_t active_requests = 0;
    uint64_t refused_requests = 0;
};
void set_server_health(server_health (*source)());

} // namespace l2fibd
