// SPDX-License-Identifier: Apache-2.0

// Proves the shadow table by full dumps: asks the plane about the entries in doubt until none is left.
//
//      full dump ended clean without the entry --+
//      next hop of the entry deleted ------------+--> queue --> query --> absent:  the entry is removed
//                      +-------------------------+               |        present: the entry is kept and updated
//                      |                                         |
//                      +----------- unknown: asked again --------+
//
// If the plane does not know about one of many destinations, a clean full dump decides instead (see resolve). When the
// queue is empty after a clean full dump, the shadow table is proven.
//
// Threads: the cache thread, without the table lock. Any thread may call the functions of the last section.
#pragma once

#include <atomic>
#include <deque>
#include <set>
#include <vector>

#include "forwarding/feeder/proof/condition.h"
#include "forwarding/feeder/proof/doubt.h"

namespace forwarding {

// True for a device's own entry with the zero or a group address, which may have many destinations. The plane's answer
// names only the first destination, so it does not decide about the others.
bool is_of_flood_list(const shadow_table &shadow, uint32_t entry);

class proof {
public:
    proof(feed_context &context, const entry_counters &counters, doubt &questions, condition &answers);

    // Reports of the shadow table (shadow_table.h).
    void entry_unreported(uint32_t entry);
    void full_dump_differs(uint32_t entry);
    void full_dump_begun();
    void full_dump_ended(bool clean);
    void next_hop_gone(uint32_t id);

    // If answers are degraded, requests the next full dump without the plane's longer pauses.
    void hasten();
    // Takes the plane's answer about an entry in doubt: removes it, keeps it or asks again.
    void resolve(uint32_t entry, const fdb_answer &answer);

    // ---- Any thread ----

    // Adds the times and counts of full dumps.
    void add_to(proof_view &view) const;

private:
    void put_in_doubt(uint32_t entry);
    void put_next_hops_in_doubt();
    void ask_later();
    void resolve_all();
    std::vector<uint32_t> take_batch();
    bool schedule_next_round(bool has_learned);
    void end();

    feed_context &context_;
    const entry_counters &counters_;
    doubt &doubt_;
    condition &condition_;

    std::deque<uint32_t> in_doubt_;     // entries to ask the plane about
    std::set<uint32_t> gone_next_hops_; // deleted next hops whose entries are not in doubt yet
    std::vector<uint32_t> dump_only_;   // entries that the running full dump found and the shadow table did not hold so
    bool is_round_expected_ = false;    // a timer or an event will run resolve_all
    bool was_clean_ = false;            // answers were not degraded when the latest full dump began
    bool is_proving_ = false;           // a full dump ended clean; the plane is asked about what it did not report
    uint32_t proving_dump_ = 0;         // number of that full dump
    std::atomic<uint64_t> stale_{0}, missing_{0}; // see mended_entries, over the lifetime
    std::atomic<int64_t> proven_time_{0};
};

} // namespace forwarding
