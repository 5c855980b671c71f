// SPDX-License-Identifier: Apache-2.0

// Ids of bridge domains and ports, and the objects that wait because every id is in use.
//
//      new object ---- take ----> id          an id is free and nobody waits
//          |
//          +---------- join ----> waits ---- serve ----> id          in the order of arrival
//
//      object ends --- give_back ----> the id rests ---- end_rests ----> free
//
// An id rests because readers copy the names of objects before they read rows by id. Without the rest, a row of the
// next owner could be shown under the name of the last one.
//
// Threads: one, except for waiting() and limit(), which any thread may call.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <unordered_set>

namespace forwarding {

// Hands out the numbers of a range, each time the next free one. A number is therefore not used again at once.
class id_pool {
public:
    id_pool(uint32_t first, uint32_t last)
        : first_(first)
        , last_(last)
        , next_(first)
    {}

    // 0: all are in use.
    uint32_t take();
    void give_back(uint32_t id) { used_.erase(id); }
    bool is_used_up() const { return used_.size() == limit(); }
    uint32_t limit() const { return last_ - first_ + 1; }

private:
    const uint32_t first_;
    const uint32_t last_;
    uint32_t next_;
    std::unordered_set<uint32_t> used_;
};

// An object that waits, and the id that it gets.
struct served_object {
    uint32_t slot;
    uint32_t id;
};

class id_line {
public:
    // Ids from 1 to `limit`.
    explicit id_line(uint32_t limit)
        : ids_(1, limit)
    {}

    // An id for a new object. 0: all are in use, or other objects wait; the new one joins the line then.
    uint32_t take() { return waiting_.empty() ? ids_.take() : 0; }
    // Takes back an id that no reader has seen.
    void put_back(uint32_t id) { ids_.give_back(id); }
    // Takes back the id of an object that ends. Times are the steady clock's milliseconds, cut to 32 bits.
    void give_back(uint32_t id, uint32_t now_ms) { resting_.push_back({id, now_ms}); }
    // Frees the ids that have rested long enough. The caller has withdrawn all that their last owners had.
    void end_rests(uint32_t now_ms);

    // Returns the object's place in the line, which is never 0.
    uint64_t join(uint32_t slot);
    void leave(uint64_t place);

    // Whether the first object that waits can get an id now, or when an id has rested.
    bool can_serve() const { return !waiting_.empty() && !ids_.is_used_up(); }
    bool waits_for_rest() const { return !waiting_.empty() && !resting_.empty(); }
    // Takes the first object out of the line. For a line that can serve.
    served_object serve();

    uint64_t waiting() const { return count_; }
    uint32_t limit() const { return ids_.limit(); }

    static constexpr uint32_t rest_ms = 1000; // longer than the reading of a page

private:
    struct resting_id {
        uint32_t id;
        uint32_t since_ms;
    };

    id_pool ids_;
    std::deque<resting_id> resting_;       // the longest rest in front
    std::map<uint64_t, uint32_t> waiting_; // slots by place
    uint64_t last_place_ = 0;
    std::atomic<uint64_t> count_{0}; // of waiting_
};

} // namespace forwarding
