// SPDX-License-Identifier: Apache-2.0

// Which dumps a full dump takes as proof, against a small model of the kernel: entries in their order, a dump that is
// sent in parts and continues by position, and changes between the parts.

#include <algorithm>
#include <gtest/gtest.h>
#include <random>
#include <set>
#include <vector>

#include "forwarding/kernel/full_dump.h"

namespace {

using namespace forwarding;

constexpr uint32_t bridge = 1;
constexpr size_t part_size = 20;
constexpr size_t full_length = 32'000;

struct small_kernel {
    std::mt19937 random;
    std::vector<fdb_record> entries = {}; // new ones in front
    std::set<fdb_key> reported = {};      // by dumps and notifications
    full_dump state = {};
    uint32_t next = 0;

    uint32_t below(size_t bound) { return static_cast<uint32_t>(random() % bound); }

    void add()
    {
        fdb_record record{.ifindex = 2 + below(2), .master = bridge, .state = fdb_reachable};
        record.mac = {
            2, 0, 0, static_cast<uint8_t>(next >> 16), static_cast<uint8_t>(next >> 8), static_cast<uint8_t>(next)};
        next++;
        entries.insert(entries.begin(), record);
    }

    void change()
    {
        const auto at = entries.begin() + below(entries.size());
        switch (below(3)) {
        case 0:
            add();
            reported.insert(key_of(entries.front()));
            full_dump_note_changed(state, key_of(entries.front()));
            break;
        case 1: // moves
            at->ifindex = 2 + below(2);
            reported.insert(key_of(*at));
            full_dump_note_changed(state, key_of(*at));
            break;
        default:
            reported.erase(key_of(*at));
            full_dump_note_gone(state, *at, bridge);
            entries.erase(at);
        }
    }

    // Reads the next part of a dump, port by port, from `port` and `position`. Returns false at the end.
    bool next_part(uint32_t &port, size_t &position, std::vector<fdb_record> &part) const
    {
        part.clear();
        for (; port < 4; ++port, position = 0) {
            for (; position < entries.size(); position++) {
                if (entries[position].ifindex == port) {
                    if (part.size() == part_size) {
                        return true;
                    }
                    part.push_back(entries[position]);
                }
            }
        }
        return !part.empty();
    }

    // The kernel makes a part while the one before it is received.
    bool dump(uint32_t changes)
    {
        uint32_t port = 2;
        size_t position = 0;
        std::vector<fdb_record> part;
        std::vector<fdb_record> following;
        full_dump_open_window(state);
        for (bool more = next_part(port, position, part); more; part.swap(following)) {
            more = next_part(port, position, following);
            for (const fdb_record &record : part) {
                if (full_dump_believes(state, record)) {
                    reported.insert(key_of(record));
                    full_dump_note_reported(state, record);
                }
            }
            for (uint32_t count = below(4) == 0 ? below(changes) : 0; count != 0; count--) {
                change();
            }
            full_dump_end_part(state, full_length);
        }
        return full_dump_close_window(state);
    }
};

TEST(FullDump, ProvesOnlyWhatIsComplete)
{
    uint32_t incomplete = 0;
    uint32_t proven = 0;
    for (uint32_t seed = 0; seed < 2000; seed++) {
        small_kernel kernel{std::mt19937(seed)};
        for (int count = 0; count < 300; count++) {
            kernel.add();
        }
        full_dump_begin(kernel.state, {kernel_scope::bridge, bridge, bridge});
        ASSERT_TRUE(full_dump_next(kernel.state));
        bool is_proven = false;
        while (!is_proven && (kernel.state.attempts == 0 || full_dump_may_repeat(kernel.state))) {
            is_proven = kernel.dump(1 + seed % 40);
            const bool whole = std::all_of(kernel.entries.begin(), kernel.entries.end(), [&kernel](const auto &entry) {
                return kernel.reported.contains(key_of(entry));
            });
            incomplete += whole ? 0 : 1;
            ASSERT_TRUE(whole || !is_proven) << "seed " << seed;
        }
        proven += is_proven ? 1 : 0;
    }
    EXPECT_GT(incomplete, 500U); // otherwise the model skipped too little
    EXPECT_GT(proven, 1900U);
}

// Deletions that the dumped bridge or device does not report as its own.
TEST(FullDump, KnowsWhatTearsADump)
{
    constexpr uint32_t device = 9;
    const fdb_record own{
        .ifindex = device, .self = true, .mac = {2, 1}, .destination = {destination_kind::next_hop, {}, 12}};
    const fdb_record on_another_port{.ifindex = 2, .master = bridge, .mac = {2, 2}};
    const struct {
        dump_request dump;
        uint32_t next_hop; // the one that is gone; 0: an entry of the bridge is gone
        bool is_proven;
        bool believed;
    } cases[] = {
        {{kernel_scope::device, device, bridge}, 0, false, true},
        {{kernel_scope::device, device}, 0, true, true},
        {{kernel_scope::bridge, bridge, bridge}, 12, false, false},
        {{kernel_scope::device, device}, 13, false, true},
    };
    for (const auto &each : cases) {
        full_dump state;
        full_dump_begin(state, each.dump);
        ASSERT_TRUE(full_dump_next(state));
        full_dump_open_window(state);
        each.next_hop != 0 ? full_dump_note_next_hop_gone(state, each.next_hop)
                           : full_dump_note_gone(state, on_another_port, bridge);
        full_dump_end_part(state, full_length);
        EXPECT_EQ(full_dump_believes(state, own), each.believed) << &each - cases;
        EXPECT_EQ(full_dump_close_window(state), each.is_proven) << &each - cases;
    }
}

} // namespace
