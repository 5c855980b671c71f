// SPDX-License-Identifier: Apache-2.0

// Between the shadow table and the module: keeps the cache at what the shadow table holds, and answers questions about
// both.
//
//      plane --> shadow_table --> feeder --> l2fib_mac_edm_add, l2fm_edm_table_mac_destroy
//        ^                      |  |  \--> objects and removal notifications (host/)
//        |     questions        |  |
//        +----------------------+  +-----> views for other threads
//
// Changes. An entry that changes enters a queue once, however often it changes, and is settled with all others a moment
// later: fed, or withdrawn from the cache. The feed has no removal, so an entry that has gone is looked up and
// destroyed under the table lock. Ports and bridge domains go by notification, which travels through the cache thread's
// queue. Until it has arrived nothing is fed and no resync is served, so that it cannot destroy what was fed after it.
//
// Resyncs cost what changed. The plane delivers its pending changes, the queue is settled, and the cache is in step. A
// scope is marked, fed again and swept only when the number of entries in the cache says that it is not.
//
// Doubt. These entries are asked for by address before anything is concluded:
//  - one that a clean full listing did not report;
//  - one that is reported gone while the plane is degraded, since its return may be among what was lost;
//  - one that comes and goes within a moment, since two processors may have reported in the wrong order;
//  - one that delivers to a next hop that was deleted;
//  - a sample each second (the proof). When the plane disagrees twice, a full listing begins.
// Only the answer "no such entry" removes an entry. What the plane cannot tell stays, and answers are marked.
//
// Limit. A full cache gives up its newest entry for each new one. The feeder sees which one that is, counts it, and
// feeds it again once there is room.
//
// Ids. A bridge domain or port that finds no id free waits for one, and its entries with it (feeder_ids.cpp).
//
// Threads: the cache thread, but for what is marked "any thread". views_mutex_ may be taken with the table lock held,
// and nothing is called with it.
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

// What a resync is for: EDM_RESYNC_ALL, _BD with a bridge id, _BP with an xcid.
struct resync_scope {
    uint32_t type = 0;
    uint32_t arg = 0;
};

struct feeder_settings {
    std::string group;
    uint16_t wait_seconds = 0;
    uint32_t mac_limit = 0;
    uint32_t proof_rate = 0;
    uint16_t domain_limit = max_domains;
    uint32_t port_limit = max_ports;
    reporter report = nullptr;
};

// A place in an order of all entries, with what is needed to read its row and to ask the plane about it.
struct ordered_entry {
    uint64_t value;
    uint32_t slot;
    uint32_t xcid;
    uint16_t bridge_id;
    bool ages;
    int64_t updated_ms;
    fdb_key key;
};

class feeder : private shadow_listener {
public:
    feeder(plane &source, feeder_settings settings);

    // On the cache thread, once. A text tells why the plane does not work.
    std::string start(event_manager_t *evm);

    // Each is completed once, in the call or later.
    void resync(const resync_scope &scope);

    // Brings everything up to date, without completing anything.
    void refresh_everything();

    // Has a degraded plane list again soon.
    void hasten_proof();

    // ---- Questions, on the cache thread ----

    std::vector<tunnel_entry> tunnel_entries(uint32_t &cursor, size_t limit);
    std::optional<edm_mac_counters_t> count_of_port(uint32_t xcid);

    // Where an address may be: where the shadow table holds it, or everywhere.
    std::vector<fdb_key> places_of(const mac_address &mac, uint16_t bridge_id);
    // Takes the plane's answers for these places, and adds a row for each entry that is there.
    void confirm_places(std::span<const fdb_key> keys, std::span<const fdb_answer> answers, std::vector<mac_row> &rows);

    // The number of an order that a new entry would get.
    uint64_t order_now(row_order order) const;
    // The first `most` entries behind `from`, whose `began` is set.
    std::vector<ordered_entry> select(row_order order, const order_position &from, uint32_t most);
    // Takes the plane's answers to questions of another thread. The result counts those whose place in the order has
    // changed.
    size_t take_ages(std::span<const fdb_key> keys, std::span<const fdb_answer> answers);

    // ---- Any thread ----

    // Nonzero when there is no such bridge domain.
    uint32_t count(uint16_t bridge_id, edm_mac_counters_t &counters) const;
    // Asks the plane for an address of a bridge domain. False when it holds none, or cannot tell.
    bool ask(uint32_t bridge_id, const mac_address &mac, fdb_record &record);
    // Asks the plane.
    void query(std::span<const fdb_key> keys, std::span<fdb_answer> answers) { plane_.query(keys, answers); }
    bool ages_silently() const { return plane_.ages_silently(); }
    // The steady clock's milliseconds as seconds since the epoch.
    int64_t epoch_seconds(int64_t steady_ms) const { return (steady_ms + epoch_offset_ms_) / 1000; }

    completeness state() const;
    std::string reason() const;
    uint64_t degradations() const { return degradations_; }
    uint64_t limitations() const { return limitations_; }
    health_view health() const;
    std::shared_ptr<const object_views> objects() const;
    std::vector<vtep_view> vteps(const vtep_view &after, uint32_t most) const;
    // Adds the entries' own VNIs to rows of VXLAN ports.
    void add_vnis(std::vector<mac_row> &rows) const;

private:
    // Why something could not be done.
    enum class refusal : uint8_t { feed, bridge_id, xcid, name, object, notification, count };
    static const char *text_of(refusal reason);

    struct bridge_counters {
        std::atomic<uint32_t> plain, fixed, local, both;
    };

