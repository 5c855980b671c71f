// SPDX-License-Identifier: Apache-2.0

// Keeps the cache equal to the shadow table, and answers questions about both.
//
//      plane --> shadow_table --> feeder --> l2fib_mac_edm_add, l2fm_edm_table_mac_destroy
//        ^                      |  |  \--> objects and removal notifications (host/)
//        |      queries         |  |
//        +----------------------+  +-----> views for other threads
//
// Changes. A changed entry enters a queue once, however often it changes. 20 ms later the feeder settles the whole
// queue: it feeds each entry or withdraws it. The module's feed cannot remove, so the feeder looks up an entry that has
// gone and destroys it under the table lock.
//
// Removals. Bridge domains and ports end by a notification, which travels through the cache thread's queue. Until the
// notification has arrived, the feeder feeds nothing and serves no resync. Otherwise the late notification would
// destroy what was fed after it. A resync also waits for the end of the first full dump. It waits no longer than half
// of the resync wait time, so that the feeder answers before the requester gives up.
//
// Resyncs. A resync costs only what changed: the plane reports its pending changes, and the feeder settles the queue.
// Then it compares the number of entries in the cache with its own count. If they differ, it marks the scope, feeds it
// again and sweeps it.
//
// Doubt. The feeder asks the plane by address before it decides about these entries:
//  - an entry that a clean full dump did not report;
//  - an entry that is reported gone while answers are degraded, because the report of its return may be lost;
//  - a contested entry, because two processors may have reported its changes in the wrong order;
//  - an entry that delivers to a next hop that was deleted;
//  - a sample of entries each second. If the plane disagrees twice about one, a full dump begins.
// If the plane answers that it holds no such entry, the entry is removed. If it cannot answer for an entry of a flood
// list, the next clean full dump decides. Other entries stay, and answers are marked degraded. Two cases differ:
//  - For a contested entry, the latest report holds if answers are not degraded.
//  - In the sample, a missing answer counts as agreement.
//
// Limit. A full cache evicts its newest entry for each new one. The feeder finds out which entry that was, counts it,
// and feeds it again once there is room.
//
// Ids. If no id is free, a new bridge domain or port waits for one, and its entries wait with it (feeder_ids.cpp).
//
// Example, on the cache thread:
//
//      feeder feed(plane, settings);
//      if (const std::string error = feed.start(evm); !error.empty()) {
//          print(error);
//      }
//      feed.resync({EDM_RESYNC_BD, 7});      // completes by l2fib_mac_edm_resync_complete
//
// Threads. Only the cache thread calls the feeder, without the table lock, except for the functions under "Any thread".
//
// Locking. views_mutex_ may be taken while the table lock is held. Never take another lock while holding views_mutex_.
#pragma once

#include <atomic>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "forwarding/feeder/ids.h"
#include "forwarding/feeder/reading.h"
#include "forwarding/forwarding.h"
#include "forwarding/mapping.h"
#include "forwarding/plane.h"
#include "forwarding/shadow_table.h"

namespace forwarding {

// What a resync covers: EDM_RESYNC_ALL, EDM_RESYNC_BD with a bridge id, or EDM_RESYNC_BP with an xcid.
struct resync_scope {
    uint32_t type = 0;
    uint32_t arg = 0;
};

struct feeder_settings {
    std::string group;                   // first part of the full names
    uint16_t wait_seconds = 0;           // resync wait time
    uint32_t mac_limit = 0;              // MAC entries that the cache may hold
    uint32_t proof_rate = 0;             // entries compared with the plane each second
    uint16_t domain_limit = max_domains; // ids for bridge domains
    uint32_t port_limit = max_ports;     // ids for ports
    reporter report = nullptr;           // takes messages for operators; null: none
};

// A selected entry. It has all that a caller needs to read the row and to query the plane.
struct ordered_entry {
    order_key place;
    uint32_t xcid;
    uint16_t bridge_id;
    bool ages; // whether it disappears by itself when it is not seen for the ageing time
    int64_t updated_ms;
    fdb_key key;
};

class feeder : private shadow_listener {
public:
    feeder(plane &source, feeder_settings settings);

    // Starts the plane. Call it once. Returns an empty string, or an error message if the plane did not start.
    std::string start(event_manager_t *evm);

