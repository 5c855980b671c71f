// SPDX-License-Identifier: Apache-2.0

#include "bench/table/rows.h"

#include <algorithm>

namespace bench {

namespace {

constexpr size_t most_steps = 1000; // of the row that steps through a bridge domain

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

uint64_t steps(contestant &at, const work &)
{
    return at.steps(1, most_steps);
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

constexpr auto empty = before::empty;
constexpr auto emptied = before::full_then_empty;
constexpr auto time = figure::time;

constexpr row rows[] = {
    {"create", "create, one by one", {{1.3, 1.0, 0.7}, 900}, create, empty},
    {"create-batches", "create, in batches", {{1.2, 0.9, 0.5}}, create_batches, empty},
    {"feed-again", "feed again, one by one", {{1.2, 1.0, 0.8}, 320}, feed_again},
    {"feed-again-batches", "feed again, in batches", {{0.9, 0.3, 0.3}, 260}, feed_again_batches},
    {"resync-batches", "full resync, in batches", {{0.9, 0.3, 0.3}}, resync_batches},
    {"lookup-domain", "look up by domain and address", {{1.5, 1.2, 1.2}, 85}, look_up_by_domain},
    {"lookup-port", "look up by port and address", {{1.5, 0.9, 1.2}, 85}, look_up_by_port},
    {"lookup-absent", "look up an absent address", {{1.6, 2.0, 2.0}, 72}, look_up_absent},
    {"successor", "successor of an absent address on a port", {{1.2, 1.2, 1.0}, 230}, successor},
    {"next-of-domain",
     "next address of a domain, 256 ports",
     {{}, 2000},
     steps,
     before::full,
     time,
     layout_of_steps,
     most_steps},
    {"walk", "ordered walk", {{1.0, 0.6, 0.5}, 35}, walk},
    {"page", "page of 200 with item keys", {{1.0, 0.4, 0.3}}, pages},
    {"sweep", "mark all and sweep all", {{1.2, 0.7, 0.35}, 600}, mark_and_sweep, emptied},
    {"remove-domain", "removal of each domain", {{1.2, 0.7, 0.35}}, remove_domains, emptied},
    {"slowest-feed", "slowest single feed, us", {{}, 0, 100}, nullptr, empty, figure::slowest_feed},
    {"memory", "memory for an entry, bytes", {{}, 0, 140, 1'000'000}, nullptr, empty, figure::memory},
};

} // namespace

size_t items_of(const row &of, const work &on)
{
    return of.steps == 0 ? on.fed.size() : std::min(on.fed.size(), of.steps);
}

std::span<const row> all_rows()
{
    return rows;
}

} // namespace bench
