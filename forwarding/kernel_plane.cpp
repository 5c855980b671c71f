#include "forwarding/kernel_plane.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <map>
#include <mutex>
#include <new>
#include <sys/epoll.h>
#include <unordered_map>
#include <utility>
#include <vector>

#include "forwarding/kernel_decode.h"
#include "forwarding/kernel_listing.h"
#include "forwarding/kernel_query.h"
#include "forwarding/kernel_socket.h"
#include "host/event_host.h"

namespace forwarding {

namespace {

using steady_clock = std::chrono::steady_clock;

constexpr uint32_t default_receive_buffer = 128U << 20;
constexpr size_t least_notification_cost = 512; // of the receive buffer, in bytes
constexpr size_t notifications_per_turn = 4096;
constexpr size_t parts_per_turn = 8;
constexpr auto parts_time = std::chrono::milliseconds(10); // per turn; one part of a large bridge may take as long
constexpr uint32_t longest_pause = 16;                     // in intervals
constexpr size_t most_early = 4096;
constexpr uint16_t vlan_count = 4095; // 0, for no VLAN, counts

struct known_link {
    link_record record;
    uint32_t seen; // the sequence number of the dump that was the last when it was told last
};

struct counters {
    std::atomic<bool> clean = false;
    std::atomic<uint64_t> generation = 0;
    std::atomic<uint64_t> overruns = 0;
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
    plane_health health() const override;
    void stop() override;

private:
    std::string open(uint32_t receive_buffer);
    std::string attach();

    // Notifications.
    bool read_notifications(size_t limit);
    void note_overrun();
    void take_change(const kernel_message &message);
    void take_link_change(const link_record &record);
    void take_link_gone(uint32_t ifindex);
    void take_fdb_change(const fdb_record &record);
    void take_fdb_gone(const fdb_record &record);
    void keep_early(const fdb_record &record);
    void take_early(uint32_t ifindex);
    void forget_early(uint32_t ifindex);
    void follow_local_address(const link_record &before);
    void list_own_entries(uint32_t ifindex);
    bool keeps_another_destination(const fdb_record &record);

    // Generations.
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
    size_t notifications_at_once_ = 0; // more the receive buffer cannot hold
    std::chrono::milliseconds interval_;
    counters counters_;

    // Of the event manager's thread.
    event_manager_t *evm_ = nullptr;
    sink *sink_ = nullptr;
    uint32_t notifications_attachment_ = 0;
    uint32_t dumps_attachment_ = 0;
    uint32_t timer_ = 0;
    bool lost_ = false; // a change was, and no generation has begun since
    std::vector<std::byte> buffer_;
    kernel_message message_;
    std::unordered_map<uint32_t, known_link> links_;
    std::map<fdb_key, fdb_record> early_; // entries that were told before their devices
    kernel_listing listing_;
    uint32_t sequence_ = 0; // of the last dump
    std::chrono::milliseconds pause_;
    steady_clock::time_point began_;
    steady_clock::time_point ended_;

