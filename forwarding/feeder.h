// Between the copy and the module: keeps the cache at what the copy holds, and answers the module's questions.
//
//      plane --> table_copy --> feeder --> l2fib_mac_edm_add, mark, sweep
//                                 |    --> objects and removal notifications (host/)
//                                 +------> views for other threads
//
// Live changes: an entry that changes is remembered once, however often it changes, and told to the cache with all
// others a moment later. The feed has no removal: an entry that has gone is looked up and destroyed under the table
// lock. Ports and bridge domains go by notification, which travels through the cache thread's queue; until it has
// arrived nothing is fed and no resync is served, so that it cannot destroy what was fed after it.
//
// Resyncs are served from the copy: mark, feed, sweep. The plane is not listed for them. While the plane is degraded
// the copy may lack what the plane holds: what would be swept is asked for first, and the resync ends with the status
// that says so.
//
// Threads: the cache thread, but for what is marked "any thread".
#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "forwarding/forwarding.h"
#include "forwarding/mapping.h"
#include "forwarding/plane.h"
#include "forwarding/table_copy.h"

namespace forwarding {

// What a resync is for: EDM_RESYNC_ALL, _BD with a bridge id, _BP with an xcid.
struct resync_scope {
    uint32_t type = 0;
    uint32_t arg = 0;
};

class feeder : private copy_listener {
public:
    feeder(plane &source, std::string group, uint16_t wait_seconds);

    // On the cache thread, once. A text tells why the plane does not work.
    std::string start(event_manager_t *evm);

    // Each is completed once, in the call or later.
    void resync(const resync_scope &scope);

    // Brings everything up to date, without completing anything.
    void refresh_everything();

    // Any thread. Nonzero when there is no such bridge domain.
    uint32_t count(uint16_t bridge_id, edm_mac_counters_t &counters) const;
    // Any thread: asks the plane for an address of a bridge domain. False when it holds none, or cannot tell.
    bool ask(uint32_t bridge_id, const mac_address &mac, fdb_record &record);
    health_view health() const;
    std::vector<domain_view> domains() const;
    std::vector<port_view> ports() const;

    // The cache thread.
    std::vector<tunnel_entry> tunnel_entries(uint32_t &cursor, size_t limit);

private:
    // Why something could not be done.
    enum class refusal : uint8_t { feed, bridge_id, xcid, name, object, notification, count };
    static const char *text_of(refusal reason);

    struct bridge_counters {
        std::atomic<uint32_t> plain, fixed, local, both;
    };

    // For the event library's callbacks.
    template <auto Member>
    static void call(void *cookie)
    {
        (static_cast<feeder *>(cookie)->*Member)();
    }

    void entry_touched(uint32_t at) override;
    void entry_affected(uint32_t at) override;
    void port_added(uint32_t at) override;
    void port_changed(uint32_t port) override;
    void port_going(uint32_t at) override;
    void domain_added(uint32_t domain) override;
    void domain_changed(uint32_t at) override;
    void domain_going(uint32_t at) override;
    void generation_ended(bool clean) override;

    void recount(uint32_t at);
    void count_in_bridge(copy_entry &entry, uint8_t counted_as, uint16_t bridge_id);
    std::atomic<uint32_t> &bridge_counter(uint16_t bridge_id, uint8_t counted_as);

    void name_domain(uint32_t at);
    std::string full_name(const copy_domain &domain) const;
    void rename_domain(uint32_t at, const std::string &wanted);
    void forget_fed(uint32_t domain);
    bool set_domain_object(uint16_t bridge_id, std::string &name);
    void view_domain(uint32_t at, const std::string &name);
    void view_port(uint32_t at);

    void follow_clock();
    void refuse(refusal reason, const std::string &text);
    void note(const std::string &text);

    void expect_removal(uint32_t publication_status);
    void removal_arrived();
    void flush_later();
    void flush();
    void settle(uint32_t at);
    bool is_surely_gone(uint32_t at);
    void forget_dirty();
    void feed(uint32_t at, const l2fib_mac_edm_entry_t &descriptor);
    void feed(uint32_t at);
    void withdraw(uint32_t at);
    bool position_is_shared(uint32_t at) const;

    void serve_waiting();
    void serve(const resync_scope &scope);
    void bring_up_to_date(const resync_scope &scope);
    template <typename Visit>
    void for_each_entry(const resync_scope &scope, Visit visit);
    uint64_t entries_in(const resync_scope &scope) const;
    void refresh_ages(const resync_scope &scope);
    void ask_ages(std::vector<fdb_key> &keys);
    bool age_matters(uint32_t at) const;
    template <typename Visit>
    void for_each_answer(const std::vector<fdb_key> &keys, Visit visit);
    void keep_doubtful(const resync_scope &scope);
    bool key_of_doubtful(const l2fib_mac_edm_entry_t &cached, fdb_key &key) const;
    void decide(const l2fib_mac_edm_entry_t &cached, const fdb_key &key, const fdb_answer &answer);

    table_copy copy_;
    plane &plane_;
    const std::string group_;
    const uint16_t wait_seconds_;
    event_manager_t *evm_ = nullptr;
    int64_t epoch_offset_ms_ = 0; // milliseconds since the epoch, less those of the steady clock

    id_pool bridge_ids_{1, 65'535};
    id_pool xcids_{1, EDM_COUNTER_UNKNOWN - 1};
    std::unordered_map<uint16_t, uint32_t> domains_by_id_;
    std::unordered_map<uint32_t, uint32_t> ports_by_xcid_;

    std::vector<uint32_t> dirty_; // in the order in which they were touched
    size_t settled_ = 0;          // of dirty_
    bool flush_expected_ = false;
    uint32_t removals_in_flight_ = 0;
    bool listed_ = false; // a generation has ended
    bool waiting_timer_ = false;
    std::vector<resync_scope> waiting_;
    uint32_t age_cursor_ = 0;

    // Any thread.
    std::vector<bridge_counters> bridge_counters_; // by bridge id
    std::atomic<uint64_t> standings_[static_cast<size_t>(standing::count)] = {};
    std::atomic<uint64_t> foreign_[static_cast<size_t>(destination_kind::backbone) + 1] = {};
    std::atomic<uint64_t> refusals_[static_cast<size_t>(refusal::count)] = {};
    std::atomic<uint64_t> links_{0}, entries_{0}, merged_{0}, unchanged_{0};
    std::atomic<uint64_t> resyncs_{0}, resyncs_degraded_{0}, asked_{0}, kept_{0};

    mutable std::mutex views_mutex_; // held for a moment, and nothing is called with it
    std::map<uint16_t, domain_view> domain_views_;
    std::map<uint32_t, port_view> port_views_;
    std::vector<std::string> notes_;
};

template <typename Visit>
void feeder::for_each_entry(const resync_scope &scope, Visit visit)
{
    if (scope.type == EDM_RESYNC_ALL) {
        copy_.for_each_entry(visit);
    } else if (scope.type == EDM_RESYNC_BP) {
        if (const auto port = ports_by_xcid_.find(scope.arg); port != ports_by_xcid_.end()) {
            copy_.for_each_entry_of_port(port->second, visit);
        }
    } else if (const auto domain = domains_by_id_.find(static_cast<uint16_t>(scope.arg));
               domain != domains_by_id_.end()) {
        for (const uint32_t port : copy_.domains[domain->second].ports) {
            copy_.for_each_entry_of_port(port, visit);
        }
    }
}

} // namespace forwarding
