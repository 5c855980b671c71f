#include "daemon/sources.h"

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include "daemon/api_error.h"
#include "daemon/records.h"
#include "daemon/text.h"

namespace l2fibd {

namespace {

uint32_t number_of(const std::optional<std::string> &start, uint32_t beginning)
{
    const auto number = start ? parse_number(*start, UINT32_MAX) : beginning;
    if (!number) {
        throw unexpected("cursor", base64url_encode(*start), "a next-cursor of this list");
    }
    return static_cast<uint32_t>(*number);
}

// A copy of one of the forwarding plane's views, in the order of the number that Key gives.
template <typename View, auto Key, auto Write>
class view_source : public list_source {
public:
    view_source(std::vector<View> of, const std::optional<std::string> &start)
        : views_(std::move(of))
    {
        if (start) {
            const uint32_t after = number_of(start, 0);
            next_ = static_cast<size_t>(std::ranges::upper_bound(views_, after, {}, Key) - views_.begin());
        }
    }

    position fetch(uint32_t most, json_writer &json) override
    {
        const size_t end = std::min(views_.size(), next_ + most);
        const auto count = static_cast<uint32_t>(end - next_);
        for (; next_ < end; next_++) {
            Write(json, views_[next_]);
        }
        return {end == 0 ? "" : std::to_string(views_[end - 1].*Key), count, end < views_.size()};
    }

private:
    std::vector<View> views_;
    size_t next_ = 0;
};

using domain_source = view_source<forwarding::domain_view, &forwarding::domain_view::bridge_id, write_domain>;
using port_source = view_source<forwarding::port_view, &forwarding::port_view::xcid, write_port>;

class tunnel_entry_source : public list_source {
public:
    explicit tunnel_entry_source(uint32_t from)
        : cursor_(from)
    {}

    position fetch(uint32_t most, json_writer &json) override
    {
        const auto entries = forwarding::tunnel_entries(cursor_, most);
        for (const forwarding::tunnel_entry &entry : entries) {
            write_tunnel_entry(json, entry);
        }
        uint32_t ahead = cursor_;
        const bool more = !entries.empty() && !forwarding::tunnel_entries(ahead, 1).empty();
        return {std::to_string(cursor_), static_cast<uint32_t>(entries.size()), more};
    }

private:
    uint32_t cursor_;
};

// Reads one ring's points up to the newest of the time when the list began.
class ring_reader {
public:
    ring_reader(host::trace_ring of, uint64_t from)
        : ring_(of)
        , next_(from)
        , newest_(host::trace_newest(of))
    {}

    // The point to come next; null at the end.
    const host::trace_point *peek()
    {
        if (at_ == count_ && next_ <= newest_) {
            const host::trace_batch batch = host::trace_read(ring_, next_, points_);
            at_ = 0;
            count_ = batch.count;
            next_ = batch.count == 0 ? newest_ + 1 : batch.next;
        }
        return at_ < count_ && points_[at_].sequence <= newest_ ? &points_[at_] : nullptr;
    }

    host::trace_ring kind() const { return ring_; }
    void advance() { at_++; }

    // To go on after what was taken.
    uint64_t position() const { return at_ < count_ ? points_[at_].sequence : next_; }

private:
    host::trace_ring ring_;
    uint64_t next_; // after `points`
    uint64_t newest_;
    std::array<host::trace_point, 64> points_{};
    size_t at_ = 0;
    size_t count_ = 0;
};

class trace_source : public list_source {
public:
    trace_source(uint64_t from_normal, uint64_t from_error)
        : normal_(host::trace_ring::normal, from_normal)
        , error_(host::trace_ring::error, from_error)
    {}

    position fetch(uint32_t most, json_writer &json) override
    {
        uint32_t count = 0;
        while (count < most && write_oldest(json)) {
            count++;
        }
        return {std::to_string(normal_.position()) + "," + std::to_string(error_.position()), count,
                normal_.peek() != nullptr || error_.peek() != nullptr};
    }

private:
    bool write_oldest(json_writer &json)
    {
        const host::trace_point *a = normal_.peek();
        const host::trace_point *b = error_.peek();
        if (a == nullptr && b == nullptr) {
            return false;
        }
        ring_reader &from = b == nullptr || (a != nullptr && a->time_ns <= b->time_ns) ? normal_ : error_;
        write_trace(json, *from.peek(), from.kind());
        from.advance();
        return true;
    }

    ring_reader normal_;
    ring_reader error_;
};

} // namespace

std::unique_ptr<list_source> make_domain_source(const std::optional<std::string> &start)
{
    return std::make_unique<domain_source>(forwarding::domains(), start);
}

std::unique_ptr<list_source> make_port_source(const std::optional<std::string> &start)
{
    return std::make_unique<port_source>(forwarding::ports(), start);
}

std::unique_ptr<list_source> make_tunnel_entry_source(const std::optional<std::string> &start)
{
    return std::make_unique<tunnel_entry_source>(number_of(start, 0));
}

std::unique_ptr<list_source> make_trace_source(const std::optional<std::string> &start)
{
    const auto fields = split(start ? std::string_view(*start) : "1,1", ',');
    const auto from_normal = parse_number(fields.front());
    const auto from_error = parse_number(fields.back());
    if (fields.size() != 2 || !from_normal || !from_error) {
        throw unexpected("cursor", base64url_encode(*start), "a next-cursor of this list");
    }
    return std::make_unique<trace_source>(*from_normal, *from_error);
}

} // namespace l2fibd
