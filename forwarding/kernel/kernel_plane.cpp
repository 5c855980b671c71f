// SPDX-License-Identifier: Apache-2.0

#include "forwarding/kernel/kernel_plane.h"

#include <algorithm>
#include <atomic>
#include <bitset>
#include <cerrno>
#include <chrono>
#include <map>
#include <mutex>
#include <new>
#include <numeric>
#include <span>
#include <sys/epoll.h>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "forwarding/kernel/kernel_decode.h"
#include "forwarding/kernel/kernel_listing.h"
#include "forwarding/kernel/kernel_query.h"
#include "forwarding/kernel/kernel_socket.h"
#include "host/event/event_host.h"

namespace forwarding {

namespace {

using std::chrono::milliseconds;
using steady_clock = std::chrono::steady_clock;

constexpr uint32_t default_receive_buffer = 128U << 20;
constexpr size_t least_notification_cost = 512; // bytes of the receive buffer; in fact 768 and more
constexpr size_t notifications_per_turn = 4096;
constexpr size_t notifications_per_part = 16'384; // of a dump; if more wait, the dump shows nothing
constexpr size_t parts_per_turn = 8;
constexpr auto parts_time = milliseconds(10); // per turn; one part of a large bridge may take as long
constexpr uint32_t most_doublings = 4;        // of the pause between failed generations: up to 16 intervals
constexpr int proof_share = 100;              // of the time, one part at most is spent on proofs
constexpr size_t most_early = 4096;
constexpr uint16_t vlan_count = 4095; // 0, for no VLAN, counts

struct known_link {
    link_record record;
    uint32_t seen; // sequence number of the latest dump when this link was last reported
};

struct known_vnis {
    vni_by_vlan vnis;
    uint32_t seen; // sequence number of the latest dump when the map was last reported
};

struct counters {
    std::atomic<bool> clean = false;
    std::atomic<uint64_t> generation = 0;
    std::atomic<uint64_t> overruns = 0;
    std::atomic<uint64_t> lost = 0;
    std::atomic<int64_t> last_overrun_time = 0;
    std::atomic<uint64_t> events = 0;
    std::atomic<uint64_t> refused = 0;
    std::atomic<uint64_t> dumps_clean = 0;
    std::atomic<uint64_t> dumps_unclean = 0;
};

// The flood address has a bit of its own and is no group address.
bool is_group(const mac_address &mac)
{
    return (mac[0] & 1U) != 0;
}

class kernel_plane final : public plane {
public:
    explicit kernel_plane(const kernel_options &options);
    ~kernel_plane() override { kernel_plane::stop(); }

    const char *kind() const override { return "kernel"; }
    bool start(event_manager_t *evm, sink &to, std::string &error) override;
    void drain() override;
    void query(std::span<const fdb_key> keys, std::span<fdb_answer> answers) override;
    bool ages_silently() const override { return true; }
    void list_again() override;
    plane_health health() const override;
    std::vector<std::string> lacks() const override;
    void stop() override;

private:
    std::string open(uint32_t receive_buffer);
    std::string attach();

    // Notifications.
    void read_notifications(size_t limit);
    bool read_waiting_notifications(size_t most);
    void note_overrun();
    void end_overrun();
    void note_loss(uint64_t count);
    void take_change(const kernel_message &message);
    void take_link(const link_record &record);
    void take_link_change(const link_record &record);
    void take_link_gone(uint32_t ifindex);
    void take_vlans(uint32_t ifindex, const std::bitset<most_vlans> &vlans);
    void ask_for_local_address(const link_record &device, std::span<const uint16_t> vlans);
    void take_vlan_vnis(uint32_t ifindex, const vni_by_vlan &vnis);
    void drop_unlisted_vlan_vnis();
    void take_fdb_change(const fdb_record &record);
    void take_fdb_gone(const fdb_record &record);
    void take_next_hop_gone(const kernel_message &message);
    void report_change(const fdb_record &record);
    void note_next_hop(const fdb_record &record);
    void keep_early(const fdb_record &record);
    void take_early(uint32_t ifindex);
    void forget_early(uint32_t ifindex);
    void follow_local_address(const link_record &before);
    void list_own_entries(const link_record &device);
    bool keeps_another_destination(const fdb_record &record);