    std::mutex query_mutex_; // guards what follows
    kernel_querier querier_;
    bool answers_ = false;
};

// ---- Start and end

kernel_plane::kernel_plane(const kernel_options &options)
    : interval_(options.generation_interval_ms)
    , buffer_(kernel_buffer_size)
    , pause_(interval_)
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
    notifications_at_once_ = kernel_socket_resize(notifications_, receive_buffer) / least_notification_cost;
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
    if (!kernel_socket_subscribe(notifications_)) {
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
        note_overrun();
        listing_.running = false;
        plan_generation();
    }
}

plane_health kernel_plane::health() const
{
    plane_health result;
    result.clean = counters_.clean;
    result.generation = counters_.generation;
    result.overruns = counters_.overruns;
    result.events = counters_.events;
    result.refused = counters_.refused;
    result.dumps_clean = counters_.dumps_clean;
    result.dumps_unclean = counters_.dumps_unclean;
    return result;
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
}

// ---- Notifications

void kernel_plane::drain()
{
    if (evm_ != nullptr) {
        guarded([this] { read_notifications(notifications_at_once_); });
    }
}

// Reads until there are no more, or `limit` have been read. True: there are no more, so that nothing is being lost.
bool kernel_plane::read_notifications(size_t limit)
{
    for (size_t count = 0; count < limit; ++count) {
        std::span<const std::byte> datagram;
        switch (kernel_socket_read(notifications_, buffer_, datagram)) {
        case kernel_read::empty:
            if (lost_) {
                plan_generation();
            }
            return true;
        case kernel_read::overrun: note_overrun(); break;
        case kernel_read::refused: ++counters_.refused; break;
        case kernel_read::datagram:
            for (const kernel_clock clock = kernel_clock_now(); kernel_decode(datagram, clock, message_);) {
                take_change(message_);
            }
        }
    }
    return false;
}

void kernel_plane::note_overrun()
{
    ++counters_.overruns;
    counters_.clean = false;
    lost_ = true;
    listing_.disturbed = true;
    early_.clear();
}

void kernel_plane::take_change(const kernel_message &message)
{
    switch (message.kind) {
    case kernel_message_kind::link_changed: take_link_change(message.link); break;
    case kernel_message_kind::link_gone: take_link_gone(message.link.ifindex); break;
    case kernel_message_kind::fdb_changed: take_fdb_change(message.fdb); break;
    case kernel_message_kind::fdb_gone: take_fdb_gone(message.fdb); break;
    case kernel_message_kind::malformed: ++counters_.refused; break;
    default: break;
    }
}

void kernel_plane::take_link_change(const link_record &record)
{
    ++counters_.events;
    const known_link before = std::exchange(links_[record.ifindex], {record, sequence_});
    const bool was_known = before.record.ifindex != 0;
    const bool moved = was_known && before.record.master != record.master;
    listing_note_link(listing_, record.ifindex);
    if (moved) {
        listing_note_port_left(listing_, before.record.master);
    }
    sink_->link_changed(record);
    take_early(record.ifindex);
    if (record.kind == link_kind::vxlan && (moved || !was_known)) {
        list_own_entries(record.ifindex);
    }
    if (moved || (was_known && before.record.address != record.address)) {
        follow_local_address(before.record);
    }
}

void kernel_plane::take_link_gone(uint32_t ifindex)
{
    ++counters_.events;
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
    const uint16_t vlans = bridge->second.record.vlan_aware ? vlan_count : 1;
    for (uint16_t first = 0; first < vlans; first += query_batch) {
        std::vector<fdb_key> keys;
        for (uint16_t vlan = first; vlan < vlans && keys.size() < query_batch; ++vlan) {
            keys.push_back({.holder = bridge->first, .vlan = vlan, .mac = before.address});
        }
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
        ++counters_.events;
        listing_note_changed(listing_, key_of(record));
        sink_->fdb_changed(record);
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
    ++counters_.events;
    listing_note_gone(listing_, record, bridge_of(record));
    if (!record.self && (record.state & fdb_permanent) != 0) {
        sink_->fdb_changed(record); // a local address may have come to this device unnotified
    }
    if (!record.self || !is_group(record.mac) || !keeps_another_destination(record)) {
        sink_->fdb_gone(record);
    }
}

// A new bridge's own address is notified before the bridge itself.
void kernel_plane::keep_early(const fdb_record &record)
{
    if (early_.size() < most_early) {
        early_.insert_or_assign(key_of(record), record);
    } else {
        note_overrun(); // nobody knows these devices: something was lost
    }
}

void kernel_plane::take_early(uint32_t ifindex)
{
    for (auto each = early_.begin(); each != early_.end();) {
        if (each->second.ifindex == ifindex) {
            take_fdb_change(each->second);
            each = early_.erase(each);
        } else {
            ++each;
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

// A VXLAN device that has left its bridge is in no dump of a bridge any more; one that is new may have come from
// another network namespace, with entries of its own. Neither's are notified.
void kernel_plane::list_own_entries(uint32_t ifindex)
{
    const kernel_dump dump{kernel_scope::device, ifindex};
    if (listing_.running && listing_.current.scope != kernel_scope::links) {
        listing_.waiting.push_back(dump);
    } else if (!listing_.running && timer_ == 0) { // otherwise a whole listing will have it
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
        sink_->fdb_changed(answer.record);
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

// Has the next generation begin as soon as it may. Once the one that runs has ended, when one does.
void kernel_plane::plan_generation()
{
    if (timer_ != 0 || listing_.running) {
        return;
    }
    const auto on_timer = [](void *self) {
        auto *const that = static_cast<kernel_plane *>(self);
        that->timer_ = 0;
        that->guarded([that] { that->begin_generation(); });
    };
    const auto due = std::max(ended_ + pause_ - steady_clock::now(), steady_clock::duration::zero());
    const auto delay = std::chrono::duration_cast<std::chrono::nanoseconds>(due);
    if (host::event_timer_attach(evm_, static_cast<uint64_t>(delay.count()), 0, on_timer, this, &timer_) != 0) {
        timer_ = 0; // the next change plans it again, for it is still lost
    }
}

void kernel_plane::begin_generation()
{
    began_ = steady_clock::now();
    listing_begin(listing_, {kernel_scope::links, 0});
    // What was lost before the socket was empty is in the dumps to come.
    lost_ = !read_notifications(notifications_at_once_);
    host::event_timer_cancel(evm_, std::exchange(timer_, 0));
    ++counters_.generation;
    sink_->generation_begun();
    next_dump();
}

void kernel_plane::end_listing()
{
    const bool clean = listing_.clean && !lost_;
    const bool whole = listing_.whole;
    listing_ = {};
    if (whole) {
        end_generation(clean);
    } else if (!clean) {
        counters_.clean = false;
        plan_generation();
    }
}

void kernel_plane::end_generation(bool clean)
{
    ended_ = steady_clock::now();
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(ended_ - began_);
    pause_ = clean ? interval_ : std::min(2 * pause_, longest_pause * interval_);
    pause_ = std::max(pause_, took);
    counters_.clean = clean;
    if (!clean) {
        plan_generation();
    }
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
    for (size_t count = 0; count < parts_per_turn && steady_clock::now() < end; ++count) {
        std::span<const std::byte> datagram;
        switch (kernel_socket_read(dumps_, buffer_, datagram)) {
        case kernel_read::empty: return;
        case kernel_read::overrun: // its end may be among what was lost
            if (listing_.running) {
                end_dump(ENOBUFS);
            }
            break;
        case kernel_read::refused: ++counters_.refused; break;
        case kernel_read::datagram: take_part(datagram); break;
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
        listing_.disturbed |= !read_notifications(notifications_at_once_);
        listing_end_part(listing_, length);
    }
}

// False once the dump has ended: nothing of it follows.
bool kernel_plane::take_listed(const kernel_message &message)
{
    if (!listing_.running || message.sequence != sequence_) {
        return true; // of a dump that was given up
    }
    listing_.disturbed |= message.interrupted;
    switch (message.kind) {
    case kernel_message_kind::link_changed:
        if (listing_believes_link(listing_, message.link.ifindex)) {
            ++counters_.events;
            links_[message.link.ifindex] = {message.link, sequence_};
            sink_->link_changed(message.link);
            take_early(message.link.ifindex);
        }
        return true;
    case kernel_message_kind::fdb_changed:
        if (is_told(message.fdb) && listing_believes(listing_, key_of(message.fdb))) {
            ++counters_.events;
            sink_->fdb_changed(message.fdb);
            listing_note_told(listing_, message.fdb);
        }
        return true;
    case kernel_message_kind::done:
    case kernel_message_kind::error: end_dump(message.error); return false;
    case kernel_message_kind::malformed: ++counters_.refused; return true;
    default: return true;
    }
}

void kernel_plane::end_dump(int error)
{
    const kernel_dump current = listing_.current;
    listing_.disturbed |= !read_notifications(notifications_at_once_);
    // What has gone since it was planned cannot be dumped, and has nothing to be told.
    const bool has_gone = current.scope != kernel_scope::links && !links_.contains(current.ifindex);
    listing_.disturbed |= error != 0;
    const bool counts = has_gone || listing_close_window(listing_);
    ++(counts ? counters_.dumps_clean : counters_.dumps_unclean);
    if (!counts && !lost_ && listing_may_repeat(listing_) && request_dump()) {
        return;
    }
    listing_.clean &= counts;
    if (current.scope == kernel_scope::links) {
        plan_dumps(counts);
    }
    next_dump();
}

void kernel_plane::plan_dumps(bool links_count)
{
    if (links_count) {
        std::erase_if(links_, [this](const auto &link) { return link.second.seen != sequence_; });
    }
    for (const auto &[ifindex, link] : links_) {
        const auto master = links_.find(link.record.master);
        const bool is_port = master != links_.end() && master->second.record.kind == link_kind::bridge;
        if (link.record.kind == link_kind::bridge) {
            listing_.waiting.push_back({kernel_scope::bridge, ifindex});
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
