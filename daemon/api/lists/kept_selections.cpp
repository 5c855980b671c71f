// SPDX-License-Identifier: Apache-2.0

#include "daemon/api/lists/kept_selections.h"

#include <algorithm>
#include <utility>

namespace l2fibd {

void kept_selections::drop_stale()
{
    for (forwarding::order_selection &each : selections_) {
        if (!forwarding::is_fresh(each)) {
            each = {};
        }
    }
}

void kept_selections::keep(forwarding::order_selection &&selection)
{
    const base::scoped_lock hold(lock_);
    selections_[oldest_] = std::move(selection);
    oldest_ = (oldest_ + 1) % max_kept;
    drop_stale();
}

std::optional<forwarding::order_selection> kept_selections::take(const forwarding::order_request &wanted,
                                                                 const forwarding::order_position &from)
{
    const base::scoped_lock hold(lock_);
    drop_stale();
    auto *found = std::ranges::find_if(selections_, [&](const forwarding::order_selection &each) {
        return !each.keys.empty() && each.wanted == wanted && each.at == from;
    });
    return found != selections_.end() ? std::optional(std::exchange(*found, {})) : std::nullopt;
}

} // namespace l2fibd
