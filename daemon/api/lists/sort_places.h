// SPDX-License-Identifier: Apache-2.0

// Bounds how many sorts run at once. A sort looks at all entries of the shadow table, on the cache thread, which must
// also feed the table. A sort that finds no place waits, at most as long as a resync may take:
//
//      sort_places places;
//      {
//          const sort_places::hold place(places, resyncs);
//          ... select entries ...
//      }
//
// Only selecting takes a place, not the answer that shows the selection. So a client that reads slowly delays no sort.
//
// Threads: any thread may hold a place, one at most.
#pragma once

#include <condition_variable>
#include <cstdint>

#include "base/mutex.h"
#include "daemon/api/database.h"

namespace l2fibd {

class sort_places {
public:
    // One sort may wait for the plane's ages while another one selects on the cache thread.
    static constexpr uint32_t max_sorts = 2;

    class hold {
    public:
        // Throws api_error (503) if no place gets free in time, or if `resyncs` is given up.
        hold(sort_places &places, const resync_requester &resyncs);
        ~hold() { places_.give_back(); }
        hold(const hold &) = delete;
        hold &operator=(const hold &) = delete;

    private:
        sort_places &places_;
    };

private:
    void take(const resync_requester &resyncs) L2FIB_EXCLUDES(lock_);
    void give_back() L2FIB_EXCLUDES(lock_);

    base::mutex lock_;
    std::condition_variable_any freed_;
    uint32_t taken_ L2FIB_GUARDED_BY(lock_) = 0;
};

} // namespace l2fibd