    // Brings a scope up to date. Calls l2fib_mac_edm_resync_complete exactly once, during the call or later.
    void resync(const resync_scope &scope);

    // Brings everything up to date, as a resync does, but completes no resync. While a removal is in flight, it only
    // takes the plane's pending changes.
    void refresh_everything();

    // Requests a full dump if answers are degraded.
    void hasten_proof();

    // ---- Questions, on the cache thread ----

    // Returns up to `limit` own entries of VXLAN devices. `cursor` is 0 at first; the call moves it behind the last
    // slot that it looked at. Fewer than `limit` entries mean the end.
    std::vector<tunnel_entry> tunnel_entries(uint32_t &cursor, size_t limit);
    // Returns the counters of a port, or nothing if there is no such port.
    std::optional<edm_mac_counters_t> count_of_port(uint32_t xcid);

    // Returns the keys under which the plane may hold an address, in one bridge domain or in all (`bridge_id` 0). If
    // the shadow table holds the address and is not degraded, these are its keys only. Otherwise there is one key for
    // each bridge domain.
    std::vector<fdb_key> places_of(const mac_address &mac, uint16_t bridge_id);
    // Brings the shadow table up to date with the plane's answers for these keys. Adds a row for each entry that
    // exists.
    void confirm_places(std::span<const fdb_key> keys, std::span<const fdb_answer> answers, std::vector<mac_row> &rows);

    // Returns the value that a new entry would have in an order.
    uint64_t order_now(row_order order) const;
    // Returns the first `most` entries that come after `from`. The caller has set `from.began`.
    std::vector<order_key> select(row_order order, const order_position &from, uint32_t most);
    // Returns the entries of selected keys that have not moved behind `last`, the last key of their selection.
    std::vector<ordered_entry> entries_at(row_order order, std::span<const order_key> keys, const order_key &last,
                                          uint64_t began) const;
    // Brings the shadow table up to date with the plane's answers to another thread's query. Returns how many keys had
    // an answer that changed the entry's age or contradicted the shadow table.
    size_t take_ages(std::span<const fdb_key> keys, std::span<const fdb_answer> answers);

    // ---- Any thread ----

    // Counts the entries of a bridge domain. Returns 0, or ENOENT if there is no such bridge domain.
    uint32_t count(uint16_t bridge_id, edm_mac_counters_t &counters) const;
    // Asks the plane for an address of a bridge domain. Returns false if the plane holds no such entry or cannot
    // answer.
    bool ask(uint32_t bridge_id, const mac_address &mac, fdb_record &record);
    // As plane::query.
    void query(std::span<const fdb_key> keys, std::span<fdb_answer> answers) { plane_.query(keys, answers); }
    bool ages_silently() const { return plane_.ages_silently(); }
    // Converts a time of the steady clock in ms to seconds since the epoch.
    int64_t epoch_seconds(int64_t steady_ms) const { return (steady_ms + epoch_offset_ms_) / 1000; }

    // What answers are worth now, and why they are not whole; the reason is empty if they are.
    completeness state() const;
    std::string reason() const;
    // How many times answers have become degraded, or limited.
    uint64_t degradations() const { return degradations_; }
    uint64_t limitations() const { return limitations_; }
    health_view health() const;
    // Returns all bridge domains and ports as they are now. The views never change; a later change makes new ones.
    std::shared_ptr<const object_views> objects() const;
    // Returns up to `most` tunnel end points that come after `after`.
    std::vector<vtep_view> vteps(const vtep_view &after, uint32_t most) const;
    // Sets the VNIs of rows of VXLAN ports: the entry's own, or its port's. Rows that have a VNI keep it.
    void add_vnis(std::vector<mac_row> &rows) const;

private:
    // Kinds of failures, counted for the health report.
    enum class refusal : uint8_t { feed, bridge_id, xcid, name, object, notification, count };
    static const char *text_of(refusal reason);

    // Entries of a bridge domain in the cache, by kind; an entry counts in one of them.
    struct bridge_counters {
        std::atomic<uint32_t> plain, fixed, local, both; // fixed: static; both: static and local
    };

