// The daemon's log: one line each on standard error, where the service manager collects them. What could break a line
// or disturb a terminal is made visible.
//
// Threads: any; lines do not mix.
#pragma once

#include <cstdint>
#include <string_view>

namespace l2fibd {

enum class log_level : uint8_t { error, warning, info, debug };

// Lines of a finer level are left out. Before other threads start.
void log_threshold(log_level finest);

void log(log_level level, std::string_view line);

} // namespace l2fibd
