// SPDX-License-Identifier: Apache-2.0

// The daemon's log: one line each on standard error, where the service manager collects them. Control characters and
// invalid UTF-8 are made visible, so that no text breaks a line or disturbs a terminal.
//
// A thread that logs never waits for the reader of standard error. log() puts the line into a bounded queue, and one
// writer thread writes it. Lines that find the queue full, exceed the limits of log_limit.h or cannot be written are
// dropped and counted. Before log_start and after log_stop, log() writes the line itself. It waits at most a second for
// room.
//
// When standard error is the system journal, a line begins with its priority, such as "<4>", and nothing else. The
// journal adds the program's name.
//
// Threads: any for log and log_lines_dropped; lines do not mix.
#pragma once

#include <cstdint>
#include <string_view>

namespace l2fibd {

enum class log_level : uint8_t { error, warning, info, debug };
inline constexpr size_t log_level_count = 4;

// Drops lines of a finer level, uncounted. Call it before other threads start.
void log_threshold(log_level finest);

// Starts the writer thread. Throws std::system_error if there can be no thread. Call it from the main thread, after
// everything that the writer is to inherit is set: signal mask and capabilities.
void log_start();

// Writes what is queued, for at most a second, and ends the writer thread. A writer that hangs in a write is left
// behind; it ends with the process. Harmless when nothing was started. Call it from the main thread.
void log_stop();

void log(log_level level, std::string_view line) noexcept;

// Logs now how many lines were repeated or dropped, so that the line after it can be the last one. Any thread may call
// it.
void log_report_held_back();

// Lines lost since the process began.
uint64_t log_lines_dropped();

} // namespace l2fibd