    // A tunnel end point with the VNI with which an entry sends to it.
    struct vtep_use {
        uint32_t xcid;
        uint32_t address; // host byte order
        uint32_t vni;
        auto operator<=>(const vtep_use &) const = default;
    };

    struct vtep_users {
        uint32_t count = 0; // entries that use it
        uint16_t bridge_id = 0;
    };

    // Place of a row that shows VNIs of its own instead of its port's.
    struct row_place {
        uint32_t xcid;
        uint32_t vtep; // host byte order; 0: none
        mac_address mac;
        auto operator<=>(const row_place &) const = default;
    };
    struct own_vni {
        uint32_t vni;
        uint32_t source_vni;
    };

    // The entry that a full cache evicts next.
    struct newest_entry {
        uint32_t xcid;
        uint16_t bridge_id;
        mac_address mac;
        uint32_t total; // entries in the cache
    };

    // Entries that a port has lost, over its lifetime.
    struct losses {
        uint64_t evicted = 0;
        uint64_t refused = 0;
    };

    // Why answers are limited.
    struct limit_causes {
        bool room = false; // the cache lacks entries that the shadow table holds
        bool ids = false;  // objects or entries wait for an id
        bool operator==(const limit_causes &) const = default;
    };

    // Makes a member function a callback of the event library; `cookie` is the feeder.
    template <auto Member>
    static void call(void *cookie)
    {
        (static_cast<feeder *>(cookie)->*Member)();
    }

    // Returns the steady clock in ms, cut to 32 bits. It lags a few ms behind, and is cheap enough for every report.
    static uint32_t coarse_ms();

    // Reports of the shadow table (shadow_table.h).
    void entry_touched(uint32_t at) override;
    void entry_affected(uint32_t at) override;
    void entry_confirmed(uint32_t at, bool has_aged) override;
    void entry_unreported(uint32_t at) override;
    void full_dump_differs(uint32_t at) override;
    void next_hop_gone(uint32_t id) override;
    void changes_lost(uint64_t count) override;
    void port_added(uint32_t at) override;
    void port_changed(uint32_t port) override;
    void port_going(uint32_t at) override;
    void domain_added(uint32_t domain) override;
    void domain_changed(uint32_t at) override;
    void domain_going(uint32_t at) override;
    void full_dump_begun() override;
    void full_dump_ended(bool clean) override;

    // Objects, counters and views.
    void recount(uint32_t at);
    void count_entry(uint32_t at);
    void change_counters(const shadow_entry &entry, uint32_t by);
    std::atomic<uint32_t> &bridge_counter(uint16_t bridge_id, uint8_t counted_as);
    bool name_domain(uint32_t at, uint32_t id);
    bool connect_port(uint32_t at, uint32_t xcid);
    std::string full_name(const shadow_domain &domain) const;
    void rename_domain(uint32_t at, const std::string &wanted);
    void feed_renamed(uint32_t domain);
    bool set_domain_object(uint16_t bridge_id, std::string &name);
    void view_domain(uint32_t at, const std::string &name);
    void view_port(uint32_t at);
    void refuse(refusal reason, const std::string &text);
    void note(const std::string &text);
    void report(severity how_bad, const std::string &text) const;
    void add_losses(health_view &view) const;

    // Changes.
    void follow_clock();
    void expect_removal(uint32_t publication_status);
    void removal_arrived();
    void flush_later();
    void flush_again();
    void flush();
    void settle_everything();
    void settle_queue();
    size_t settle_slice();
    void settle(uint32_t at);
    void feed(uint32_t at, const l2fib_mac_edm_entry_t &descriptor);
    uint32_t file(const shadow_entry &entry, const l2fib_mac_edm_entry_t &descriptor, bool on_dummy);
    void note_fed(uint32_t at, const l2fib_mac_edm_entry_t &descriptor, uint32_t xcid);
    void withdraw(uint32_t at);
    uint32_t sharing_entry(uint32_t at) const;
    void use_vtep(uint32_t at, const l2fib_mac_edm_entry_t &descriptor);
    own_vni vnis_of(uint32_t at) const;
    void show_own_vni(const row_place &row, const std::optional<own_vni> &vnis);
    void leave_vtep(shadow_entry &entry);
    void leave_vtep_of(const shadow_entry &entry, bool keeps_row);
    static void destroy_vtep(const vtep_use &use);