    // Generations.
    steady_clock::duration pause() const;
    void plan_generation();
    void begin_generation();
    void end_listing();
    void end_generation(bool clean);
    void next_dump();
    bool request_dump();
    void end_dump(int error);
    void plan_dumps(bool links_count);
    void read_dump();
    void take_part(std::span<const std::byte> part);
    bool take_listed(const kernel_message &message);

    bool is_told(const fdb_record &record) const;
    uint32_t bridge_of(const fdb_record &record) const;

    template <typename Work>
    void guarded(Work work);

    kernel_socket notifications_;
    kernel_socket dumps_;
    std::string open_error_;
    const milliseconds interval_;
    const milliseconds proof_interval_;
    counters counters_;
    std::atomic<bool> lacks_next_hops_ = false;
    std::atomic<bool> lacks_vlans_ = false;
    std::atomic<bool> lacks_questions_ = false;

    // Of the event manager's thread.
    event_manager_t *evm_ = nullptr;
    sink *sink_ = nullptr;
    uint32_t notifications_attachment_ = 0;
    uint32_t dumps_attachment_ = 0;
    uint32_t timer_ = 0;            // of the next generation
    steady_clock::time_point due_;  // when `timer_` fires
    bool in_overrun_ = false;       // noticed, and the socket has not been read empty since
    uint32_t drops_ = 0;            // the kernel's count when it was last read
    bool needs_generation_ = false; // a generation that began before now cannot make the plane clean
    std::vector<std::byte> buffer_;
    kernel_message message_;
    std::unordered_map<uint32_t, known_link> links_;
    std::unordered_map<uint32_t, known_vnis> vnis_; // of devices that have a map
    std::unordered_map<uint32_t, std::bitset<most_vlans>> vlans_;
    std::unordered_set<uint32_t> next_hops_; // ids with which entries were reported
    std::map<fdb_key, fdb_record> early_;    // entries that the kernel reported before their devices
    kernel_listing listing_;
    uint32_t sequence_ = 0;  // of the last dump
    bool hurried_ = false;   // list_again was called since the last generation began
    uint32_t doublings_ = 0; // of the pause before the next generation
    steady_clock::time_point began_;
    steady_clock::time_point ended_;
    steady_clock::duration took_{}; // the last generation

