// SPDX-License-Identifier: Apache-2.0

// A table that the benchmark measures: ours, or a peer that does the same work. The harness opens it, fills it and runs
// whole passes over it, so that no pass pays for the harness.
//
// A pass returns a number that depends on each of its answers: two tables with the same content give the same number.
// The harness compares these numbers before it measures, and the compiler cannot leave out the work.
//
// A pass that a table cannot do returns `cannot` at once. The table of the results then shows a dash.
//
// Threads: one thread uses a contestant. The passes still take the lock that other users of the table would need: once
// for each fed entry, once for a walk or a page.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "bench/table/work.h"

namespace bench {

inline constexpr uint64_t cannot = UINT64_MAX;

inline constexpr size_t batch_size = 256; // entries of a batch
inline constexpr size_t page_size = 200;  // items of a page

class contestant {
public:
    contestant() = default;
    contestant(const contestant &) = delete;
    contestant &operator=(const contestant &) = delete;
    virtual ~contestant() = default;

    [[nodiscard]] virtual const char *name() const = 0;

    // Makes an empty table for the ports of a layout. Returns false if this machine cannot run the contestant.
    virtual bool open(layout over) = 0;
    // Destroys the table and returns its memory.
    virtual void close() = 0;
    // The largest number of entries with which a run of this contestant still ends soon.
    [[nodiscard]] virtual size_t capacity() const { return SIZE_MAX; }

    // Whether the memory of the entries is this process's.
    [[nodiscard]] virtual bool is_in_process() const { return true; }

    // Feeds: an unknown address is created, a known one stamped; an address on another port of its domain moves.
    virtual uint64_t feed(entries fed) = 0;
    // The same, with batch_size entries in a call. Peers without batches feed one by one.
    virtual uint64_t feed_batches(entries fed) { return feed(fed); }

    virtual uint64_t look_up_by_domain(entries asked) = 0;
    virtual uint64_t look_up_by_port(entries asked) = 0;
    // For each address, the next larger one on its port.
    virtual uint64_t successors(entries) { return cannot; }
    // Steps over all addresses of a bridge domain in the order of the addresses, each step from the previous address.
    // Ends after `steps`.
    virtual uint64_t steps(uint32_t, size_t) { return cannot; }
    // Visits all entries of all bridge domains by xcid, then address.
    virtual uint64_t walk() = 0;
    // Whether it does. If not, `walk` returns the sum that lookups of all entries return.
    [[nodiscard]] virtual bool walks_in_order() const { return true; }
    // Visits the same as pages of page_size item names. Each page begins behind the last name of the page before.
    virtual uint64_t pages() { return cannot; }

    virtual uint64_t mark_all() = 0;
    // Removes what is still marked. Feeding an entry clears its mark.
    virtual uint64_t sweep_all() = 0;
    virtual uint64_t remove_domain(uint32_t domain) = 0;
};

// The key of an address in a bridge domain, for an index over all of them.
constexpr uint64_t domain_key(uint32_t domain, uint64_t address)
{
    constexpr uint32_t address_bits = 48;
    return uint64_t{domain} << address_bits | address;
}

// A visited entry's contribution to the number of an ordered pass.
constexpr uint64_t add_in_order(uint64_t sum, uint64_t address, uint32_t xcid)
{
    constexpr uint64_t odd = 0x9e3779b97f4a7c15;
    return (sum + address + xcid) * odd;
}

// The same for a lookup, whose answers may come in any order. An absent entry adds nothing.
constexpr uint64_t add_answer(uint64_t sum, uint64_t address, uint32_t xcid)
{
    return sum + address + xcid;
}

// The number of a pass that steps through a bridge domain. `next_of` returns the entry with the smallest address
// greater than its argument, or null.
template <typename Next>
uint64_t sum_of_steps(size_t steps, Next next_of)
{
    uint64_t sum = 0;
    uint64_t address = 0;
    for (size_t i = 0; i < steps; i++) {
        const auto *at = next_of(address);
        if (at == nullptr) {
            break;
        }
        address = at->address;
        sum = add_in_order(sum, address, at->xcid);
    }
    return sum;
}

// The number of a pass of lookups. `find` returns an entry, or null for an absent one.
template <typename Find>
uint64_t sum_of_answers(entries asked, Find find)
{
    uint64_t sum = 0;
    for (const entry &each : asked) {
        if (const auto *found = find(each)) {
            sum = add_answer(sum, found->address, found->xcid);
        }
    }
    return sum;
}

// Ours first, then "full", to which the targets refer. Which others follow depends on the build.
std::vector<std::unique_ptr<contestant>> make_contestants();

std::unique_ptr<contestant> make_ours();
std::unique_ptr<contestant> make_full();
std::unique_ptr<contestant> make_map_of_maps();
std::unique_ptr<contestant> make_intrusive_avl();
std::unique_ptr<contestant> make_multi_index();
std::unique_ptr<contestant> make_sqlite();
std::unique_ptr<contestant> make_kernel();

} // namespace bench