    // Limit.
    bool cache_is_full() const;
    std::optional<newest_entry> newest_of_full_cache() const;
    void note_eviction(const newest_entry &before, const shadow_entry &fed, uint16_t bridge_id, uint32_t xcid);
    void lose_evicted(const newest_entry &victim);
    void lose(uint32_t at, uint16_t bridge_id, uint32_t xcid, uint64_t losses::*why);
    void note_present(shadow_entry &entry);
    void feed_rest_of_flood_list(const shadow_entry &entry);
    void refill();
    void collect_unfed();

    // Ids.
    void number_domain(uint32_t at);
    void number_port(uint32_t at);
    void begin_id_shortage(refusal reason, const std::string &object);
    void leave_line(id_line &line, uint64_t place);
    void give_back(id_line &line, uint32_t id);
    void follow_ids_later();
    void follow_ids();
    void end_rest();
    void serve_line(id_line &line, void (feeder::*give)(const served_object &served));
    void serve_domain(const served_object &served);
    void serve_port(const served_object &served);
    void feed_port_later(uint32_t at);
    void feed_served();
    void end_id_shortage();
    bool lacks_ids() const;
    std::string text_of_id_shortage() const;

    // Doubt.
    bool is_questionable(uint32_t at) const;
    void ask_about_slice(size_t end);
    bool may_stand(const fdb_record &record) const;
    void take_answer(uint32_t at, const fdb_answer &answer);
    void remove_surely(uint32_t at);
    void doubt(uint32_t at);
    void doubt_later();
    void resolve_doubts();
    void resolve(uint32_t at, const fdb_answer &answer);
    void doubt_next_hops();
    void end_proof();
    void look_after_shadow_table();
    void sample();
    void compare_sample(bool confirms);
    bool agrees(uint32_t at, const fdb_answer &answer) const;
    void begin_doubt();
    limit_causes causes_of_limit() const;
    std::string text_of_limit() const;
    void follow_state();
    std::string text_of_recovery(completeness before) const;

    // Resyncs.
    void serve_waiting();
    void serve(const resync_scope &scope);
    void bring_up_to_date(const resync_scope &scope);
    void feed_again(const resync_scope &scope);
    bool cache_is_in_step() const;
    template <typename Visit>
    void for_each_entry(const resync_scope &scope, Visit visit);

    // Answers.
    uint64_t order_value(row_order order, const shadow_entry &entry) const;
    order_key key_in(row_order order, uint32_t slot, uint64_t began) const;
    bool entry_ages(const shadow_entry &entry) const;
    void correct(std::span<const fdb_key> keys);
    void add_row(uint32_t at, std::vector<mac_row> &rows);

    shadow_table shadow_;
    plane &plane_;
    const feeder_settings settings_;
    event_manager_t *evm_ = nullptr;
    std::atomic<int64_t> epoch_offset_ms_{0}; // time since the epoch minus the steady clock

    id_line bridge_ids_{settings_.domain_limit};
    id_line xcids_{settings_.port_limit};
    std::deque<uint32_t> served_ports_; // ports that got an id and whose entries are not all queued yet
    bool must_follow_ids_ = false;      // the next flush runs follow_ids: the line changed, or an id came back
    bool rest_expected_ = false;        // a timer will run end_rest
    std::unordered_map<uint16_t, uint32_t> domains_by_id_;
    std::unordered_map<uint32_t, uint32_t> ports_by_xcid_;

    std::vector<uint32_t> dirty_;       // queue of changes, in the order in which entries were touched
    size_t settled_ = 0;                // number of entries at the front of dirty_ that are settled
    bool flush_expected_ = false;       // a timer or an event will run flush
    uint32_t removals_in_flight_ = 0;   // published, and not handled by the cache thread yet
    bool waiting_timer_ = false;        // a timer will serve waiting_ in any case
    std::vector<resync_scope> waiting_; // resyncs that are not served yet
    uint64_t last_created_ = 0;         // latest shadow_entry::created

    std::deque<uint32_t> unfed_; // missing entries, in the order in which the cache lost them; others may be among them

