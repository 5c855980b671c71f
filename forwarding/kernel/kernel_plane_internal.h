// SPDX-License-Identifier: Apache-2.0

// The class behind make_kernel_plane. Only the sources of this room include this header; kernel_plane.h lists what each
// of them implements.
//
// Threads. Everything runs on the event manager's thread, except for query, query_ages, begin_ages, health and lacks,
// which any thread may call.
#pragma once

#include <atomic>
#include <bitset>
#include <chrono>
#include <map>
#include <span>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "base/mutex.h"
#include "forwarding/kernel/full_dump.h"
#include "forwarding/kernel/kernel_ages.h"
#include "forwarding/kernel/kernel_plane.h"
#include "forwarding/kernel/kernel_query.h"
#include "forwarding/kernel/netlink/kernel_decode.h"
#include "forwarding/kernel/netlink/kernel_socket.h"

namespace forwarding {

// Notifications that the plane reads at the end of one part of a dump. If more wait, the dump proves nothing, so that
// the event loop comes back in time.
inline constexpr size_t notifications_per_part = 16'384;

class kernel_plane final : public plane {
public:
    explicit kernel_plane(const kernel_options &options);
    ~kernel_plane() override { kernel_plane::stop(); }

    const char *kind() const override { return "kernel"; }
    base::result start(event_manager_t *evm, sink &to) override;
    void drain() override;
    void query(std::span<const fdb_key> keys, std::span<fdb_answer> answers) override L2FIB_EXCLUDES(query_mutex_);
    void query_ages(std::span<const fdb_key> keys, std::span<fdb_answer> answers) override L2FIB_EXCLUDES(query_mutex_);
    void begin_ages() override { ages_.expire(); }
    bool ages_silently() const override { return true; }
    void request_full_dump() override;
    plane_health health() const override;
    std::vector<std::string> lacks() const override;
    void stop() override;

private:
    using steady_clock = std::chrono::steady_clock;

    struct known_link {
        link_record record;
        uint32_t seen; // sequence number of the latest dump when this link was last reported
    };

    struct known_vnis {
        vni_by_vlan vnis;
        uint32_t seen; // sequence number of the latest dump when this map was last reported
    };

    // The members of plane_health.
    struct counters {
        std::atomic<bool> clean = false;
        std::atomic<uint64_t> full_dumps = 0;
        std::atomic<uint64_t> overruns = 0;
        std::atomic<uint64_t> lost = 0;
        std::atomic<int64_t> last_overrun_time = 0;
        std::atomic<uint64_t> events = 0;
        std::atomic<uint64_t> refused = 0;
        std::atomic<uint64_t> dumps_clean = 0;
        std::atomic<uint64_t> dumps_unclean = 0;
    };

    // ---- kernel_plane.cpp ----

    base::result open(uint32_t receive_buffer) L2FIB_EXCLUDES(query_mutex_);
    base::result attach();
    void allow_queries(bool allowed) L2FIB_EXCLUDES(query_mutex_);
    bool query_allowed() L2FIB_EXCLUDES(query_mutex_);
    void run(void (kernel_plane::*work)());

    // ---- kernel_changes.cpp ----

    void read_turn();
    void read_all_waiting();
    void read_notifications(size_t limit);
    bool read_waiting_notifications(size_t limit);
    void note_overrun();
    void end_overrun();
    void note_loss(uint64_t count);
    void take_change(const kernel_message &message);

    // ---- kernel_links.cpp ----

    void take_link(const link_record &record);
    void take_link_change(const link_record &record);
    void take_link_gone(uint32_t ifindex);
    void take_vlans(uint32_t ifindex, const std::bitset<max_vlans> &vlans);
    void take_vlan_vnis(uint32_t ifindex, const vni_by_vlan &vnis);
    void drop_vlan_vnis_not_seen();
    void follow_local_address(const link_record &before);
    void ask_for_local_address(const link_record &device, std::span<const uint16_t> vlans);

