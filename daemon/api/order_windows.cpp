// SPDX-License-Identifier: Apache-2.0

#include "daemon/api/order_windows.h"

#include <algorithm>
#include <utility>

namespace l2fibd {

void order_windows::drop_stale()
{
    for (forwarding::order_window &each : windows_) {
        if (!forwarding::is_fresh(each)) {
            each = {};
        }
    }
}

void order_windows::keep(forwarding::order_window &&window)
{
    const base::scoped_lock hold(lock_);
    windows_[oldest_] = std::move(window);
    oldest_ = (oldest_ + 1) % max_kept;
    drop_stale();
}

std::optional<forwarding::order_window> order_windows::take(forwarding::row_order order,
                                                            const forwarding::order_position &from)
{
    const base::scoped_lock hold(lock_);
    drop_stale();
    auto *found = std::ranges::find_if(windows_, [&](const forwarding::order_window &each) {
        return !each.keys.empty() && each.order == order && each.at == from;
    });
    return found != windows_.end() ? std::optional(std::exchange(*found, {})) : std::nullopt;
}

} // namespace l2fibd