    std::deque<uint32_t> doubtful_;     // entries to ask the plane about
    std::set<uint32_t> gone_next_hops_; // deleted next hops whose entries are not in doubtful_ yet
    std::vector<uint32_t> listed_only_; // entries that the latest full dump found and the shadow table did not hold so
    bool doubt_expected_ = false;       // a timer or an event will run resolve_doubts
    bool was_clean_ = false;            // answers were not degraded when the latest full dump began
    bool is_proving_ = false;           // a full dump ended clean; the feeder asks about what it did not report
    uint32_t proof_generation_ = 0;     // generation of that full dump
    uint64_t stale_in_proof_ = 0;       // stale entries that the latest full dump revealed
    uint64_t missing_in_proof_ = 0;     // entries that it found and no change had reported
    uint32_t sample_cursor_ = 0;        // slot of the latest entry that the sample looked at
    std::vector<uint32_t> sampled_;     // entries of the running comparison
    std::vector<uint32_t> disagreeing_; // entries of the latest sample about which the plane disagreed
    uint32_t disagreed_ms_ = 0;         // when the plane was asked for that sample, by coarse_ms
    completeness reported_state_ = completeness::degraded; // as logged last
    limit_causes reported_causes_;                         // as logged last
    uint64_t lost_since_whole_ = 0;                        // changes lost since answers were last not degraded
    bool has_reported_loss_ = false;                       // a loss was logged since then

    // Any thread reads these.
    std::vector<bridge_counters> bridge_counters_; // by bridge id
    std::atomic<uint64_t> standings_[static_cast<size_t>(standing::count)] = {};
    std::atomic<uint64_t> foreign_[static_cast<size_t>(destination_kind::backbone) + 1] = {};
    std::atomic<uint64_t> refusals_[static_cast<size_t>(refusal::count)] = {};
    std::atomic<uint64_t> links_{0}, entries_{0}, merged_{0}, unchanged_{0};
    std::atomic<uint64_t> resyncs_{0}, resyncs_degraded_{0}, asked_{0}, kept_{0}, feeds_{0}, full_feeds_{0};
    std::atomic<uint64_t> counted_{0}; // entries that the cache should hold by the feeder's own count
    std::atomic<uint64_t> missing_{0}, evictions_{0}, entries_refused_{0};
    std::atomic<uint64_t> proof_asked_{0}, proof_disagreed_{0}, listed_stale_{0}, listed_missing_{0};
    std::atomic<int64_t> proven_time_{0};
    std::atomic<bool> listed_{false}; // the first full dump has ended
    // Nothing has proven the shadow table since the latest doubt. The plane may be clean nevertheless.
    std::atomic<bool> is_unproven_{true};
    std::atomic<uint64_t> degradations_{0}, limitations_{0};
    // An object waits for an id, or has got one and its entries are not all in the cache yet.
    std::atomic<bool> is_short_of_ids_{false};

    mutable std::mutex views_mutex_; // guards the members below; held for short copies and updates only
    std::map<uint16_t, domain_view> domain_views_;
    std::map<std::pair<uint16_t, uint32_t>, port_view> port_views_; // by bridge id and xcid
    mutable std::shared_ptr<const object_views> shared_views_; // null after a change, until objects() builds them again
    std::map<vtep_use, vtep_users> vteps_;
    std::map<row_place, own_vni> own_vnis_;
    std::map<std::pair<uint16_t, uint32_t>, losses> losses_; // by bridge id and xcid
    std::vector<std::string> notes_;
};

template <typename Visit>
void feeder::for_each_entry(const resync_scope &scope, Visit visit)
{
    if (scope.type == EDM_RESYNC_ALL) {
        shadow_.for_each_entry(visit);
    } else if (scope.type == EDM_RESYNC_BP) {
        if (const auto port = ports_by_xcid_.find(scope.arg); port != ports_by_xcid_.end()) {
            shadow_.for_each_entry_of_port(port->second, visit);
        }
    } else if (const auto domain = domains_by_id_.find(static_cast<uint16_t>(scope.arg));
               domain != domains_by_id_.end()) {
        for (const uint32_t port : shadow_.domains[domain->second].ports) {
            shadow_.for_each_entry_of_port(port, visit);
        }
    }
}

} // namespace forwarding
