// SPDX-License-Identifier: Apache-2.0

// Full dumps: when the next one begins, which dumps it requests, and what is done with their parts.
//
//      begin_full_dump -> request_next -> read_dump -> take_part -> take_dumped    for each record
//                          ^                                     -> end_dump       at the end of each dump
//                          +---------------------------------------+
//                          +-> end_dumps -> end_full_dump -> schedule_full_dump    after the last one

#include <algorithm>
#include <cerrno>
#include <utility>

#include "forwarding/kernel/kernel_plane_internal.h"
#include "host/event/event_host.h"

namespace forwarding {

namespace {

using std::chrono::milliseconds;

constexpr size_t parts_per_turn = 8;
constexpr auto turn_time = milliseconds(10); // one part of a large bridge may take as long
constexpr uint32_t max_doublings = 4;        // of the pause after unclean full dumps: up to 16 intervals
constexpr int proof_share = 100;             // proofs take at most 1/100 of the time

// Returns whether a dump that ended with this error, or 0, has reported everything. A kernel that cannot dump the VLANs
// of its bridges has no map. A device that is not on a bridge has no VLANs.
bool is_whole(const dump_request &dump, int error)
{
    const bool has_no_map = dump.scope == kernel_scope::vlan_vnis && error == EOPNOTSUPP;
    const bool has_no_vlans = dump.scope == kernel_scope::port_vlans && (error == EINVAL || error == ENODEV);
    return error == 0 || has_no_map || has_no_vlans;
}

} // namespace

// ---- When ----

void kernel_plane::request_full_dump()
{
    if (evm_ == nullptr) {
        return;
    }
    if (counters_.clean.exchange(false)) {
        needs_full_dump_ = true;
    }
    was_requested_ = true;
    doublings_ = 0;
    schedule_full_dump();
}

// The time from the end of one full dump to the beginning of the next.
kernel_plane::steady_clock::duration kernel_plane::pause() const
{
    if (counters_.clean) {
        return std::max<steady_clock::duration>(proof_interval_, proof_share * took_);
    }
    return std::max<steady_clock::duration>(interval_ * (1U << doublings_), took_);
}

// Schedules the next full dump after the pause, or moves it forward if it may begin earlier now. While dumps are
// running this does nothing: their end schedules the next.
void kernel_plane::schedule_full_dump()
{
    const auto due = ended_ + pause();
    if (dump_.running || (timer_ != 0 && due_ <= due)) {
        return;
    }
    const auto on_timer = [](void *self) {
        auto *const that = static_cast<kernel_plane *>(self);
        that->timer_ = 0;
        that->run(&kernel_plane::begin_full_dump);
    };
    const auto wait = std::max(due - steady_clock::now(), steady_clock::duration::zero());
    const auto delay = std::chrono::duration_cast<std::chrono::nanoseconds>(wait);
    host::event_timer_cancel(evm_, std::exchange(timer_, 0));
    due_ = due;
    if (host::event_timer_attach(evm_, static_cast<uint64_t>(delay.count()), 0, on_timer, this, &timer_) != 0) {
        timer_ = 0; // while the plane is degraded, the next notification schedules it again
    }
}

void kernel_plane::begin_full_dump()
{
    if (dump_.running) {
        return; // the dump of a single device, whose end schedules the full dump again
    }
    began_ = steady_clock::now();
    was_requested_ = false;
    full_dump_begin(dump_, {kernel_scope::links});
    read_waiting_notifications(notifications_per_part);
    needs_full_dump_ = in_overrun_; // changes lost until the socket was empty are in the dumps to come
    counters_.full_dumps++;
    sink_->full_dump_begun();
    request_next();
}

// A proof that ends unclean, because deletions tore its dumps, leaves the plane clean.
void kernel_plane::end_full_dump(bool clean)
{
    ended_ = steady_clock::now();
    took_ = ended_ - began_;
    doublings_ = clean || was_requested_ ? 0 : std::min(doublings_ + 1, max_doublings);
    if (clean) {
        counters_.clean = true;
    }
    schedule_full_dump();
    sink_->full_dump_ended(clean);
}

// Gives up what is running, after a failure that may have lost changes. The next full dump waits for the pause.
void kernel_plane::abandon_dumps()
{
    dump_ = {};
    ended_ = steady_clock::now();
    schedule_full_dump();
}

// ---- Requests ----

// Dumps the own entries of a VXLAN device. A device that left its bridge is in no dump of a bridge any more. A new
// device may have come from another network namespace with entries. The kernel sends no notification for either.
void kernel_plane::dump_own_entries(const link_record &device)
{
    dump_also({kernel_scope::device, device.ifindex, device.master}, dump_.current.scope == kernel_scope::links);
}

// Dumps the VLANs of a bridge port whose state was too long for a message.
void kernel_plane::dump_vlans(uint32_t ifindex)
{
    const auto is_same = [ifindex](const dump_request &each) {
        return each.scope == kernel_scope::port_vlans && each.ifindex == ifindex;
    };
    // A dump that runs is void, because the port's state changed. It is repeated at its end.
    const bool is_running = dump_.running && is_same(dump_.current);
    if (!is_running && std::ranges::none_of(dump_.waiting, is_same)) {
        dump_also({kernel_scope::port_vlans, ifindex}, dump_.current.scope == kernel_scope::links);
    }
}

// Adds a dump of one device to those that run, or begins it. `is_planned`: the dumps that run will come to the device.
// While the plane is degraded and no dump runs, the next full dump includes the device.
void kernel_plane::dump_also(const dump_request &request, bool is_planned)
{
    if (dump_.running && !is_planned) {
        dump_.waiting.push_back(request);
    } else if (!dump_.running && counters_.clean) {
        full_dump_begin(dump_, request);
        request_next();
    }
}

void kernel_plane::request_next()
{
    while (full_dump_next(dump_)) {
        if (request_current()) {
            return;
        }
        dump_.clean = false;
    }
    end_dumps();
}

bool kernel_plane::request_current()
{
    alignas(uint32_t) std::byte request[kernel_request_size];
    full_dump_open_window(dump_);
    dumped_ = 0;
    dumped_vnis_.clear();
    dumped_vlans_.reset();
    const size_t length = kernel_put_dump(request, ++sequence_, dump_.current.scope, dump_.current.ifindex);
    return kernel_socket_send(dumps_, std::span(request).first(length));
}

// Plans the dumps of entries, once the links are known.
void kernel_plane::plan_dumps(bool is_proven)
{
    if (is_proven) {
        std::erase_if(links_, [this](const auto &link) { return link.second.seen != sequence_; });
    }
    dump_.waiting.push_back({kernel_scope::vlan_vnis});
    for (const auto &[ifindex, link] : links_) {
        const auto master = links_.find(link.record.master);
        const bool is_port = master != links_.end() && master->second.record.kind == link_kind::bridge;
        if (link.record.kind == link_kind::bridge) {
            dump_.waiting.push_back({kernel_scope::bridge, ifindex, ifindex});
        } else if (link.record.kind == link_kind::vxlan && !is_port) {
            dump_.waiting.push_back({kernel_scope::device, ifindex});
        }
    }
}

void kernel_plane::end_dumps()
{
    const bool clean = dump_.clean && !needs_full_dump_;
    const bool was_full = dump_.covers_everything;
    dump_ = {};
    if (was_full) {
        end_full_dump(clean);
        return;
    }
    if (!clean) {
        counters_.clean = false;
    }
    schedule_full_dump();
}

// ---- Replies ----

void kernel_plane::read_dump()
{
    const auto end = steady_clock::now() + turn_time;
    for (size_t count = 0; count < parts_per_turn && steady_clock::now() < end; count++) {
        std::span<const std::byte> datagram;
        switch (kernel_socket_read(dumps_, buffer_, datagram)) {
        case kernel_read::refused: counters_.refused++; break;
        case kernel_read::datagram: take_part(datagram); break;
        // The kernel makes the next part while one is read. If none is there, or one was lost, the end may never come.
        case kernel_read::empty:
        case kernel_read::overrun:
        case kernel_read::truncated:
            if (dump_.running) {
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
        if (!take_dumped(message_)) {
            return; // end_dump read notifications into the part's memory
        }
    }
    if (dump_.running && message_.sequence == sequence_) {
        dump_.disturbed |= !read_waiting_notifications(notifications_per_part);
        full_dump_end_part(dump_, length);
    }
}

// Returns false when the dump has ended, after which nothing of it follows.
bool kernel_plane::take_dumped(const kernel_message &message)
{
    if (message.kind == kernel_message_kind::malformed) { // repeating the dump would bring the same message
        counters_.refused++;
        dump_.clean = false;
        return true;
    }
    if (!dump_.running || message.sequence != sequence_) {
        return true; // of a dump that was given up
    }
    dump_.disturbed |= message.interrupted;
    switch (message.kind) {
    case kernel_message_kind::link_changed: take_dumped_link(message.link); return true;
    case kernel_message_kind::vlan_vnis: take_dumped_port(message); return true;
    case kernel_message_kind::vlan_rows: take_dumped_rows(message); return true;
    case kernel_message_kind::vlans_cut: plan_port_vlans(message.link.ifindex); return true;
    case kernel_message_kind::fdb_changed: take_dumped_entry(message.fdb); return true;
    case kernel_message_kind::done:
    case kernel_message_kind::error: end_dump(message.error); return false;
    default: return true;
    }
}

void kernel_plane::take_dumped_link(const link_record &record)
{
    if (full_dump_believes_link(dump_, record.ifindex)) {
        take_link(record);
    }
}

void kernel_plane::take_dumped_port(const kernel_message &message)
{
    if (full_dump_believes_vlan_vnis(dump_, message.link.ifindex)) {
        take_vlan_vnis(message.link.ifindex, message.vnis);
        vlans_[message.link.ifindex] = message.vlans;
    }
}

// Rows of a port whose VLANs are being dumped. The port's state is known at the end of the dump.
void kernel_plane::take_dumped_rows(const kernel_message &message)
{
    dumped_vnis_.insert(message.vnis.begin(), message.vnis.end());
    dumped_vlans_ |= message.vlans;
}

// A dump of all ports found one whose state is too long. Its map stays as it is until the dump of its VLANs.
void kernel_plane::plan_port_vlans(uint32_t ifindex)
{
    if (const auto known = vnis_.find(ifindex); known != vnis_.end()) {
        known->second.seen = sequence_;
    }
    dump_vlans(ifindex);
}

void kernel_plane::take_dumped_entry(const fdb_record &record)
{
    dumped_++;
    if (is_reported(record) && full_dump_believes(dump_, record)) {
        counters_.events++;
        note_next_hop(record);
        sink_->fdb_dumped(record);
        full_dump_note_reported(dump_, record);
    }
}

// A bridge or device that is gone since its dump was planned cannot be dumped, and has nothing to report.
bool kernel_plane::is_gone(const dump_request &request) const
{
    const bool has_device = request.scope == kernel_scope::bridge || request.scope == kernel_scope::device
                            || request.scope == kernel_scope::port_vlans;
    return has_device && !links_.contains(request.ifindex);
}

// `error` is 0 if the kernel sent the dump to its end.
void kernel_plane::end_dump(int error)
{
    const dump_request current = dump_.current;
    const bool is_of_port = current.scope == kernel_scope::port_vlans;
    dump_.disturbed |= !read_waiting_notifications(notifications_per_part) || !is_whole(current, error);
    dump_.disturbed |= is_of_port && !full_dump_believes_vlan_vnis(dump_, current.ifindex);
    lacks_port_vlans_ = lacks_port_vlans_ || (is_of_port && error == EOPNOTSUPP);
    if (current.scope == kernel_scope::bridge && error == 0) {
        ages_.note_size(current.ifindex, dumped_);
    }
    const bool is_proven = is_gone(current) || full_dump_close_window(dump_);
    (is_proven ? counters_.dumps_clean : counters_.dumps_unclean)++;
    if (!is_proven && !needs_full_dump_ && full_dump_may_repeat(dump_) && request_current()) {
        return;
    }
    dump_.clean &= is_proven;
    if (current.scope == kernel_scope::links) {
        plan_dumps(is_proven);
    } else if (current.scope == kernel_scope::vlan_vnis && is_proven) {
        drop_vlan_vnis_not_seen();
    } else if (is_of_port && is_proven && !is_gone(current)) {
        take_vlan_vnis(current.ifindex, dumped_vnis_);
        take_vlans(current.ifindex, dumped_vlans_);
    }
    request_next();
}

} // namespace forwarding
