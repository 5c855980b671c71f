// SPDX-License-Identifier: Apache-2.0

// Hands out the ids of bridge domains and ports. When all ids are in use, new objects wait in a line for one.
//
//      new object ---- take ----> id          if an id is free and no object waits
//          |
//          +---------- join ----> waits ---- serve ----> id          in the order of arrival
//
//      object ends --- give_back ----> the id rests ---- end_rests ----> the id is free
//
// An id rests before it is free because readers copy the names of objects first and read rows by id later. Without
// the rest, a reader could show a row of the new owner under the name of the old owner.
//
// Example: a line for one id.
//
//      id_line line(1);
//      line.take();                            // 1
//      line.take();                            // 0: the id is in use
//      line.join(slot);                        // the second object waits
//      line.give_back(1, now_ms);              // the first object ends; id 1 rests
//      line.end_rests(now_ms + line.rest_ms);  // id 1 is free
//      line.serve();                           // {slot, 1}
//
// Threads: the feeder calls everything on the cache thread. Any thread may call waiting() and limit(). No lock is
// needed.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <unordered_set>

namespace forwarding {

// Hands out the numbers of a range in turn, and begins again at the first one after the last. So a number that was
// given back is not handed out again at once.
class id_pool {
public:
    id_pool(uint32_t first, uint32_t last)
        : first_(first)
        , last_(last)
        , next_(first)
    {}

    // Returns the next free number, or 0 if all are in use.
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

// An object that waited, and the id that it gets.
struct served_object {
    uint32_t slot; // as given to id_line::join
    uint32_t id;
};

class id_line {
public:
    // The line hands out the ids 1 to `limit`.
    explicit id_line(uint32_t limit)
        : ids_(1, limit)
    {}

    // Returns an id for a new object, or 0 if all ids are in use or other objects wait. After a 0 the caller calls
    // join.
    uint32_t take() { return waiting_.empty() ? ids_.take() : 0; }
    // Takes back an id that no reader has seen. The id is free at once.
    void put_back(uint32_t id) { ids_.give_back(id); }
    // Takes back the id of an object that ends. The id rests. `now_ms` is the steady clock in ms, cut to 32 bits.
    void give_back(uint32_t id, uint32_t now_ms) { resting_.push_back({id, now_ms}); }
    // Frees the ids that have rested for `rest_ms`. First, the caller withdraws all entries of their old owners.
    void end_rests(uint32_t now_ms);

    // Puts an object, named by its slot, at the end of the line. Returns its place in the line, which is never 0.
    uint64_t join(uint32_t slot);
    // Takes the object at this place out of the line.
    void leave(uint64_t place);

    // Returns whether an object waits and an id is free.
    bool can_serve() const { return !waiting_.empty() && !ids_.is_used_up(); }
    // Returns whether an object waits and an id rests.
    bool waits_for_rest() const { return !waiting_.empty() && !resting_.empty(); }
    // Takes the first object out of the line and gives it an id. Call it only if can_serve().
    served_object serve();

    // Returns how many objects wait.
    uint64_t waiting() const { return count_; }
    uint32_t limit() const { return ids_.limit(); }

    static constexpr uint32_t rest_ms = 1000; // longer than a reader needs for one page

private:
    struct resting_id {
        uint32_t id;
        uint32_t since_ms;
    };

    id_pool ids_;
    std::deque<resting_id> resting_;       // the id that has rested longest is in front
    std::map<uint64_t, uint32_t> waiting_; // slot by place
    uint64_t last_place_ = 0;
    std::atomic<uint64_t> count_{0}; // size of waiting_, for other threads
};

} // namespace forwarding