    std::mutex query_mutex_; // guards what follows
    kernel_querier querier_;
    bool answers_ = false;
};

// ---- Start and end

kernel_plane::kernel_plane(const kernel_options &options)
    : interval_(options.generation_interval_ms)
    , proof_interval_(options.proof_interval_ms)
    , buffer_(kernel_buffer_size)
{
    const uint32_t wanted = options.receive_buffer != 0 ? options.receive_buffer : default_receive_buffer;
    open_error_ = kernel_run_in(options.netns, [this, wanted] { return open(wanted); });
}

std::string kernel_plane::open(uint32_t receive_buffer)
{
    for (kernel_socket *const socket : {&notifications_, &dumps_}) {
        if (std::string error = kernel_socket_open(*socket); !error.empty()) {
            return error;
        }
    }
    kernel_socket_resize(notifications_, receive_buffer);
    return kernel_querier_open(querier_);
}

std::string kernel_plane::attach()
{
    const auto on_notifications = [](void *self, int, uint32_t) {
        auto *const that = static_cast<kernel_plane *>(self);
        that->guarded([that] { that->read_notifications(notifications_per_turn); });
    };
    const auto on_dumps = [](void *self, int, uint32_t) {
        auto *const that = static_cast<kernel_plane *>(self);
        that->guarded([that] { that->read_dump(); });
    };
    uint32_t status = host::event_fd_attach(evm_, kernel_socket_fd(notifications_), EPOLLIN, on_notifications, this,
                                            &notifications_attachment_);
    if (status == 0) {
        status = host::event_fd_attach(evm_, kernel_socket_fd(dumps_), EPOLLIN, on_dumps, this, &dumps_attachment_);
    }
    return status == 0 ? "" : "cannot attach to the event manager: error " + std::to_string(status);
}

bool kernel_plane::start(event_manager_t *evm, sink &to, std::string &error)
{
    error = open_error_;
    if (!error.empty()) {
        return false;
    }
    evm_ = evm;
    sink_ = &to;
    bool has_next_hops = false;
    const bool is_subscribed = kernel_socket_subscribe(notifications_, has_next_hops);
    lacks_next_hops_ = !has_next_hops;
    if (!is_subscribed) {
        error = std::string("cannot subscribe to the kernel's changes: error ") + std::to_string(errno);
    } else {
        error = attach();
    }
    if (!error.empty()) {
        stop();
        return false;
    }
    {
        const std::lock_guard lock(query_mutex_);
        answers_ = true;
    }
    guarded([this] { begin_generation(); });
    return true;
}

void kernel_plane::stop()
{
    {
        const std::lock_guard lock(query_mutex_);
        answers_ = false;
    }
    if (evm_ == nullptr) {
        return;
    }
    host::event_fd_detach(evm_, notifications_attachment_);
    host::event_fd_detach(evm_, dumps_attachment_);
    host::event_timer_cancel(evm_, std::exchange(timer_, 0));
    evm_ = nullptr;
    counters_.clean = false;
}

// Runs work of the event loop. Without memory a change may have been missed, which a new generation repairs.
template <typename Work>
void kernel_plane::guarded(Work work)
{
    try {
        work();
    } catch (const std::bad_alloc &) {
        note_loss(0);
        listing_ = {};
        ended_ = steady_clock::now(); // so that the next one does not begin at once
        plan_generation();
    }
}

plane_health kernel_plane::health() const
{
    plane_health result;
    result.clean = counters_.clean;
    result.generation = counters_.generation;
    result.overruns = counters_.overruns;
    result.lost = counters_.lost;
    result.last_overrun_time = counters_.last_overrun_time;
    result.events = counters_.events;
    result.refused = counters_.refused;
    result.dumps_clean = counters_.dumps_clean;
    result.dumps_unclean = counters_.dumps_unclean;
    return result;
}

std::vector<std::string> kernel_plane::lacks() const
{
    const struct {
        bool lacks;
        const char *text;
    } rows[] = {
        {lacks_next_hops_, "notifications of next hops: entries of a deleted one stay until the next full dump"},
        {lacks_vlans_, "VLAN filtering of bridges: no entry has a VLAN"},
        {lacks_questions_, "questions about single entries: ages are as old as the last full dump"},
    };
    std::vector<std::string> found;
    for (const auto &row : rows) {
        if (row.lacks) {
            found.emplace_back(row.text);
        }
    }
    return found;
}

void kernel_plane::query(std::span<const fdb_key> keys, std::span<fdb_answer> answers)
{
    const std::lock_guard lock(query_mutex_);
    if (!answers_) {
        std::fill(answers.begin(), answers.end(), fdb_answer{});
        return;
    }
    kernel_query(querier_, keys, answers);
    counters_.refused += std::exchange(querier_.refused, 0);
    lacks_questions_ = querier_.is_unsupported;
}

// ---- Notifications

void kernel_plane::drain()
{
    if (evm_ != nullptr) {
        guarded([this] { read_waiting_notifications(SIZE_MAX); });
    }
}

// Reads the notifications that wait now, but `most` of them at most. It does not read until none is left: during a
// storm of changes they come as fast as they are read. Returns whether it has read all that waited.
bool kernel_plane::read_waiting_notifications(size_t most)
{
    // An overrun is reported like a notification and takes no memory.
    const size_t waiting = kernel_socket_account(notifications_).queued / least_notification_cost + 2;
    read_notifications(std::min(waiting, most));
    return waiting <= most;
}

// Reads until there are no more, or `limit` have been read.
void kernel_plane::read_notifications(size_t limit)
{
    for (size_t count = 0; count < limit; count++) {
        std::span<const std::byte> datagram;
        switch (kernel_socket_read(notifications_, buffer_, datagram)) {
        case kernel_read::empty: end_overrun(); return;
        case kernel_read::overrun: note_overrun(); break;
        case kernel_read::truncated: note_loss(1); break;
        case kernel_read::refused: ++counters_.refused; break;
        case kernel_read::datagram:
            for (const kernel_clock clock = kernel_clock_now(); kernel_decode(datagram, clock, message_);) {
                take_change(message_);
            }
        }
    }
}

void kernel_plane::note_overrun()
{
    if (!std::exchange(in_overrun_, true)) {
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        counters_.last_overrun_time = std::chrono::duration_cast<std::chrono::seconds>(now).count();
        counters_.overruns++;
    }
    const uint32_t drops = kernel_socket_account(notifications_).drops;
    note_loss(drops - std::exchange(drops_, drops));
}

// The socket was read empty, so that the kernel drops no more. What it dropped since note_overrun is still to be
// reported.
void kernel_plane::end_overrun()
{
    if (std::exchange(in_overrun_, false)) {
        const uint32_t drops = kernel_socket_account(notifications_).drops;
        if (drops != drops_) {
            note_loss(drops - std::exchange(drops_, drops));
        }
    }
    if (!counters_.clean) {
        plan_generation();
    }
}

// `count`: of lost changes; 0: unknown.
void kernel_plane::note_loss(uint64_t count)
{
    counters_.lost += count;
    counters_.clean = false;
    needs_generation_ = true;
    listing_.disturbed = true;
    early_.clear();
    sink_->changes_lost(count);
}

void kernel_plane::take_change(const kernel_message &message)
{
    switch (message.kind) {
    case kernel_message_kind::link_changed: take_link_change(message.link); break;
    case kernel_message_kind::link_gone: take_link_gone(message.link.ifindex); break;
    case kernel_message_kind::fdb_changed: take_fdb_change(message.fdb); break;
    case kernel_message_kind::fdb_gone: take_fdb_gone(message.fdb); break;
    case kernel_message_kind::next_hop_gone: take_next_hop_gone(message); break;
    case kernel_message_kind::vlan_vnis:
        listing_note_vlan_vnis(listing_, message.link.ifindex);
        take_vlan_vnis(message.link.ifindex, message.vnis);
        take_vlans(message.link.ifindex, message.vlans);
        break;
    case kernel_message_kind::malformed:
        counters_.refused++;
        note_loss(1);
        break;
    default: break;
    }
}

// Keeps and reports a link, from a notification or a dump. Each bridge shows whether the kernel has VLAN filtering.
void kernel_plane::take_link(const link_record &record)
{
    counters_.events++;
    links_[record.ifindex] = {record, sequence_};
    if (record.kind == link_kind::bridge) {
        lacks_vlans_ = !record.can_filter_vlans;
    }
    sink_->link_changed(record);
    take_early(record.ifindex);
}

void kernel_plane::take_link_change(const link_record &record)
{
    const auto known = links_.find(record.ifindex);
    const known_link before = known != links_.end() ? known->second : known_link{};
    const bool was_known = before.record.ifindex != 0;
    const bool moved = was_known && before.record.master != record.master;
    listing_note_link(listing_, record.ifindex);
    if (moved) {
        listing_note_port_left(listing_, before.record.master);
    }
    take_link(record);
    if (record.kind == link_kind::vxlan && (moved || !was_known)) {
        list_own_entries(record);
    }
    if (moved || (was_known && before.record.address != record.address)) {
        follow_local_address(before.record);
    }
}

// The kernel reports a port's whole state for each change of it, and most have no map.
void kernel_plane::take_vlan_vnis(uint32_t ifindex, const vni_by_vlan &vnis)
{
    const auto known = vnis_.find(ifindex);
    const bool is_known = known != vnis_.end() ? known->second.vnis == vnis : vnis.empty();
    if (!vnis.empty()) {
        vnis_[ifindex] = {vnis, sequence_};
    } else if (known != vnis_.end()) {
        vnis_.erase(known);
    }
    if (!is_known) {
        counters_.events++;
        sink_->vlan_vnis_changed(ifindex, vnis);
    }
}

// When a port leaves a VLAN, its entry there may pass to another device with the same address. The kernel does not
// notify that.
void kernel_plane::take_vlans(uint32_t ifindex, const std::bitset<most_vlans> &vlans)
{
    const std::bitset<most_vlans> left = std::exchange(vlans_[ifindex], vlans) & ~vlans;
    const auto device = links_.find(ifindex);
    if (left.none() || device == links_.end()) {
        return;
    }
    std::vector<uint16_t> gone;
    for (uint16_t vlan = 0; vlan < most_vlans; vlan++) {
        if (left.test(vlan)) {
            gone.push_back(vlan);
        }
    }
    ask_for_local_address(device->second.record, gone);
}

// What a dump that counts has not reported has no map any more.
void kernel_plane::drop_unlisted_vlan_vnis()
{
    std::vector<uint32_t> gone;
    for (const auto &[ifindex, known] : vnis_) {
        if (known.seen != sequence_) {
            gone.push_back(ifindex);
        }
    }
    for (const uint32_t ifindex : gone) {
        take_vlan_vnis(ifindex, {});
    }
}

void kernel_plane::take_link_gone(uint32_t ifindex)
{
    counters_.events++;
    take_vlan_vnis(ifindex, {});
    vlans_.erase(ifindex);
    const auto known = links_.extract(ifindex);
    listing_note_link(listing_, ifindex);
    forget_early(ifindex);
    sink_->link_gone(ifindex);
    if (!known.empty()) {
        listing_note_port_left(listing_, known.mapped().record.master);
        follow_local_address(known.mapped().record);
    }
}

// When a device leaves its bridge or gets another address, its entry, or entries by VLAN, may pass to another device of
// the bridge that has the same address. The kernel does not notify that.
void kernel_plane::follow_local_address(const link_record &before)
{
    const auto bridge = links_.find(before.kind == link_kind::bridge ? before.ifindex : before.master);
    if (bridge == links_.end() || bridge->second.record.kind != link_kind::bridge) {
        return;
    }
    std::vector<uint16_t> vlans(bridge->second.record.vlan_aware ? vlan_count : 1);
    std::iota(vlans.begin(), vlans.end(), uint16_t{0});
    ask_for_local_address(before, vlans);
}

// Takes what the kernel holds for a device's own address in these VLANs of its bridge.
void kernel_plane::ask_for_local_address(const link_record &device, std::span<const uint16_t> vlans)
{
    const uint32_t bridge = device.kind == link_kind::bridge ? device.ifindex : device.master;
    while (!vlans.empty()) {
        std::vector<fdb_key> keys;
        for (const uint16_t vlan : vlans.first(std::min(vlans.size(), query_batch))) {
            keys.push_back({.holder = bridge, .vlan = vlan, .mac = device.address});
        }
        vlans = vlans.subspan(keys.size());
        std::vector<fdb_answer> answers(keys.size());
        query(keys, answers);
        for (const fdb_answer &answer : answers) {
            if (answer.presence == fdb_presence::present) {
                take_fdb_change(answer.record);
            }
        }
    }
}

void kernel_plane::take_fdb_change(const fdb_record &record)
{
    if (is_told(record)) {
        counters_.events++;
        listing_note_changed(listing_, key_of(record));
        report_change(record);
    } else if (!links_.contains(record.ifindex)) {
        keep_early(record);
    }
}

void kernel_plane::take_fdb_gone(const fdb_record &record)
{
    if (!is_told(record)) {
        early_.erase(key_of(record));
        return;
    }
    counters_.events++;
    listing_note_gone(listing_, record, bridge_of(record));
    if (!record.self && (record.state & fdb_permanent) != 0) {
        report_change(record); // a local address may have come to this device unnotified
    }
    if (!record.self || !is_group(record.mac) || !keeps_another_destination(record)) {
        sink_->fdb_gone(record);
    }
}

void kernel_plane::report_change(const fdb_record &record)
{
    note_next_hop(record);
    sink_->fdb_changed(record);
}

void kernel_plane::note_next_hop(const fdb_record &record)
{
    if (record.destination.kind == destination_kind::next_hop) {
        next_hops_.insert(record.destination.next_hop);
    }
}

// The next hops of routes come and go in masses and have no entries.
void kernel_plane::take_next_hop_gone(const kernel_message &message)
{
    const bool was_reported = next_hops_.erase(message.next_hop) != 0;
    if (!was_reported && !message.for_entries) {
        return;
    }
    counters_.events++;
    listing_note_next_hop_gone(listing_, message.next_hop);
    std::erase_if(early_, [&message](const auto &each) {
        const fdb_destination &to = each.second.destination;
        return to.kind == destination_kind::next_hop && to.next_hop == message.next_hop;
    });
    sink_->next_hop_gone(message.next_hop);
}

// A new bridge's own address is notified before the bridge itself.
void kernel_plane::keep_early(const fdb_record &record)
{
    if (early_.size() < most_early) {
        early_.insert_or_assign(key_of(record), record);
    } else {
        note_loss(0); // no device is known for so many entries: the reports of devices were lost
    }
}

void kernel_plane::take_early(uint32_t ifindex)
{
    for (auto each = early_.begin(); each != early_.end();) {
        if (each->second.ifindex == ifindex) {
            take_fdb_change(each->second);
            each = early_.erase(each);
        } else {
            each++;
        }
    }
}

// A device of that number may come again.
void kernel_plane::forget_early(uint32_t ifindex)
{
    std::erase_if(early_, [ifindex](const auto &each) {
        return each.second.ifindex == ifindex || each.second.master == ifindex;
    });
}

// Lists the own entries of a VXLAN device. One that has left its bridge is in no dump of a bridge any more. One that is
// new may have come from another network namespace and brought entries. The kernel sends no notification for either.
void kernel_plane::list_own_entries(const link_record &device)
{
    const kernel_dump dump{kernel_scope::device, device.ifindex, device.master};
    if (listing_.running && listing_.current.scope != kernel_scope::links) {
        listing_.waiting.push_back(dump);
    } else if (!listing_.running && counters_.clean) { // otherwise the next generation lists it
        listing_begin(listing_, dump);
        next_dump();
    }
}

// A group address of a device may have many destinations, of which one has gone: another one may be told in its place.
bool kernel_plane::keeps_another_destination(const fdb_record &record)
{
    const fdb_key key = key_of(record);
    fdb_answer answer;
    query({&key, 1}, {&answer, 1});
    if (answer.presence == fdb_presence::present) {
        report_change(answer.record);
    }
    return answer.presence == fdb_presence::present;
}

// Entries come after their links, but for those of links that were never told or have gone.
bool kernel_plane::is_told(const fdb_record &record) const
{
    const auto device = links_.find(record.ifindex);
    return device != links_.end()
           && (record.self ? device->second.record.kind == link_kind::vxlan : record.master != 0);
}

uint32_t kernel_plane::bridge_of(const fdb_record &record) const
{
    return record.self ? links_.at(record.ifindex).record.master : record.master;
}

// ---- Generations

void kernel_plane::list_again()
{
    if (evm_ == nullptr) {
        return;
    }
    if (counters_.clean.exchange(false)) {
        needs_generation_ = true;
    }
    hurried_ = true;
    doublings_ = 0;
    plan_generation();
}

// The time from the end of one generation to the beginning of the next.
steady_clock::duration kernel_plane::pause() const
{
    if (counters_.clean) {
        return std::max<steady_clock::duration>(proof_interval_, proof_share * took_);
    }
    return std::max<steady_clock::duration>(interval_ * (1U << doublings_), took_);
}

// Schedules the next generation, or moves it forward if it may begin earlier now. While a listing is running this does
// nothing: its end schedules the next.
void kernel_plane::plan_generation()
{
    const auto due = ended_ + pause();
    if (listing_.running || (timer_ != 0 && due_ <= due)) {
        return;
    }
    const auto on_timer = [](void *self) {
        auto *const that = static_cast<kernel_plane *>(self);
        that->timer_ = 0;
        that->guarded([that] { that->begin_generation(); });
    };
    const auto wait = std::max(due - steady_clock::now(), steady_clock::duration::zero());
    const auto delay = std::chrono::duration_cast<std::chrono::nanoseconds>(wait);
    host::event_timer_cancel(evm_, std::exchange(timer_, 0));
    due_ = due;
    if (host::event_timer_attach(evm_, static_cast<uint64_t>(delay.count()), 0, on_timer, this, &timer_) != 0) {
        timer_ = 0; // while the plane is degraded, the next notification schedules it again
    }
}

void kernel_plane::begin_generation()
{
    if (listing_.running) {
        return; // a device's own entries; their end schedules the generation again
    }
    began_ = steady_clock::now();
    hurried_ = false;
    listing_begin(listing_, {kernel_scope::links});
    read_waiting_notifications(notifications_per_part);
    needs_generation_ = in_overrun_; // what was lost before the socket was empty is in the dumps to come
    counters_.generation++;
    sink_->generation_begun();
    next_dump();
}

void kernel_plane::end_listing()
{
    const bool clean = listing_.clean && !needs_generation_;
    const bool whole = listing_.whole;
    listing_ = {};
    if (whole) {
        end_generation(clean);
        return;
    }
    if (!clean) {
        counters_.clean = false;
    }
    plan_generation();
}

// A proof that ends unclean, because deletions disturbed it, leaves the plane clean.
void kernel_plane::end_generation(bool clean)
{
    ended_ = steady_clock::now();
    took_ = ended_ - began_;
    doublings_ = clean || hurried_ ? 0 : std::min(doublings_ + 1, most_doublings);
    if (clean) {
        counters_.clean = true;
    }
    plan_generation();
    sink_->generation_complete(clean);
}

void kernel_plane::next_dump()
{
    while (listing_next(listing_)) {
        if (request_dump()) {
            return;
        }
        listing_.clean = false;
    }
    end_listing();
}

bool kernel_plane::request_dump()
{
    alignas(uint32_t) std::byte request[kernel_request_size];
    listing_open_window(listing_);
    const size_t length = kernel_put_dump(request, ++sequence_, listing_.current.scope, listing_.current.ifindex);
    return kernel_socket_send(dumps_, std::span(request).first(length));
}

void kernel_plane::read_dump()
{
    const auto end = steady_clock::now() + parts_time;
    for (size_t count = 0; count < parts_per_turn && steady_clock::now() < end; count++) {
        std::span<const std::byte> datagram;
        switch (kernel_socket_read(dumps_, buffer_, datagram)) {
        case kernel_read::refused: ++counters_.refused; break;
        case kernel_read::datagram: take_part(datagram); break;
        // The kernel makes the next part while one is read. If none is there, or one was lost, the end may never come.
        case kernel_read::empty:
        case kernel_read::overrun:
        case kernel_read::truncated:
            if (listing_.running) {
                end_dump(ENOBUFS);
            }
            return;
        }
    }
}

void kernel_plane::take_part(std::span<const std::byte> part)
{
    const size_t length = part.size();
    for (const kernel_clock clock = kernel_clock_now(); kernel_decode(part, clock, message_);) {
        if (!take_listed(message_)) {
            return; // the part's memory now holds another datagram
        }
    }
    if (listing_.running && message_.sequence == sequence_) {
        listing_.disturbed |= !read_waiting_notifications(notifications_per_part);
        listing_end_part(listing_, length);
    }
}

// False once the dump has ended: nothing of it follows.
bool kernel_plane::take_listed(const kernel_message &message)
{
    if (message.kind == kernel_message_kind::malformed) { // a repetition would bring the same
        counters_.refused++;
        listing_.clean = false;
        return true;
    }
    if (!listing_.running || message.sequence != sequence_) {
        return true; // of a dump that was given up
    }
    listing_.disturbed |= message.interrupted;
    switch (message.kind) {
    case kernel_message_kind::link_changed:
        if (listing_believes_link(listing_, message.link.ifindex)) {
            take_link(message.link);
        }
        return true;
    case kernel_message_kind::vlan_vnis:
        if (listing_believes_vlan_vnis(listing_, message.link.ifindex)) {
            take_vlan_vnis(message.link.ifindex, message.vnis);
            vlans_[message.link.ifindex] = message.vlans;
        }
        return true;
    case kernel_message_kind::fdb_changed:
        if (is_told(message.fdb) && listing_believes(listing_, message.fdb)) {
            counters_.events++;
            note_next_hop(message.fdb);
            sink_->fdb_listed(message.fdb);
            listing_note_told(listing_, message.fdb);
        }
        return true;
    case kernel_message_kind::done:
    case kernel_message_kind::error: end_dump(message.error); return false;
    default: return true;
    }
}

void kernel_plane::end_dump(int error)
{
    const kernel_dump current = listing_.current;
    listing_.disturbed |= !read_waiting_notifications(notifications_per_part);
    // What has gone since it was planned cannot be dumped, and has nothing to be told.
    const bool is_of_all = current.scope == kernel_scope::links || current.scope == kernel_scope::vlan_vnis;
    const bool has_gone = !is_of_all && !links_.contains(current.ifindex);
    // A kernel that cannot dump the VLANs of its bridges has no map.
    const bool is_without_map = current.scope == kernel_scope::vlan_vnis && error == EOPNOTSUPP;
    listing_.disturbed |= error != 0 && !is_without_map;
    const bool counts = has_gone || listing_close_window(listing_);
    ++(counts ? counters_.dumps_clean : counters_.dumps_unclean);
    if (!counts && !needs_generation_ && listing_may_repeat(listing_) && request_dump()) {
        return;
    }
    listing_.clean &= counts;
    if (current.scope == kernel_scope::links) {
        plan_dumps(counts);
    } else if (current.scope == kernel_scope::vlan_vnis && counts) {
        drop_unlisted_vlan_vnis();
    }
    next_dump();
}

void kernel_plane::plan_dumps(bool links_count)
{
    if (links_count) {
        std::erase_if(links_, [this](const auto &link) { return link.second.seen != sequence_; });
    }
    listing_.waiting.push_back({kernel_scope::vlan_vnis});
    for (const auto &[ifindex, link] : links_) {
        const auto master = links_.find(link.record.master);
        const bool is_port = master != links_.end() && master->second.record.kind == link_kind::bridge;
        if (link.record.kind == link_kind::bridge) {
            listing_.waiting.push_back({kernel_scope::bridge, ifindex, ifindex});
        } else if (link.record.kind == link_kind::vxlan && !is_port) {
            listing_.waiting.push_back({kernel_scope::device, ifindex});
        }
    }
}

} // namespace

std::unique_ptr<plane> make_kernel_plane(const kernel_options &options)
{
    return std::make_unique<kernel_plane>(options);
}

} // namespace forwarding
