// SPDX-License-Identifier: Apache-2.0

// Keeps what lists in another order have selected ahead (reading.h), from one answer to the next. A client that reads a
// list in pages sends a cursor with each request. Without the selection of its last answer, each request would look at
// all entries of the shadow table again:
//
//      answer to the first request     selects 100,000 places, shows 10,000 rows, keeps the selection
//      answer to its cursor            takes the selection and shows the next 10,000 rows
//
// A kept selection is dropped when it is no longer fresh, or when too many are kept. Its list then selects again. It
// takes a place while it selects (sort_places.h).
//
// Threads: any thread may call every function.
#pragma once

#include <array>
#include <cstddef>
#include <optional>

#include "base/mutex.h"
#include "daemon/api/lists/sort_places.h"
#include "forwarding/feeder/answers/reading.h"

namespace l2fibd {

class kept_selections {
public:
    // Keeps a selection for the list that will continue at `selection.at`, unless it is stale. Allocates no memory.
    void keep(forwarding::order_selection &&selection) L2FIB_EXCLUDES(lock_);

    // Takes the fresh selection that continues at `from`. Empty if none is kept.
    std::optional<forwarding::order_selection> take(const forwarding::order_request &wanted,
                                                    const forwarding::order_position &from) L2FIB_EXCLUDES(lock_);

    sort_places places;

private:
    static constexpr size_t max_kept = 4; // of 2.4 megabytes at most

    void drop_stale() L2FIB_REQUIRES(lock_);

    base::mutex lock_;
    std::array<forwarding::order_selection, max_kept> selections_ L2FIB_GUARDED_BY(lock_); // an empty one is free
    size_t oldest_ L2FIB_GUARDED_BY(lock_) = 0;
};

} // namespace l2fibd