    // ---- kernel_entries.cpp ----

    void take_fdb_change(const fdb_record &record);
    void take_fdb_gone(const fdb_record &record);
    void take_next_hop_gone(const kernel_message &message);
    void report_change(const fdb_record &record);
    bool report_other_destination(const fdb_record &record);
    void note_next_hop(const fdb_record &record);
    void keep_early(const fdb_record &record);
    void take_early(uint32_t ifindex);
    void forget_early(uint32_t ifindex);
    bool is_reported(const fdb_record &record) const;
    uint32_t bridge_of(const fdb_record &record) const;

    // ---- kernel_dumps.cpp ----

    steady_clock::duration pause() const;
    void schedule_full_dump();
    void begin_full_dump();
    void end_full_dump(bool clean);
    void abandon_dumps();
    void dump_own_entries(const link_record &device);
    void dump_vlans(uint32_t ifindex);
    void dump_also(const dump_request &request, bool is_planned);
    void request_next();
    bool request_current();
    void end_dumps();
    void read_dump();
    void take_part(std::span<const std::byte> part);
    bool take_dumped(const kernel_message &message);
    void take_dumped_link(const link_record &record);
    void take_dumped_port(const kernel_message &message);
    void take_dumped_rows(const kernel_message &message);
    void plan_port_vlans(uint32_t ifindex);
    void take_dumped_entry(const fdb_record &record);
    void end_dump(int error);
    bool is_gone(const dump_request &request) const;
    void plan_dumps(bool is_proven);

    kernel_socket notifications_;
    kernel_socket dumps_;
    base::result opened_;
    const std::chrono::milliseconds interval_;
    const std::chrono::milliseconds proof_interval_;
    counters counters_;
    std::atomic<bool> lacks_next_hops_ = false;
    std::atomic<bool> lacks_vlans_ = false;
    std::atomic<bool> lacks_port_vlans_ = false;
    std::atomic<bool> lacks_questions_ = false;

    // The rest, up to the mutex, belongs to the event manager's thread.
    event_manager_t *evm_ = nullptr;
    sink *sink_ = nullptr;
    uint32_t notifications_attachment_ = 0;
    uint32_t dumps_attachment_ = 0;
    std::vector<std::byte> buffer_;
    kernel_message message_;

    bool in_overrun_ = false; // noticed, and the socket has not been read empty since
    uint32_t drops_ = 0;      // the kernel's count when it was last read

    std::unordered_map<uint32_t, known_link> links_;
    std::unordered_map<uint32_t, known_vnis> vnis_; // devices that have a map
    std::unordered_map<uint32_t, std::bitset<max_vlans>> vlans_;
    std::unordered_set<uint32_t> next_hops_; // ids with which entries were reported
    std::map<fdb_key, fdb_record> early_;    // entries that the kernel notified before their devices

    full_dump dump_;
    uint32_t sequence_ = 0;               // of the latest dump
    size_t dumped_ = 0;                   // entries of the latest dump
    vni_by_vlan dumped_vnis_;             // of a port whose VLANs are being dumped
    std::bitset<max_vlans> dumped_vlans_; // likewise
    bool needs_full_dump_ = false;        // a full dump that began before now cannot make the plane clean
    bool was_requested_ = false;          // request_full_dump was called since the last full dump began
    uint32_t doublings_ = 0;              // of the pause before the next full dump
    uint32_t timer_ = 0;                  // begins the next full dump
    steady_clock::time_point due_;        // when `timer_` fires
    steady_clock::time_point began_;
    steady_clock::time_point ended_;
    steady_clock::duration took_{}; // the last full dump

    kernel_ages ages_; // has locks of its own

    base::mutex query_mutex_;
    kernel_querier querier_ L2FIB_GUARDED_BY(query_mutex_);
    bool may_query_ L2FIB_GUARDED_BY(query_mutex_) = false; // started and not stopped
};

} // namespace forwarding
