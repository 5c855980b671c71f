// SPDX-License-Identifier: Apache-2.0

// Keeps the cache equal to the shadow table, and answers questions about both. The feeder owns the shadow table and the
// parts listed below, and passes the shadow table's reports to these parts. It publishes removal notifications itself.
// Other threads call the functions under "Any thread" only.
//
//      plane --> shadow_table --> feeder --> changes --> l2fib_mac_edm_add_batch, l2fm_edm_table_mac_destroy
//        ^                         | | \--> registry --> objects (host/)
//        |      queries            | \----> removal notifications (host/)
//        +-------------------------+-------> views for other threads
//
// The parts, each in a header of its own:
//  - objects/: registry: bridge domains and ports with their views; numbering: their ids; entry_counters and
//    tunnel_ends: what is counted beside the table;
//  - cache/: cache_feed and placement: the feed of single entries; cache_limit: entries without room;
//  - history/: history: events, moves and departures;
//  - proof/: doubt, proof and sample: questions to the plane; condition: what answers are worth;
//  - answers/: table_answers: questions of other threads;
//  - here: changes and change_queue: live changes; resync_server: resyncs.
//
// A part refers only to members above it in the class. Only the queue of changes calls later ones, through `attach`.
//
// Example, on the cache thread:
//
//      feeder feed(plane, settings);
//      if (const base::result started = feed.start(evm); !started.ok()) {
//          print(started.text);
//      }
//      feed.resync({EDM_RESYNC_BD, 7});      // completes by l2fib_mac_edm_resync_complete
//
// Threads. Only the cache thread calls the feeder, without the table lock, except for the functions under "Any thread".
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/result.h"
#include "forwarding/feeder/answers/answers.h"
#include "forwarding/feeder/proof/sample.h"
#include "forwarding/feeder/resync_server.h"

namespace forwarding {

class feeder : private shadow_listener {
public:
    feeder(plane &source, feeder_settings settings);

    // Starts the plane. Call it once. If it fails, the plane is not started.
    base::result start(event_manager_t *evm);

    // See resync_server.h.
    void resync(const resync_scope &scope) { resyncs_.resync(scope); }
    void refresh_everything() { resyncs_.refresh_everything(); }
    // Requests a full dump if answers are degraded.
    void hasten_proof() { proof_.hasten(); }

    // ---- Questions, on the cache thread; see answers.h ----

    std::vector<tunnel_entry> tunnel_entries(uint32_t &cursor, size_t max_entries)
    {
        return answers_.tunnel_entries(cursor, max_entries);
    }
    std::optional<edm_mac_counters_t> count_of_port(uint32_t xcid) { return answers_.count_of_port(xcid); }
    std::vector<object_activity> domain_activity(std::span<const uint16_t> bridge_ids)
    {
        return answers_.domain_activity(bridge_ids);
    }
    std::vector<object_activity> port_activity(std::span<const uint32_t> xcids)
    {
        return answers_.port_activity(xcids);
    }
    void add_since(std::vector<mac_row> &rows) const { answers_.add_since(rows); }
    std::vector<fdb_key> places_of(const mac_address &mac, uint16_t bridge_id)
    {
        return answers_.places_of(mac, bridge_id);
    }
    void confirm_places(std::span<const fdb_key> keys, std::span<const fdb_answer> answers, std::vector<mac_row> &rows)
    {
        answers_.confirm_places(keys, answers, rows);
    }
    void add_ipv6_vteps(std::vector<mac_row> &rows) const { answers_.add_ipv6_vteps(rows); }
    uint64_t begin_order(row_order order) { return answers_.begin_order(order); }
    std::vector<order_key> select(const order_terms &terms, const order_position &from, uint32_t max_entries)
    {
        return answers_.select(terms, from, max_entries);
    }
    std::vector<ordered_entry> entries_at(const order_terms &terms, std::span<const order_key> keys,
                                          const order_key &last) const
    {
        return answers_.entries_at(terms, keys, last);
    }
    std::vector<fdb_key> ageing_keys(const row_filter &filter, uint32_t &slot, size_t max_keys) const
    {
        return answers_.ageing_keys(filter, slot, max_keys);
    }
    void take_sights(std::span<const fdb_key> keys, std::span<const fdb_answer> answers)
    {
        answers_.take_sights(keys, answers);
    }
    size_t take_ages(std::span<const fdb_key> keys, std::span<const fdb_answer> answers)
    {
        return answers_.take_ages(keys, answers);
    }

