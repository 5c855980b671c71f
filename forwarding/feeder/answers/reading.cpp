// SPDX-License-Identifier: Apache-2.0

// read_rows makes a page in three steps:
//  1. It copies entries of the cache into rows, in short holds of the table lock.
//  2. Without the lock, it asks a plane that ages silently about rows that age, and drops rows that have gone.
//  3. It adds names, VNIs and times.
//
// find_rows takes keys from the shadow table and makes rows of the plane's answers to them. select_ahead returns keys
// only; read_selection reads their rows.
#include "forwarding/feeder/answers/reading.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <ctime>
#include <map>
#include <span>

#include "forwarding/feeder/answers/asking.h"
#include "forwarding/feeder/answers/row.h"
#include "forwarding/feeder/cache/table_hold.h"
#include "forwarding/feeder/feeder.h"
#include "platform/utility.h"

namespace forwarding {
namespace {

constexpr uint64_t nanoseconds = 1'000'000'000;

// Entries and ports visited in one hold of the table lock, so that other threads wait for a short time only.
constexpr uint32_t looks_per_hold = 1024;

// Entries of other places than one port that are looked up together.
constexpr size_t looks_at_once = 32;

// While answers change the order by last sight, each round selects ask_growth times as many entries, up to max_asked.
// A larger round asks about more entries that may turn out to be first. See select_last_seen.
constexpr uint32_t ask_growth = 4;
constexpr uint32_t max_asked = 65'536;

// Entries of a selection about which a plane that ages silently is asked before the first row can be shown.
constexpr uint32_t max_asked_ahead = 16'384;

// An entry with any of these flags does not age.
constexpr uint16_t ageless = EDM_MAC_STATIC | EDM_MAC_LOCAL | EDM_MAC_EXTERN_LEARNED | EDM_MAC_ON_DUMMY_PORT;

void shadow_address(mac_address &to, const uint8_t *from)
{
    std::memcpy(to.data(), from, to.size());
}

// ---- Places ----

using place = port_place;

place place_of(const port_view &port)
{
    return {port.bridge_id, port.xcid};
}

// Finds the first place at or behind `from`. Returns false if there is none.
bool find_place(const object_views &objects, const place &from, place &found)
{
    const auto domain = std::ranges::lower_bound(objects.domains, from.first, {}, &domain_view::bridge_id);
    if (domain == objects.domains.end()) {
        return false;
    }
    const place wanted = domain->bridge_id == from.first ? from : place{domain->bridge_id, 0};
    const auto port = std::ranges::lower_bound(objects.ports, wanted, {}, place_of);
    const bool has_port = port != objects.ports.end() && port->bridge_id == domain->bridge_id;
    found = has_port ? place_of(*port) : place{domain->bridge_id, EDM_XCID_DUMMY};
    return true;
}

// Moves `at` forward to the next place that the filter's lists of domains and ports may have. Returns false if there is
// none.
bool skip_unwanted(const row_filter &filter, place &at)
{
    if (!filter.ports.is_exclusion) {
        const auto listed = std::ranges::lower_bound(filter.ports.values, at);
        if (listed == filter.ports.values.end()) {
            return false;
        }
        at = *listed;
    }
    if (!filter.domains.is_exclusion) {
        const auto listed = std::ranges::lower_bound(filter.domains.values, at.first);
        if (listed == filter.domains.values.end()) {
            return false;
        }
        at = std::max(at, place{*listed, 0});
    }
    return true;
}

// Moves `at` to the place behind it. Returns false if there is none.
bool step(place &at)
{
    at = at.second != EDM_XCID_DUMMY ? place{at.first, at.second + 1} : place{static_cast<uint16_t>(at.first + 1), 0};
    return at.first != 0;
}

// Moves `at` to the first place at or behind it that passes the filter. Returns false if there is none.
bool find_wanted(const object_views &objects, const row_filter &filter, place &at)
{
    while (skip_unwanted(filter, at) && find_place(objects, at, at)) {
        if (passes_place(filter, at)) {
            return true;
        }
        if (!filter.domains.holds(at.first)) {
            at.second = EDM_XCID_DUMMY; // skips its ports
        }
        if (!step(at)) {
            return false;
        }
    }
    return false;
}

// ---- The table ----

// Under the table lock. Null if the table has no such port.
l2fm_edm_bp_t *port_at(const place &at) L2FIB_REQUIRES_TABLE_LOCK
{
    if (at.second != EDM_XCID_DUMMY) {
        return l2fm_edm_table_bp_get_by_xcid(at.second);
    }
    return l2fm_edm_table_bd_bp_get(l2fm_edm_table_bd_get_by_bridgeid(at.first), EDM_XCID_DUMMY);
}

// Under the table lock. Null if the table has no such entry on the port.
const l2fm_edm_mac_t *entry_at(const place &at, const mac_address &mac) L2FIB_REQUIRES_TABLE_LOCK
{
    if (at.second != EDM_XCID_DUMMY) {
        return l2fm_edm_table_mac_get_by_xcid_mac(at.second, mac.data());
    }
    const l2fm_edm_bp_t *bp = port_at(at);
    return bp != nullptr ? l2fm_edm_table_bp_mac_get(&bp->mac_tree, mac.data()) : nullptr;
}

// Finds up to looks_at_once entries. They may be anywhere in memory, so the processor fetches all of them at once.
// Under the table lock.
void find_entries(std::span<const ordered_entry> wanted,
                  std::span<const l2fm_edm_mac_t *> found) L2FIB_REQUIRES_TABLE_LOCK
{
    for (size_t at = 0; at < wanted.size(); at++) {
        found[at] = entry_at({wanted[at].bridge_id, wanted[at].xcid}, wanted[at].key.mac);
        __builtin_prefetch(found[at]);
    }
}

// What a read of rows looks for.
struct row_search {
    const row_filter &filter;
    uint32_t max_rows;       // set by read_page
    mac_address last;        // the last address that may pass
    bool judges_rows;        // some condition is on the rows of the table
    bool needs_ipv6;         // some condition is on an IPv6 tunnel end point
    bool judges_pages;       // some condition is on what only completed rows show
    bool shows_ipv6 = false; // adds IPv6 tunnel end points, also without a condition on them
    bool asks_ages = true;   // asks a plane that ages silently about the rows
    bool completes = true;   // adds names, VNIs and times
};

row_search search_for(const row_filter &filter)
{
    const bool needs_ipv6 = has_ipv6(filter);
    return {filter,
            0,
            base::mac_of_number(filter.addresses.last),
            filter.flags != 0 || !filter.not_addresses.empty() || !filter.origins.holds_all()
                || !filter.vlans.holds_all() || !filter.vteps.holds_all(),
            needs_ipv6,
            needs_ipv6 || !filter.vnis.holds_all() || filter.ages != age_range()};
}

// Judges what a row of the table shows. Its VNI, its age and its IPv6 tunnel end point are not known yet.
bool may_pass(const row_search &search, const mac_row &row)
{
    const row_filter &filter = search.filter;
    const base::ip_address vtep = vtep_of(row);
    return (filter.flags == 0 || (row.flags & filter.flags) != 0) && filter.origins.holds(origin_of(row.flags))
           && filter.vlans.holds(row.vlan) && passes_address(filter, row.mac)
           && ((search.needs_ipv6 && vtep == base::ip_address{}) || filter.vteps.holds(vtep));
}

// The first entry of a port that may pass.
const l2fm_edm_mac_t *first_entry(const row_search &search, const l2fm_edm_bp_t &bp) L2FIB_REQUIRES_TABLE_LOCK
{
    const uint64_t first = search.filter.addresses.first;
    return first == 0 ? l2fm_edm_table_bp_mac_get_first(&bp)
                      : l2fm_edm_table_bp_macaddr_get_next(&bp.mac_tree, base::mac_of_number(first - 1).data());
}

// Reads rows of one port until the page is full, the port ends or `looks` entries were visited. It continues behind
// `page.end` if that is on this port, and moves `page.end` with each entry. Returns true if the port has ended or does
// not exist. Under the table lock.
bool read_port(const row_search &search, const place &at, row_page &page, uint32_t &looks) L2FIB_REQUIRES_TABLE_LOCK
{
    row_position &end = page.end;
    const bool continues = end.holds_row && end.bridge_id == at.first && end.xcid == at.second;
    const l2fm_edm_bp_t *bp = port_at(at);
    const l2fm_edm_mac_t *mac = bp == nullptr ? nullptr
                                : continues   ? l2fm_edm_table_bp_macaddr_get_next(&bp->mac_tree, end.mac.data())
                                              : first_entry(search, *bp);
    end.bridge_id = at.first;
    end.xcid = at.second;
    end.holds_row = continues;
    for (; mac != nullptr && looks != 0 && page.rows.size() < search.max_rows; looks--) {
        shadow_address(end.mac, mac->mac_addr);
        end.holds_row = true;
        if (end.mac > search.last) {
            return true;
        }
        const l2fm_edm_mac_t *next = l2fm_edm_table_bp_mac_get_next(bp, mac);
        __builtin_prefetch(next);
        mac_row row = row_of(*mac);
        row.bridge_id = at.first;
        if (!search.judges_rows || may_pass(search, row)) {
            page.rows.push_back(row);
        }
        mac = next;
    }
    return mac == nullptr;
}

// Reads rows from the port `at` on, in one hold of the table lock, until the page is full or looks_per_hold are used
// up. Moves `at` with each port that ends. Returns false after the last port that passes the filter.
bool read_ports(const row_search &search, place &at, row_page &page)
{
    uint32_t looks = looks_per_hold;
    const table_hold hold;
    while (looks != 0 && page.rows.size() < search.max_rows) {
        if (!read_port(search, at, page, looks)) {
            continue;
        }
        looks -= looks != 0 ? 1 : 0;
        if (!step(at) || !find_wanted(*page.objects, search.filter, at)) {
            return false;
        }
        page.end = {at.first, at.second, {}, false};
    }
    return true;
}

// ---- Names, VNIs and times ----

// Rows of one port are neighbours, so the last domain and port found usually serve the next row.
void add_names(row_page &page)
{
    const domain_view *domain = nullptr;
    const port_view *port = nullptr;
    for (mac_row &row : page.rows) {
        if (domain == nullptr || domain->bridge_id != row.bridge_id) {
            domain = page.objects->find_domain(row.bridge_id);
        }
        if (port == nullptr || port->bridge_id != row.bridge_id || port->xcid != row.xcid) {
            port = row.xcid != EDM_XCID_DUMMY ? page.objects->find_port(row.bridge_id, row.xcid) : nullptr;
        }
        row.domain = domain;
        row.port = port;
    }
}

// Sets the age of rows whose last sight is known, and the time left of those that age.
void add_times(row_page &page)
{
    const int64_t now = std::time(nullptr);
    for (mac_row &row : page.rows) {
        if (row.last_seen != 0) {
            row.age = static_cast<uint32_t>(std::max<int64_t>(0, now - row.last_seen));
        }
        const bool ages = (row.flags & ageless) == 0 && row.last_seen != 0;
        if (ages && row.domain != nullptr && row.domain->ageing_ms != 0) {
            const uint32_t lasts = row.domain->ageing_ms / 1000;
            row.time_left = lasts > row.age ? lasts - row.age : 0;
        }
    }
}

void complete_rows(feeder &feed, row_page &page)
{
    add_names(page);
    feed.add_vnis(page.rows);
    add_times(page);
}

// Calls `ask(keys, answers)` for batches of the size that a plane takes.
template <typename Ask>
std::vector<fdb_answer> answers_in_batches(std::span<const fdb_key> keys, Ask ask)
{
    std::vector<fdb_answer> answers(keys.size());
    for (size_t done = 0; done < keys.size(); done += query_batch) {
        const size_t count = std::min(query_batch, keys.size() - done);
        ask(keys.subspan(done, count), std::span(answers).subspan(done, count));
    }
    return answers;
}

std::vector<fdb_answer> ask_in_batches(feeder &feed, std::span<const fdb_key> keys)
{
    return answers_in_batches(keys, [&feed](auto some, auto answers) { feed.query(some, answers); });
}

// The rows that age, and the keys by which to ask the plane about them.
struct ageing_rows {
    std::vector<size_t> places;
    std::vector<fdb_key> keys;
};

// Flood lists, under the zero address, are left out: they do not age, and no bridge holds them.
ageing_rows ageing_rows_of(const row_page &page)
{
    ageing_rows found;
    for (size_t at = 0; at < page.rows.size(); at++) {
        const mac_row &row = page.rows[at];
        const domain_view *domain = page.objects->find_domain(row.bridge_id);
        if ((row.flags & ageless) == 0 && row.mac != mac_address{} && domain != nullptr) {
            found.keys.push_back({domain->bridge_ifindex, false, domain->vlan, 0, row.mac, {}});
            found.places.push_back(at);
        }
    }
    return found;
}

// Sets the times of last sight of the rows at `places`, and drops the rows that the plane no longer holds. A row about
// which the plane does not answer keeps the time of the latest full dump or notification, and the answer is marked.
void take_answers(feeder &feed, const std::vector<size_t> &places, const std::vector<fdb_answer> &answers,
                  row_page &page)
{
    if (std::ranges::find(answers, fdb_presence::unknown, &fdb_answer::presence) != answers.end()) {
        feed.note_old_ages();
    }
    std::vector<bool> has_gone(page.rows.size());
    for (size_t at = 0; at < places.size(); at++) {
        const fdb_answer &answer = answers[at];
        has_gone[places[at]] = answer.presence == fdb_presence::absent;
        if (answer.presence == fdb_presence::present && answer.record.updated_ms != 0) {
            page.rows[places[at]].last_seen = feed.epoch_seconds(answer.record.updated_ms);
        }
    }
    size_t at = 0;
    std::erase_if(page.rows, [&](const mac_row &) { return has_gone[at++]; });
}

// For a plane that ages silently: asks it about the rows that age.
void refresh_rows(feeder &feed, row_page &page)
{
    const ageing_rows ageing = ageing_rows_of(page);
    take_answers(feed, ageing.places, ask_in_batches(feed, ageing.keys), page);
}

// As refresh_rows, for one page of many.
void refresh_page(feeder &feed, row_page &page)
{
    const ageing_rows ageing = ageing_rows_of(page);
    const auto ask = [&feed](auto keys, auto answers) { feed.query_ages(keys, answers); };
    take_answers(feed, ageing.places, answers_in_batches(std::span(ageing.keys), ask), page);
}

// Sets the members that the reader asked for.
void add_details(const row_details &details, row_page &page)
{
    if (details.since && !page.rows.empty()) {
        on_cache_thread([&](feeder &feed) { feed.add_since(page.rows); });
    }
}

// True for the position of a read that begins: ahead of all rows.
bool is_begin(const row_position &from)
{
    return !from.holds_row && from.bridge_id == 0 && from.xcid == 0;
}

} // namespace

// ---- Rows ----

mac_row row_of(const l2fib_mac_edm_entry_t &descriptor)
{
    mac_row row;
    row.flags = descriptor.flags;
    row.ext_flags = descriptor.ext_flags;
    row.vlan = descriptor.ext_attr;
    row.bridge_id = descriptor.bridge_id;
    row.xcid = (descriptor.flags & EDM_MAC_ON_DUMMY_PORT) != 0 ? EDM_XCID_DUMMY : descriptor.xcid;
    row.node_id = EDM_NODE_UNKNOWN;
    row.last_seen = (descriptor.flags & EDM_MAC_TIMESTAMP_VALID) != 0 ? descriptor.hw_timestamp : 0;
    shadow_address(row.mac, descriptor.mac_addr);
    shadow_address(row.backbone, descriptor.bmac_addr);
    std::memcpy(row.vtep.data(), descriptor.vtep_addr, row.vtep.size());
    return row;
}

mac_row row_of(const l2fm_edm_mac_t &entry)
{
    mac_row row;
    row.flags = static_cast<uint16_t>(entry.flags & ~EDM_MAC_STALE);
    row.ext_flags = entry.ext_flags;
    row.vlan = entry.ext_attr;
    row.bridge_id = static_cast<uint16_t>(entry.bridge_id);
    row.xcid = entry.bp != nullptr ? entry.bp->xcid : entry.xcid;
    row.node_id = entry.node_id;
    row.last_seen = (entry.flags & EDM_MAC_TIMESTAMP_VALID) != 0 ? entry.hw_timestamp : 0;
    row.age = static_cast<uint32_t>((fts_get_stamp_fast() - entry.update_stamp) / nanoseconds);
    shadow_address(row.mac, entry.mac_addr);
    if ((entry.flags & EDM_MAC_PBB) != 0) {
        shadow_address(row.backbone, reinterpret_cast<const l2fm_edm_mac_pbb_t *>(&entry)->bmac_addr);
    } else if ((entry.flags & EDM_MAC_VNI) != 0) {
        const auto *remote = reinterpret_cast<const l2fm_edm_mac_vni_t *>(&entry);
        std::memcpy(row.vtep.data(), remote->vtep_addr, row.vtep.size());
    }
    return row;
}

base::ip_address vtep_of(const mac_row &row)
{
    const bool has_ipv4 = (row.flags & EDM_MAC_VNI) != 0 && row.vtep != std::array<uint8_t, base::ipv4_bytes>{};
    return has_ipv4 ? base::ip_of(row.vtep) : row.ipv6_vtep;
}

bool passes(const row_filter &filter, const mac_row &row)
{
    return passes_place(filter, {row.bridge_id, row.xcid}) && filter.ages.holds(row.age)
           && passes_values(filter, {row.mac, row.flags, row.vlan, row.vni, vtep_of(row)});
}

namespace {

// Rows that a read gets at once if it judges them when they are complete, so that few that pass cost no more reads.
constexpr uint32_t judged_at_once = 200;

// Drops the rows of a page that do not pass. Cuts a page that has too many.
void judge_page(const row_search &search, row_page &page, uint32_t max_rows)
{
    std::erase_if(page.rows, [&](const mac_row &row) { return !passes(search.filter, row); });
    if (page.rows.size() > max_rows) {
        page.rows.resize(max_rows);
        const mac_row &last = page.rows.back();
        page.end = {last.bridge_id, last.xcid, last.mac, true};
        page.more = true;
    }
}

// Reads a page of at most `max_rows` rows.
row_page read_page(row_search search, const row_position &from, uint32_t max_rows)
{
    search.max_rows = search.judges_pages ? std::max(max_rows, judged_at_once) : max_rows;
    row_page page;
    page.end = from;
    page.rows.reserve(search.max_rows);
    with_feeder([&](feeder &feed) {
        page.objects = feed.objects();
        place at{from.bridge_id, from.xcid};
        page.more = find_wanted(*page.objects, search.filter, at);
        while (page.more && page.rows.size() < search.max_rows) {
            page.more = read_ports(search, at, page);
        }
        if (search.asks_ages && is_begin(from)) {
            feed.begin_ages();
        }
        if (search.asks_ages && feed.ages_silently()) {
            refresh_page(feed, page);
        }
        if (search.completes) {
            complete_rows(feed, page);
        }
    });
    if (search.needs_ipv6 || search.shows_ipv6) {
        add_ipv6_vteps(page);
    }
    if (search.judges_pages) {
        judge_page(search, page, max_rows);
    }
    return page;
}

} // namespace

row_page read_rows(const row_filter &filter, const row_position &from, uint32_t max_rows, const row_details &details)
{
    row_page page = read_page(search_for(filter), from, max_rows);
    add_details(details, page);
    return page;
}

void add_ipv6_vteps(row_page &page)
{
    on_cache_thread([&page](const feeder &feed) { feed.add_ipv6_vteps(page.rows); });
}

// ---- One address ----

namespace {

// Adds what only the table knows: the seconds since it updated the entry, and the node id. Rows that the table does not
// hold stay as they are.
void add_table_ages(row_page &page)
{
    const table_hold hold;
    for (mac_row &row : page.rows) {
        if (const l2fm_edm_mac_t *entry = entry_at({row.bridge_id, row.xcid}, row.mac); entry != nullptr) {
            const mac_row cached = row_of(*entry);
            row.age = cached.age;
            row.node_id = cached.node_id;
        }
    }
}

// Reads the rows of the zero address. They are the flood lists of the VXLAN devices. No bridge holds that address, so
// the plane cannot be asked by bridge and the rows come from the table alone.
bool read_flood_lists(feeder &feed, uint16_t bridge_id, row_page &page)
{
    const table_hold hold;
    for (const port_view &port : page.objects->ports) {
        const l2fm_edm_bp_t *bp =
            bridge_id == 0 || port.bridge_id == bridge_id ? l2fm_edm_table_bp_get_by_xcid(port.xcid) : nullptr;
        const mac_address zero = {};
        const l2fm_edm_mac_t *entry = bp != nullptr ? l2fm_edm_table_bp_mac_get(&bp->mac_tree, zero.data()) : nullptr;
        if (entry != nullptr) {
            page.rows.push_back(row_of(*entry));
            page.rows.back().bridge_id = port.bridge_id;
        }
    }
    complete_rows(feed, page);
    return true;
}

bool comes_first(const mac_row &left, const mac_row &right)
{
    return place{left.bridge_id, left.xcid} < place{right.bridge_id, right.xcid};
}

} // namespace

row_page find_rows(const mac_address &mac, uint16_t bridge_id, const row_details &details)
{
    row_page page;
    with_feeder([&](feeder &feed) { page.objects = feed.objects(); });
    if (page.objects == nullptr) {
        return page;
    }
    std::vector<fdb_key> keys;
    on_cache_thread([&](feeder &feed) { keys = feed.places_of(mac, bridge_id); });
    if (mac == mac_address{}) {
        with_feeder([&](feeder &feed) { read_flood_lists(feed, bridge_id, page); });
        add_ipv6_vteps(page);
        add_details(details, page);
        return page;
    }
    std::vector<fdb_answer> answers;
    with_feeder([&](feeder &feed) { answers = ask_in_batches(feed, keys); });
    on_cache_thread([&](feeder &feed) { feed.confirm_places(keys, answers, page.rows); });
    add_table_ages(page);
    with_feeder([&](feeder &feed) {
        page.objects = feed.objects();
        std::ranges::sort(page.rows, comes_first);
        complete_rows(feed, page);
    });
    add_ipv6_vteps(page);
    add_details(details, page);
    return page;
}

// ---- Orders ----

namespace {

// Returns the keys of the entries that age and are not marked in `was_asked`, which has a bit for each slot of the
// shadow table. Marks them.
std::vector<fdb_key> unasked_keys(const std::vector<ordered_entry> &entries, std::vector<bool> &was_asked)
{
    std::vector<fdb_key> keys;
    for (const ordered_entry &entry : entries) {
        if (was_asked.size() <= entry.place.slot) {
            was_asked.resize(entry.place.slot + size_t{1});
        }
        if (entry.ages && !was_asked[entry.place.slot]) {
            was_asked[entry.place.slot] = true;
            keys.push_back(entry.key);
        }
    }
    return keys;
}

// Selects by last sight, with times from the plane. The shadow table's times may be too early if the plane ages
// silently, and an entry that was seen later belongs farther back. So each round asks the plane about the first entries
// that it has not asked about yet. The first round whose answers change nothing is right. With `max_rows` = 2:
//
//      shadow table   A 10:00   B 10:01   C 10:02
//      round 1        asks about A and B; A was seen at 10:05
//      round 2        B 10:01   C 10:02   A 10:05; asks about C; nothing changes: B, C
//
// Each entry is asked about at most once, so the rounds end.
std::vector<order_key> select_last_seen(const order_terms &terms, const order_position &from, uint32_t max_rows)
{
    std::vector<bool> was_asked;
    for (uint32_t ask = max_rows;; ask = std::min(max_asked, ask * ask_growth)) {
        std::vector<order_key> first;
        std::vector<fdb_key> keys;
        on_cache_thread([&](feeder &feed) {
            first = feed.select(terms, from, std::max(ask, max_rows));
            if (feed.ages_silently() && !first.empty()) {
                keys = unasked_keys(feed.entries_at(terms, first, first.back()), was_asked);
            }
        });
        std::vector<fdb_answer> answers;
        with_feeder([&](feeder &feed) { answers = ask_in_batches(feed, keys); });
        size_t changed = 0;
        if (!answers.empty()) {
            on_cache_thread([&](feeder &feed) { changed = feed.take_ages(keys, answers); });
        }
        if (changed == 0) {
            first.resize(std::min<size_t>(first.size(), max_rows));
            return first;
        }
    }
}

// For a plane that ages silently: asks it when it has seen each entry that may pass the filter.
void ask_all_sights(const row_filter &filter)
{
    constexpr size_t keys_at_once = 8 * query_batch; // the cache thread looks for them in one go
    uint32_t slot = 0;
    std::vector<fdb_key> keys;
    with_feeder([](feeder &feed) { feed.begin_ages(); });
    do {
        keys.clear();
        on_cache_thread([&](const feeder &feed) { keys = feed.ageing_keys(filter, slot, keys_at_once); });
        std::vector<fdb_answer> answers;
        with_feeder([&](feeder &feed) {
            answers = answers_in_batches(std::span<const fdb_key>(keys),
                                         [&feed](auto some, auto to) { feed.query_ages(some, to); });
        });
        on_cache_thread([&](feeder &feed) { feed.take_sights(keys, answers); });
    } while (keys.size() == keys_at_once);
}

// ---- Ranks of ports ----

uint16_t rank_of(const ranked_ports &ports, const std::string &name)
{
    const auto at = std::ranges::lower_bound(ports.names, name, base::comes_first) - ports.names.begin();
    return static_cast<uint16_t>(std::min<ptrdiff_t>(at, last_rank - 1));
}

ranked_ports rank_ports(const object_views &objects)
{
    ranked_ports ranked;
    for (const port_view &port : objects.ports) {
        ranked.names.push_back(port.name);
    }
    std::ranges::sort(ranked.names, base::comes_first);
    ranked.names.erase(std::unique(ranked.names.begin(), ranked.names.end()), ranked.names.end());
    for (const port_view &port : objects.ports) {
        ranked.ranks.push_back({port.xcid, rank_of(ranked, port.name)});
    }
    std::ranges::sort(ranked.ranks, {}, &port_rank::xcid);
    return ranked;
}

// The name of the port in whose rows a place of the order by port is. Empty: the bridge domains' own entries.
std::string port_at(const order_selection &selection, const order_key &key)
{
    const auto &names = selection.ports.names;
    const uint64_t rank = (selection.wanted.is_reversed ? ~key.value : key.value) >> bits_behind_rank;
    return rank < names.size() ? names[rank] : "";
}

// Gives a position that an earlier selection made the rank that its port's name has now. If no port has the name any
// more, the position is between the names around it.
void follow_rank(order_selection &selection)
{
    constexpr uint64_t address_mask = (uint64_t{1} << bits_behind_rank) - 1;
    const bool is_reversed = selection.wanted.is_reversed;
    order_position &at = selection.at;
    const bool has_name =
        at.port.empty() || std::ranges::binary_search(selection.ports.names, at.port, base::comes_first);
    const uint64_t first = uint64_t{at.port.empty() ? last_rank : rank_of(selection.ports, at.port)}
                           << bits_behind_rank;
    if (has_name) {
        const uint64_t address = (is_reversed ? ~at.value : at.value) & address_mask;
        at.value = is_reversed ? ~(first | address) : first | address;
        return;
    }
    at.slot = no_slot;
    at.value = is_reversed ? ~first : first - 1;
    at.holds_row = is_reversed || first != 0;
}

void rank_selection(order_selection &selection)
{
    std::shared_ptr<const object_views> objects;
    with_feeder([&](const feeder &feed) { objects = feed.objects(); });
    if (objects == nullptr) {
        return;
    }
    selection.ports = rank_ports(*objects);
    if (selection.at.holds_row) {
        follow_rank(selection);
    }
}

int64_t steady_ms()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

// Reads the rows of entries from the table, in their order. An entry that left its port meanwhile gets no row.
void read_entries(feeder &feed, std::span<const ordered_entry> wanted, row_page &page) L2FIB_REQUIRES_TABLE_LOCK
{
    std::array<const l2fm_edm_mac_t *, looks_at_once> found;
    for (size_t at = 0; at < wanted.size(); at++) {
        if (at % looks_at_once == 0) {
            find_entries(wanted.subspan(at, std::min(looks_at_once, wanted.size() - at)), found);
        }
        if (const l2fm_edm_mac_t *entry = found[at % looks_at_once]; entry != nullptr) {
            mac_row &row = page.rows.emplace_back(row_of(*entry));
            row.bridge_id = wanted[at].bridge_id;
            row.place = wanted[at].place;
            row.last_seen = wanted[at].ages ? feed.epoch_seconds(wanted[at].updated_ms) : row.last_seen;
        }
    }
}

void read_entries_in_holds(feeder &feed, std::span<const ordered_entry> wanted, row_page &page)
{
    page.rows.reserve(wanted.size());
    for (; !wanted.empty(); wanted = wanted.subspan(std::min<size_t>(looks_per_hold, wanted.size()))) {
        const table_hold hold;
        read_entries(feed, wanted.first(std::min<size_t>(looks_per_hold, wanted.size())), page);
    }
}

// Entries that were seen before the read began, entries that came or were seen again since, and entries that do not
// age: they have values of three kinds.
auto kind_of(const order_key &key, uint64_t began)
{
    return std::pair(key.value <= began, key.value <= began + 1);
}

// Drops the keys behind those of the first kind. Returns whether there were any.
bool keep_one_kind(std::vector<order_key> &keys, uint64_t began)
{
    const auto end = std::ranges::find_if(
        keys, [&](const order_key &key) { return kind_of(key, began) != kind_of(keys.front(), began); });
    const bool has_others = end != keys.end();
    keys.erase(end, keys.end());
    return has_others;
}

} // namespace

namespace {

order_terms terms_of(const order_selection &selection)
{
    return {selection.wanted, selection.at.began, selection.ports.ranks};
}

// On the cache thread.
void begin_if_new(feeder &feed, order_selection &selection)
{
    if (selection.at.began == 0) {
        selection.at.began = feed.begin_order(selection.wanted.order);
    }
}

// Selects up to `max_rows` keys and one more, which shows whether entries follow.
std::vector<order_key> select_keys(order_selection &selection, uint32_t &max_rows)
{
    bool asks = false;
    with_feeder(
        [&](const feeder &feed) { asks = selection.wanted.order == row_order::last_seen && feed.ages_silently(); });
    if (asks && !selection.wanted.is_reversed) {
        on_cache_thread([&](feeder &feed) { begin_if_new(feed, selection); });
        max_rows = std::min(max_rows, max_asked_ahead);
        return select_last_seen(terms_of(selection), selection.at, max_rows + 1);
    }
    if (asks) {
        ask_all_sights(selection.wanted.filter);
    }
    if (selection.wanted.order == row_order::port) {
        rank_selection(selection);
    }
    std::vector<order_key> keys;
    on_cache_thread([&](feeder &feed) {
        begin_if_new(feed, selection);
        keys = feed.select(terms_of(selection), selection.at, max_rows + 1);
    });
    return keys;
}

} // namespace

order_selection select_ahead(const order_request &wanted, const order_position &from, uint32_t max_rows)
{
    order_selection selection{.wanted = wanted, .at = from};
    selection.keys = select_keys(selection, max_rows);
    selection.selected_ms = steady_ms();
    selection.more = selection.keys.size() > max_rows;
    selection.keys.resize(std::min<size_t>(selection.keys.size(), max_rows));
    if (is_timed(wanted.order)) {
        selection.more |= keep_one_kind(selection.keys, selection.at.began);
    }
    return selection;
}

bool is_fresh(const order_selection &selection)
{
    constexpr int64_t max_age_ms = 1'000;
    return selection.next < selection.keys.size() && steady_ms() - selection.selected_ms <= max_age_ms;
}

void seek(order_selection &selection, const order_position &to)
{
    const auto next = std::ranges::upper_bound(selection.keys, order_key{to.value, to.slot});
    selection.next = to.holds_row ? static_cast<size_t>(next - selection.keys.begin()) : 0;
    selection.at = to;
}

order_position position_of(const order_selection &selection, const order_key &key)
{
    const bool is_by_port = selection.wanted.order == row_order::port;
    return {key.value, key.slot, true, selection.at.began, is_by_port ? port_at(selection, key) : std::string()};
}

namespace {

// Reads the rows of the keys, which are not empty. Rows that do not pass the filter are dropped.
row_page read_keys(order_selection &selection, std::span<const order_key> keys, const order_key &last)
{
    const order_request &wanted = selection.wanted;
    std::vector<ordered_entry> entries;
    on_cache_thread([&](feeder &feed) { entries = feed.entries_at(terms_of(selection), keys, last); });
    row_page page;
    with_feeder([&](feeder &feed) {
        page.objects = feed.objects();
        read_entries_in_holds(feed, entries, page);
        selection.more |= page.rows.size() < keys.size(); // an entry may be behind the last key now
        if (wanted.order != row_order::last_seen && feed.ages_silently()) {
            refresh_rows(feed, page);
        }
        complete_rows(feed, page);
    });
    if (has_ipv6(wanted.filter)) {
        add_ipv6_vteps(page);
    }
    return page;
}

} // namespace

ordered_page read_selection(order_selection &selection, uint32_t max_rows, const row_details &details)
{
    const auto keys = std::span<const order_key>(selection.keys).subspan(selection.next);
    const auto wanted = keys.first(std::min<size_t>(max_rows, keys.size()));
    ordered_page ordered;
    if (wanted.empty()) {
        with_feeder([&](const feeder &feed) { ordered.page.objects = feed.objects(); });
    } else {
        ordered.page = read_keys(selection, wanted, keys.back());
        selection.at = position_of(selection, wanted.back());
        std::erase_if(ordered.page.rows, [&](const mac_row &row) { return !passes(selection.wanted.filter, row); });
        add_details(details, ordered.page);
    }
    selection.next += wanted.size();
    ordered.page.more = selection.next < selection.keys.size() || selection.more;
    ordered.end = selection.at;
    return ordered;
}

// ---- Counts ----

namespace {

entry_counts counts_of(const edm_mac_counters_t &counters)
{
    return {counters.mac_cnt_sum, counters.mac_cnt_plain, counters.mac_cnt_f2, counters.mac_cnt_f4, 0};
}

} // namespace

entry_counts count_all()
{
    const table_hold hold;
    const l2fm_edm_mac_pool_t &pool = *l2fm_edm_table_mac_get_pool();
    return {pool.mac_cnt_sum, pool.mac_cnt_plain, pool.mac_cnt_f2, pool.mac_cnt_f4, pool.mac_cnt_f60};
}

std::optional<entry_counts> count_domain(uint16_t bridge_id)
{
    std::optional<entry_counts> counts;
    on_cache_thread([&](feeder &feed) {
        edm_mac_counters_t counters{};
        if (feed.count(bridge_id, counters) == 0) {
            counts = counts_of(counters);
        }
    });
    return counts;
}

std::optional<entry_counts> count_port(uint32_t xcid)
{
    std::optional<entry_counts> counts;
    on_cache_thread([&](feeder &feed) {
        if (const auto counters = feed.count_of_port(xcid)) {
            counts = counts_of(*counters);
        }
    });
    return counts;
}

namespace {

// Rows that one round of count_rows reads.
constexpr uint32_t counted_at_once = 1'000;

group_key key_of(const mac_row &row, count_group by)
{
    switch (by) {
    case count_group::domain: return {.place = {row.bridge_id, 0}};
    case count_group::port: return {.place = {row.bridge_id, row.xcid}};
    case count_group::vlan: return {.vlan = row.vlan};
    case count_group::vtep: return {.vtep = vtep_of(row)};
    default: return {.type = origin_of(row.flags)};
    }
}

} // namespace

group_counts count_rows(const row_filter &filter, count_group by)
{
    row_search search = search_for(filter);
    search.shows_ipv6 = by == count_group::vtep;
    search.asks_ages = filter.ages != age_range();
    search.completes = search.judges_pages || search.shows_ipv6;
    std::map<group_key, group_count> groups;
    row_page page;
    do {
        page = read_page(search, page.end, counted_at_once);
        for (const mac_row &row : page.rows) {
            group_count &group = groups[key_of(row, by)];
            group.entries++;
            group.by_origin[static_cast<size_t>(origin_of(row.flags))]++;
        }
    } while (page.more);
    group_counts counted{.objects = page.objects};
    for (auto &[key, group] : groups) {
        group.key = key;
        counted.groups.push_back(group);
    }
    return counted;
}

// ---- Tunnel end points ----

std::vector<vtep_view> read_vteps(const vtep_view &after, uint32_t max_rows)
{
    std::vector<vtep_view> found;
    with_feeder([&](feeder &feed) { found = feed.vteps(after, max_rows); });
    return found;
}

} // namespace forwarding
