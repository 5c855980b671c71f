// SPDX-License-Identifier: Apache-2.0

#include "bench/rows.h"

#include <algorithm>

namespace bench {

namespace {

constexpr size_t most_steps = 1000; // of the row that steps through a bridge domain

size_t each_entry(const work &on)
{
    return on.fed.size();
}

size_t each_step(const work &on)
{
    return std::min(on.fed.size(), most_steps);
}

uint64_t feed_again(contestant &at, const work &on)
{
    return at.feed(on.shuffled);
}

uint64_t feed_again_batches(contestant &at, const work &on)
{
    return at.feed_batches(on.shuffled);
}

uint64_t resync_batches(contestant &at, const work &on)
{
    at.mark_all();
    if (at.feed_batches(on.shuffled) == cannot) {
        return cannot;
    }
    return at.sweep_all();
}

uint64_t create(contestant &at, const work &on)
{
    return at.feed(on.fed);
}

uint64_t create_batches(contestant &at, const work &on)
{
    return at.feed_batches(on.fed);
}

uint64_t look_up_by_domain(contestant &at, const work &on)
{
    return at.look_up_by_domain(on.shuffled);
}

uint64_t look_up_by_port(contestant &at, const work &on)
{
    return at.look_up_by_port(on.shuffled);
}

uint64_t look_up_absent(contestant &at, const work &on)
{
    return at.look_up_by_domain(on.absent);
}

uint64_t successor(contestant &at, const work &on)
{
    return at.successors(on.absent);
}

uint64_t steps(contestant &at, const work &on)
{
    return at.steps(1, each_step(on));
}

uint64_t walk(contestant &at, const work &)
{
    return at.walk();
}

uint64_t pages(contestant &at, const work &)
{
    return at.pages();
}

uint64_t mark_and_sweep(contestant &at, const work &)
{
    at.mark_all();
    return at.sweep_all();
}

uint64_t remove_domains(contestant &at, const work &on)
{
    uint64_t result = 0;
    for (uint32_t domain = 1; domain <= on.over.domains; domain++) {
        result = at.remove_domain(domain);
    }
    return result;
}

constexpr auto full = before::full;
constexpr auto empty = before::empty;
constexpr auto emptied = before::full_then_empty;
constexpr auto time = figure::time;

constexpr row rows[] = {
    {"create", "create, one by one", main_layout, empty, time, create, each_entry, {1.3, 1.0, 0.7}, 0, 900},
    {"create-batches",
     "create, in batches",
     main_layout,
     empty,
     time,
     create_batches,
     each_entry,
     {1.2, 0.9, 0.5},
     0,
     0},
    {"feed-again", "feed again, one by one", main_layout, full, time, feed_again, each_entry, {1.2, 1.0, 0.8}, 0, 320},
    {"feed-again-batches",
     "feed again, in batches",
     main_layout,
     full,
     time,
     feed_again_batches,
     each_entry,
     {0.9, 0.3, 0.3},
     0,
     260},
    {"resync-batches",
     "full resync, in batches",
     main_layout,
     full,
     time,
     resync_batches,
     each_entry,
     {0.9, 0.3, 0.3},
     0,
     0},
    {"lookup-domain",
     "look up by domain and address",
     main_layout,
     full,
     time,
     look_up_by_domain,
     each_entry,
     {1.5, 1.2, 1.2},
     0,
     85},
    {"lookup-port",
     "look up by port and address",
     main_layout,
     full,
     time,
     look_up_by_port,
     each_entry,
     {1.5, 0.9, 1.2},
     0,
     85},
    {"lookup-absent",
     "look up an absent address",
     main_layout,
     full,
     time,
     look_up_absent,
     each_entry,
     {1.6, 2.0, 2.0},
     0,
     72},
    {"successor",
     "successor of an absent address on a port",
     main_layout,
     full,
     time,
     successor,
     each_entry,
     {1.2, 1.2, 1.0},
     0,
     230},
    {"next-of-domain",
     "next address of a domain, 256 ports",
     layout_of_steps,
     full,
     time,
     steps,
     each_step,
     {},
     0,
     2000},
    {"walk", "ordered walk", main_layout, full, time, walk, each_entry, {1.0, 0.6, 0.5}, 0, 35},
    {"page", "page of 200 with item keys", main_layout, full, time, pages, each_entry, {1.0, 0.4, 0.3}, 0, 0},
    {"sweep",
     "mark all and sweep all",
     main_layout,
     emptied,
     time,
     mark_and_sweep,
     each_entry,
     {1.2, 0.7, 0.35},
     0,
     600},
    {"remove-domain",
     "removal of each domain",
     main_layout,
     emptied,
     time,
     remove_domains,
     each_entry,
     {1.2, 0.7, 0.35},
     0,
     0},
    {"slowest-feed",
     "slowest single feed, us",
     main_layout,
     empty,
     figure::slowest_feed,
     nullptr,
     each_entry,
     {},
     100,
     0},
    {"memory", "memory for an entry, bytes", main_layout, empty, figure::memory, nullptr, each_entry, {}, 140, 0},
};

} // namespace

std::span<const row> all_rows()
{
    return rows;
}

} // namespace bench
