// SPDX-License-Identifier: Apache-2.0

// Ages of whole bridges, for readers of long lists.
//
// The kernel has two ways to give the age of an entry. A question about one entry costs the same in every bridge. A
// dump of a bridge costs a third of that for each entry, but every part of a dump walks over all entries ahead of it.
// So dumps are cheaper for small bridges and questions for large ones:
//
//      entries of one bridge        40,000    100,000    300,000
//      dump, µs for each entry         0.6        1.2       13.0
//      question, µs                    1.8        1.8        1.8       Linux 6.18, processor time of both sides
//
// A reader asks page by page and may stop after any page. So a bridge is dumped once readers have asked about a share
// of its entries, and its ages then serve the following pages for `lifetime`. The kernel looks at all devices for each
// dump. So once readers have asked about the same share of all entries, one dump takes the ages of all bridges.
//
// If a dump cost more than questions would have, the next one waits for a minute. Nothing depends on a dump being
// complete: the caller asks about each entry that has no age here.
//
// Threads: any.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <span>
#include <unordered_map>
#include <vector>

#include "base/mutex.h"
#include "base/result.h"
#include "forwarding/kernel/netlink/kernel_decode.h"
#include "forwarding/kernel/netlink/kernel_request.h"
#include "forwarding/kernel/netlink/kernel_socket.h"
#include "forwarding/plane.h"

namespace forwarding {

// Times at which the entries of one bridge were last seen, by address and VLAN.
class age_table {
public:
    void put(const mac_address &mac, uint16_t vlan, int64_t updated_ms);
    // Null if the table does not hold the address.
    const int64_t *find(const mac_address &mac, uint16_t vlan) const;
    // Has the processor fetch what `find` will look at.
    void prefetch(const mac_address &mac, uint16_t vlan) const;
    size_t size() const { return size_; }
    // Makes room for as many entries as will come, so that the table need not grow meanwhile.
    void reserve(size_t entries);

private:
    struct slot {
        uint64_t key = 0; // 0: free, because no bridge holds the zero address
        int64_t updated_ms = 0;
    };

    size_t first_place_of(uint64_t key) const;
    size_t place_of(uint64_t key) const;
    void move_to(size_t slots);

    std::vector<slot> slots_; // a power of two, at most half full
    size_t size_ = 0;
};

class kernel_ages {
public:
    // Call it in the plane's network namespace, before any other function. On error nothing can be asked.
    base::result open() L2FIB_EXCLUDES(mutex_);

    // Notes how many entries a bridge holds, after a full dump of it, and that it is gone.
    void note_size(uint32_t bridge, size_t entries) L2FIB_EXCLUDES(sizes_mutex_);
    void forget_size(uint32_t bridge) L2FIB_EXCLUDES(sizes_mutex_);

    // Notes the processor time that questions about `count` entries took, in nanoseconds.
    void note_questions(size_t count, int64_t ns);

    // From now on ages are not older than this call.
    void expire() { valid_from_ = clock::now().time_since_epoch().count(); }

    // Answers `present` for the keys of which an age is known, with the key and the time in the record, and `unknown`
    // for the others. May dump bridges.
    void answer(std::span<const fdb_key> keys, std::span<fdb_answer> answers) L2FIB_EXCLUDES(mutex_, sizes_mutex_);

private:
    using clock = std::chrono::steady_clock;

    // How long ages serve: a reader of 100,000 entries takes about a second on a busy machine.
    static constexpr auto lifetime = std::chrono::seconds(2);
    // Larger bridges are not dumped. A dump of this size costs two thirds of the questions on a quiet machine. While
    // other programs use the processor's cache it costs up to twice as much as they do, and `pause` limits that.
    static constexpr size_t max_of_bridge = 105'000;
    // More entries of all bridges together are not dumped.
    static constexpr size_t max_dumped = 131'072;
    // Entries of all tables together, in 32 to 64 bytes each. A part of a dump may add some hundred more.
    static constexpr size_t max_held = 2 * max_dumped;
    // After a dump cost more than questions. Its cost depends on what else the machine does.
    static constexpr auto pause = std::chrono::minutes(1);
    // Bridges with a known size: as many as there are bridge ids.
    static constexpr size_t max_sizes = 65'536;

    // Entries that readers asked about since the last dump, without a pause of `lifetime`.
    struct demand {
        size_t entries = 0;
        clock::time_point asked = {}; // the last time
    };

    struct bridge_ages {
        age_table table = {};
        clock::time_point taken = {}; // when the dump began
        demand asked = {};
        clock::time_point gave_up = {}; // when a dump cost more than questions
    };

    struct aged_entry {
        mac_address mac;
        uint16_t vlan;
        int64_t updated_ms;
    };

    // Entries of one bridge, from a part of a dump.
    struct aged_entries {
        uint32_t bridge = 0;
        size_t count = 0;
        std::array<aged_entry, 32> all;
    };

    bool is_valid(const bridge_ages &of) const;
    void answer_bridge(std::span<const fdb_key> keys, std::span<fdb_answer> answers) L2FIB_REQUIRES(mutex_);
    bool refresh(uint32_t bridge, bridge_ages &ages, size_t count) L2FIB_REQUIRES(mutex_);
    size_t size_of(uint32_t bridge) L2FIB_EXCLUDES(sizes_mutex_);
    size_t sizes_sum() L2FIB_EXCLUDES(sizes_mutex_);
    bool dump(kernel_scope scope, uint32_t bridge, size_t size) L2FIB_REQUIRES(mutex_);
    void read_part() L2FIB_REQUIRES(mutex_);
    void take_part(std::span<const std::byte> part) L2FIB_REQUIRES(mutex_);
    void take(aged_entries &entries) L2FIB_REQUIRES(mutex_);
    age_table &table_of_dump(uint32_t bridge) L2FIB_REQUIRES(mutex_);
    void make_room() L2FIB_REQUIRES(mutex_);

    std::atomic<int64_t> question_ns_ = 1600; // until the first one is measured
    std::atomic<clock::rep> valid_from_ = 0;

    base::mutex sizes_mutex_; // held for a moment
    std::unordered_map<uint32_t, size_t> sizes_ L2FIB_GUARDED_BY(sizes_mutex_);
    size_t sizes_sum_ L2FIB_GUARDED_BY(sizes_mutex_) = 0;

    base::mutex mutex_; // held during a dump, so never by the event manager's thread
    std::unordered_map<uint32_t, bridge_ages> bridges_ L2FIB_GUARDED_BY(mutex_);
    demand all_ L2FIB_GUARDED_BY(mutex_);
    clock::time_point gave_up_ L2FIB_GUARDED_BY(mutex_) = {}; // when a dump of all bridges cost more than questions
    size_t held_ L2FIB_GUARDED_BY(mutex_) = 0;                // entries of all tables
    clock::time_point swept_ L2FIB_GUARDED_BY(mutex_) = {};   // when invalid tables were last dropped
    kernel_socket socket_ L2FIB_GUARDED_BY(mutex_);
    uint32_t sequence_ L2FIB_GUARDED_BY(mutex_) = 0;        // of the latest dump
    clock::time_point began_ L2FIB_GUARDED_BY(mutex_) = {}; // likewise
    size_t added_ L2FIB_GUARDED_BY(mutex_) = 0;             // entries that it brought
    bool is_dumping_ L2FIB_GUARDED_BY(mutex_) = false;      // the kernel has more parts of the latest dump
    std::vector<std::byte> buffer_ L2FIB_GUARDED_BY(mutex_);
    kernel_message message_ L2FIB_GUARDED_BY(mutex_);
};

} // namespace forwarding
