// SPDX-License-Identifier: Apache-2.0

// When the cache created its entries. The feeder numbers creations in their order, so a short list of (number, time)
// gives the time of each of them, and an entry needs no memory for it:
//
//      creation_times times;
//      times.begin(3);                 // the first three entries were there at the start
//      times.note(4, 10'000);          // created at 10.0 s
//      times.note(5, 10'400);          // in the same second: not kept
//      times.note(6, 12'000);
//      times.at(3)                     // 0: unknown
//      times.at(5)                     // 10'000
//      times.at(6)                     // 12'000
//
// A time may be too early, never too late: by less than a second within the last hour, and before by at most a 2,048th
// of the time that has passed since. So the list has at most 64 K points (1 MiB). If it is full nevertheless, because
// the system's clock was set, it drops every second point.
//
// Threads: the cache thread, without a lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace forwarding {

class creation_times {
public:
    // Creations up to `number` have no time.
    void begin(uint64_t number);
    // Creation `number`, the latest one, happened at `now_ms` since the epoch. Does nothing before `begin`.
    void note(uint64_t number, int64_t now_ms)
    {
        if (has_begun_ && (points_.empty() || now_ms >= next_ms_ || now_ms < points_.back().time_ms)) {
            add(number, now_ms);
        }
    }
    // The time of a creation in ms since the epoch; 0: unknown.
    int64_t at(uint64_t number) const;

    size_t bytes() const { return points_.capacity() * sizeof(point); }

private:
    struct point {
        uint64_t number; // the first creation at this time
        int64_t time_ms;
    };

    void add(uint64_t number, int64_t now_ms);
    void thin(int64_t now_ms);

    std::vector<point> points_; // by number
    uint64_t begun_at_ = 0;
    int64_t next_ms_ = 0; // time of the next point
    bool has_begun_ = false;
};

} // namespace forwarding
