// SPDX-License-Identifier: Apache-2.0

#include "daemon/api/lists/sort_places.h"

#include <chrono>
#include <string>

#include "daemon/api/json/api_error.h"
#include "forwarding/forwarding.h"

namespace l2fibd {

sort_places::hold::hold(sort_places &places, const resync_requester &resyncs)
    : places_(places)
{
    places_.take(resyncs);
}

void sort_places::take(const resync_requester &resyncs)
{
    using clock = std::chrono::steady_clock;
    constexpr auto poll_interval = std::chrono::milliseconds(100); // to notice that the daemon ends
    const uint16_t seconds = forwarding::wait_seconds();
    const auto end = clock::now() + std::chrono::seconds(seconds);
    const base::scoped_lock held(lock_);
    while (taken_ == max_sorts) {
        if (resyncs.is_given_up()) {
            throw daemon_ends("sort");
        }
        if (clock::now() >= end) {
            throw api_error{http_status::unavailable, error_tag::resource_denied,
                            "sort: " + std::to_string(max_sorts) + " other sorts run, and none ended within "
                                + std::to_string(seconds) + " seconds: try again, or leave \"sort\" out"};
        }
        freed_.wait_for(lock_, poll_interval);
    }
    taken_++;
}

void sort_places::give_back()
{
    const base::scoped_lock held(lock_);
    taken_--;
    freed_.notify_one();
}

} // namespace l2fibd
