// SPDX-License-Identifier: Apache-2.0

#include "forwarding/feeder/objects/ids.h"

namespace forwarding {

uint32_t id_pool::take()
{
    if (is_used_up()) {
        return 0;
    }
    for (;;) {
        const uint32_t id = next_;
        next_ = id == last_ ? first_ : id + 1;
        if (used_.insert(id).second) {
            return id;
        }
    }
}

void id_line::end_rests(uint32_t now_ms)
{
    while (!resting_.empty() && now_ms - resting_.front().since_ms >= rest_ms) {
        ids_.give_back(resting_.front().id);
        resting_.pop_front();
    }
}

uint64_t id_line::join(uint32_t slot)
{
    waiting_.emplace(++last_place_, slot);
    count_ = waiting_.size();
    return last_place_;
}

void id_line::leave(uint64_t place)
{
    waiting_.erase(place);
    count_ = waiting_.size();
}

served_object id_line::serve()
{
    const served_object served{waiting_.begin()->second, ids_.take()};
    leave(waiting_.begin()->first);
    return served;
}

} // namespace forwarding
