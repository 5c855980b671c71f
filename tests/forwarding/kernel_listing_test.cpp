// SPDX-License-Identifier: Apache-2.0

// Whether a listing takes a dump for whole, against a kernel in small: entries in their order, a dump that comes in
// parts and goes on by position, and changes between the parts.

#include <algorithm>
#include <gtest/gtest.h>
#include <random>
#include <set>
#include <vector>

#include "forwarding/kernel/kernel_listing.h"

namespace {

using namespace forwarding;

constexpr uint32_t bridge = 1;
constexpr size_t part_size = 20;
constexpr size_t full_length = 32'000;

struct small_kernel {
    std::mt19937 random;
    std::vector<fdb_record> entries = {}; // new ones in front
    std::set<fdb_key> told = {};          // what a listener knows: by dumps and notifications
    kernel_listing listing = {};
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
            told.insert(key_of(entries.front()));
            listing_note_changed(listing, key_of(entries.front()));
            break;
        case 1: // moves
            at->ifindex = 2 + below(2);
            told.insert(key_of(*at));
            listing_note_changed(listing, key_of(*at));
            break;
        default:
            told.erase(key_of(*at));
            listing_note_gone(listing, *at, bridge);
            entries.erase(at);
        }
    }

    // The next part of a dump, port by port, from `port` and `position` on. False at the end.
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
        listing_open_window(listing);
        for (bool more = next_part(port, position, part); more; part.swap(following)) {
            more = next_part(port, position, following);
            for (const fdb_record &record : part) {
                if (listing_believes(listing, record)) {
                    told.insert(key_of(record));
                    listing_note_told(listing, record);
                }
            }
            for (uint32_t count = below(4) == 0 ? below(changes) : 0; count != 0; count--) {
                change();
            }
            listing_end_part(listing, full_length);
        }
        return listing_close_window(listing);
    }
};

TEST(KernelListing, TakesADumpForWholeOnlyWhenItIs)
{
    uint32_t incomplete = 0;
    uint32_t proven = 0;
    for (uint32_t seed = 0; seed < 2000; seed++) {
        small_kernel kernel{std::mt19937(seed)};
        for (int count = 0; count < 300; count++) {
            kernel.add();
        }
        listing_begin(kernel.listing, {kernel_scope::bridge, bridge, bridge});
        ASSERT_TRUE(listing_next(kernel.listing));
        bool counts = false;
        while (!counts && (kernel.listing.attempts == 0 || listing_may_repeat(kernel.listing))) {
            counts = kernel.dump(1 + seed % 40);
            const bool whole = std::all_of(kernel.entries.begin(), kernel.entries.end(), [&kernel](const auto &entry) {
                return kernel.told.contains(key_of(entry));
            });
            incomplete += whole ? 0 : 1;
            ASSERT_TRUE(whole || !counts) << "seed " << seed;
        }
        proven += counts ? 1 : 0;
    }
    EXPECT_GT(incomplete, 500U); // so that there was something to find
    EXPECT_GT(proven, 1900U);
}

// Deletions that the dumped bridge or device does not report as its own.
TEST(KernelListing, KnowsWhatTearsADump)
{
    constexpr uint32_t device = 9;
    const fdb_record own{
        .ifindex = device, .self = true, .mac = {2, 1}, .destination = {destination_kind::next_hop, {}, 12}};
    const fdb_record on_another_port{.ifindex = 2, .master = bridge, .mac = {2, 2}};
    const struct {
        kernel_dump dump;
        uint32_t next_hop; // goes; 0: an entry of the bridge goes
        bool counts;
        bool believed;
    } cases[] = {
        {{kernel_scope::device, device, bridge}, 0, false, true},
        {{kernel_scope::device, device}, 0, true, true},
        {{kernel_scope::bridge, bridge, bridge}, 12, false, false},
        {{kernel_scope::device, device}, 13, false, true},
    };
    for (const auto &each : cases) {
        kernel_listing listing;
        listing_begin(listing, each.dump);
        ASSERT_TRUE(listing_next(listing));
        listing_open_window(listing);
        each.next_hop != 0 ? listing_note_next_hop_gone(listing, each.next_hop)
                           : listing_note_gone(listing, on_another_port, bridge);
        listing_end_part(listing, full_length);
        EXPECT_EQ(listing_believes(listing, own), each.believed) << &each - cases;
        EXPECT_EQ(listing_close_window(listing), each.counts) << &each - cases;
    }
}

} // namespace