    // A tunnel's end as an entry uses it.
    struct vtep_use {
        uint32_t xcid;
        uint32_t address; // host byte order
        uint32_t vni;
        auto operator<=>(const vtep_use &) const = default;
    };

    struct vtep_users {
        uint32_t count = 0; // of entries
        uint16_t bridge_id = 0;
    };

    // A row whose VNI is not its port's.
    struct row_place {
        uint32_t xcid;
        uint32_t vtep;
        mac_address mac;
        auto operator<=>(const row_place &) const = default;
    };
    struct own_vni {
        uint32_t vni;
        uint32_t source_vni;
    };

    // The entry that a full cache gives up next.
    struct newest_entry {
        uint32_t xcid;
        uint16_t bridge_id;
        mac_address mac;
        uint32_t total; // entries of the cache
    };

    struct losses {
        uint64_t evicted = 0;
        uint64_t refused = 0;
    };

    // Why answers are limited.
    struct limit_causes {
        bool room = false;
        bool ids = false;
        bool operator==(const limit_causes &) const = default;
    };

    // For the event library's callbacks.
    template <auto Member>
    static void call(void *cookie)
    {
        (static_cast<feeder *>(cookie)->*Member)();
    }

    // The steady clock, cut to 32 bits, a few milliseconds late.
    static uint32_t coarse_ms();

    // What the shadow table reports.
    void entry_touched(uint32_t at) override;
    void entry_affected(uint32_t at) override;
    void entry_confirmed(uint32_t at, bool has_aged) override;
    void entry_untold(uint32_t at) override;
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
    bool entry_ages(const shadow_entry &entry) const;
    void correct(std::span<const fdb_key> keys);
    void add_row(uint32_t at, std::vector<mac_row> &rows);

    shadow_table shadow_;
    plane &plane_;
    const feeder_settings settings_;
    event_manager_t *evm_ = nullptr;
    std::atomic<int64_t> epoch_offset_ms_{0}; // milliseconds since the epoch, less those of the steady clock

    id_line bridge_ids_{settings_.domain_limit};
    id_line xcids_{settings_.port_limit};
    std::deque<uint32_t> served_ports_; // their entries wait to be fed since they got an id
    bool must_follow_ids_ = false;      // an object has begun or ceased to wait, or an id has come back
    bool rest_expected_ = false;
    std::unordered_map<uint16_t, uint32_t> domains_by_id_;
    std::unordered_map<uint32_t, uint32_t> ports_by_xcid_;

    std::vector<uint32_t> dirty_; // in the order in which they were touched
    size_t settled_ = 0;          // of dirty_
    bool flush_expected_ = false;
    uint32_t removals_in_flight_ = 0;
    bool waiting_timer_ = false;
    std::vector<resync_scope> waiting_;
    uint64_t last_created_ = 0;

    std::deque<uint32_t> unfed_; // entries that are missing, the first that the cache lost in front

    std::deque<uint32_t> doubtful_;
    std::set<uint32_t> gone_next_hops_;
    std::vector<uint32_t> listed_only_; // since the generation began
    bool doubt_expected_ = false;
    bool was_clean_ = false;        // when the generation began
    bool is_proving_ = false;       // a clean listing has ended, and what it did not report is asked for
    uint32_t proof_generation_ = 0; // of that listing
    uint64_t stale_in_proof_ = 0;   // found by this listing
    uint64_t missing_in_proof_ = 0; // likewise
    uint32_t sample_cursor_ = 0;
    std::vector<uint32_t> sampled_;
    std::vector<uint32_t> disagreeing_; // in the last sample
    uint32_t disagreed_ms_ = 0;         // when the plane was asked for it, as touched_ms
    completeness reported_state_ = completeness::degraded;
    limit_causes reported_causes_;
    uint64_t lost_since_whole_ = 0;
    bool has_reported_loss_ = false; // since answers were whole

    // Any thread.
    std::vector<bridge_counters> bridge_counters_; // by bridge id
    std::atomic<uint64_t> standings_[static_cast<size_t>(standing::count)] = {};
    std::atomic<uint64_t> foreign_[static_cast<size_t>(destination_kind::backbone) + 1] = {};
    std::atomic<uint64_t> refusals_[static_cast<size_t>(refusal::count)] = {};
    std::atomic<uint64_t> links_{0}, entries_{0}, merged_{0}, unchanged_{0};
    std::atomic<uint64_t> resyncs_{0}, resyncs_degraded_{0}, asked_{0}, kept_{0}, feeds_{0}, full_feeds_{0};
    std::atomic<uint64_t> counted_{0}; // entries of the cache, as the feeder fed them
    std::atomic<uint64_t> missing_{0}, evictions_{0}, entries_refused_{0};
    std::atomic<uint64_t> proof_asked_{0}, proof_disagreed_{0}, listed_stale_{0}, listed_missing_{0};
    std::atomic<int64_t> proven_time_{0};
    std::atomic<bool> listed_{false};     // a generation has ended
    std::atomic<bool> is_unproven_{true}; // the plane may be clean, and what it has left open is not decided yet
    std::atomic<uint64_t> degradations_{0}, limitations_{0};
    // An object waits for an id, or some of its entries have waited and are not in the cache yet.
    std::atomic<bool> is_short_of_ids_{false};

    mutable std::mutex views_mutex_; // guards what follows; held for a moment
    std::map<uint16_t, domain_view> domain_views_;
    std::map<std::pair<uint16_t, uint32_t>, port_view> port_views_; // by bridge id and xcid
    mutable std::shared_ptr<const object_views> shared_views_;      // null when they have changed
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