    // ---- Any thread ----

    // Counts the entries of a bridge domain. Returns 0, or ENOENT if there is no such bridge domain.
    uint32_t count(uint16_t bridge_id, edm_mac_counters_t &counters) const;
    domain_counts count_domains() const; // see forwarding.h
    // Asks the plane for an address of a bridge domain. Returns false if the plane holds no such entry or cannot
    // answer.
    bool ask(uint32_t bridge_id, const mac_address &mac, fdb_record &record);
    // As plane::query.
    void query(std::span<const fdb_key> keys, std::span<fdb_answer> answers) { context_.source.query(keys, answers); }
    // As the plane's functions of the same names.
    void query_ages(std::span<const fdb_key> keys, std::span<fdb_answer> answers)
    {
        context_.source.query_ages(keys, answers);
    }
    void begin_ages() { context_.source.begin_ages(); }
    // Counts answers with ages that the plane did not confirm.
    void note_old_ages() { old_ages_++; }
    uint64_t old_ages() const { return old_ages_; }
    bool ages_silently() const { return context_.source.ages_silently(); }
    // Converts a time of the steady clock in ms to seconds since the epoch.
    int64_t epoch_seconds(int64_t steady_ms) const { return (steady_ms + context_.epoch_offset_ms) / 1000; }

    // What answers are worth now, and why they are not whole; the reason is empty if they are.
    completeness state() const { return condition_.state(); }
    std::string reason() const { return condition_.reason(); }
    // How many times answers have become degraded, or limited.
    uint64_t degradations() const { return doubt_.degradations(); }
    uint64_t limitations() const { return limit_.limitations() + ids_.limitations(); }
    health_view health() const;
    // See registry.h and tunnel_ends.h.
    std::shared_ptr<const object_views> objects() const { return registry_.views(); }
    std::vector<vtep_view> vteps(const vtep_view &after, uint32_t max_ends) const
    {
        return ends_.list(after, max_ends);
    }
    void add_vnis(std::vector<mac_row> &rows) const { ends_.add_vnis(rows); }
    // See change_log.h. The caller's share outlives the feeder.
    std::shared_ptr<change_log> log_of_changes() const { return history_.log(); }

private:
    // Reports of the shadow table (shadow_table.h).
    void entry_gone(uint32_t entry, const fdb_record &record) override { changes_.gone(entry, record); }
    void entry_touched(uint32_t entry) override { changes_.touched(entry); }
    void entry_affected(uint32_t entry) override { changes_.affected(entry); }
    void entry_confirmed(uint32_t entry, bool has_aged) override { changes_.confirmed(entry, has_aged); }
    void entry_unreported(uint32_t entry) override { proof_.entry_unreported(entry); }
    void full_dump_differs(uint32_t entry) override { proof_.full_dump_differs(entry); }
    void next_hop_gone(uint32_t id) override { proof_.next_hop_gone(id); }
    void changes_lost(uint64_t count) override;
    void port_added(uint32_t port) override;
    void port_changed(uint32_t port) override;
    void port_going(uint32_t port) override;
    void domain_added(uint32_t domain) override;
    void domain_changed(uint32_t domain) override;
    void domain_going(uint32_t domain) override;
    void full_dump_begun() override { proof_.full_dump_begun(); }
    void full_dump_ended(bool clean) override;

    void rename_domain(uint32_t domain);
    void expect_removal(uint32_t publication_status);
    void removals_arrived();
    void look_after_shadow_table();

    shadow_table shadow_;
    feed_context context_;
    registry registry_;
    history history_;
    entry_counters counters_;
    tunnel_ends ends_;
    change_queue queue_;
    numbering ids_;
    placement places_;
    cache_limit limit_;
    cache_feed cache_;
    doubt doubt_;
    condition condition_;
    changes changes_;
    proof proof_;
    sample sample_;
    resync_server resyncs_;
    table_answers answers_;
    std::atomic<uint64_t> old_ages_{0};
};

} // namespace forwarding
