// SPDX-License-Identifier: Apache-2.0

// Notifications of the kernel: reading them, noticing overruns and losses, and passing each change on.

#include <algorithm>
#include <utility>

#include "forwarding/kernel/kernel_plane_internal.h"

namespace forwarding {

namespace {

constexpr size_t min_notification_cost = 512; // bytes of the receive buffer that one takes; in fact 768 or more
constexpr size_t notifications_per_turn = 4096;

} // namespace

// ---- Reading ----

void kernel_plane::read_turn()
{
    read_notifications(notifications_per_turn);
}

void kernel_plane::read_all_waiting()
{
    read_waiting_notifications(SIZE_MAX);
}

// Reads the notifications that wait now, at most `limit`. It does not read until none is left, because in a storm of
// changes they arrive as fast as they are read. Returns whether it read all that waited.
bool kernel_plane::read_waiting_notifications(size_t limit)
{
    // One for rounding, and one for an overrun, which is read like a notification and takes no memory.
    const size_t waiting = kernel_socket_account(notifications_).queued / min_notification_cost + 2;
    read_notifications(std::min(waiting, limit));
    return waiting <= limit;
}

// Reads until the socket is empty, or until `limit` notifications are read.
void kernel_plane::read_notifications(size_t limit)
{
    for (size_t count = 0; count < limit; count++) {
        std::span<const std::byte> datagram;
        switch (kernel_socket_read(notifications_, buffer_, datagram)) {
        case kernel_read::empty: end_overrun(); return;
        case kernel_read::overrun: note_overrun(); break;
        case kernel_read::truncated: note_loss(1); break;
        case kernel_read::refused: counters_.refused++; break;
        case kernel_read::datagram:
            for (const kernel_clock clock = kernel_clock_now(); kernel_decode(datagram, clock, message_);) {
                take_change(message_);
            }
        }
    }
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
        full_dump_note_vlan_vnis(dump_, message.link.ifindex);
        take_vlan_vnis(message.link.ifindex, message.vnis);
        take_vlans(message.link.ifindex, message.vlans);
        break;
    case kernel_message_kind::vlans_cut:
        full_dump_note_vlan_vnis(dump_, message.link.ifindex);
        dump_vlans(message.link.ifindex);
        break;
    case kernel_message_kind::malformed:
        counters_.refused++;
        note_loss(1);
        break;
    default: break;
    }
}

// ---- Losses ----

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

// The socket was read empty, so the kernel drops no more. Reports what it dropped since note_overrun.
void kernel_plane::end_overrun()
{
    if (std::exchange(in_overrun_, false)) {
        const uint32_t drops = kernel_socket_account(notifications_).drops;
        if (drops != drops_) {
            note_loss(drops - std::exchange(drops_, drops));
        }
    }
    if (!counters_.clean) {
        schedule_full_dump();
    }
}

// `count` is the number of lost changes; 0: unknown.
void kernel_plane::note_loss(uint64_t count)
{
    counters_.lost += count;
    counters_.clean = false;
    needs_full_dump_ = true;
    dump_.disturbed = true;
    early_.clear();
    sink_->changes_lost(count);
}

} // namespace forwarding
