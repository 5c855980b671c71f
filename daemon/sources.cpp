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
        : views(std::move(of))
    {
        if (start) {
            const uint32_t after = number_of(start, 0);
            next = static_cast<size_t>(std::ranges::upper_bound(views, after, {}, Key) - views.begin());
        }
    }

    position fetch(uint32_t most, json_writer &json) override
    {
        const size_t end = std::min(views.size(), next + most);
        const auto count = static_cast<uint32_t>(end - next);
        for (; next < end; next++) {
            Write(json, views[next]);
        }
        return {end == 0 ? "" : std::to_string(views[end - 1].*Key), count, end < views.size()};
    }

private:
    std::vector<View> views;
    size_t next = 0;
};

using domain_source = view_source<forwarding::domain_view, &forwarding::domain_view::bridge_id, write_domain>;
using port_source = view_source<forwarding::port_view, &forwarding::port_view::xcid, write_port>;

class remote_destination_source : public list_source {
public:
    explicit remote_destination_source(uint32_t from)
        : cursor(from)
    {}

    position fetch(uint32_t most, json_writer &json) override
    {
        names.begin_page();
        const auto entries = forwarding::foreign_destinations(cursor, most);
        for (const forwarding::foreign_destination &entry : entries) {
            write_remote_destination(json, entry, names);
        }
        uint32_t ahead = cursor;
        const bool more = !entries.empty() && !forwarding::foreign_destinations(ahead, 1).empty();
        return {std::to_string(cursor), static_cast<uint32_t>(entries.size()), more};
    }

private:
    uint32_t cursor;
    port_names names;
};

// Reads one ring's points up to the newest of the time when the list began.
class ring_reader {
public:
    ring_reader(host::trace_ring of, uint64_t from)
        : ring(of)
        , next(from)
        , newest(host::trace_newest(of))
    {}

    // The point to come next; null at the end.
    const host::trace_point *peek()
    {
        if (at == count && next <= newest) {
            const host::trace_batch batch = host::trace_read(ring, next, points);
            at = 0;
            count = batch.count;
            next = batch.count == 0 ? newest + 1 : batch.next;
        }
        return at < count && points[at].sequence <= newest ? &points[at] : nullptr;
    }

    host::trace_ring kind() const { return ring; }
    void advance() { at++; }

    // To go on after what was taken.
    uint64_t position() const { return at < count ? points[at].sequence : next; }

private:
    host::trace_ring ring;
    uint64_t next; // after `points`
    uint64_t newest;
    std::array<host::trace_point, 64> points{};
    size_t at = 0;
    size_t count = 0;
};

class trace_source : public list_source {
public:
    trace_source(uint64_t from_normal, uint64_t from_error)
        : normal(host::trace_ring::normal, from_normal)
        , error(host::trace_ring::error, from_error)
    {}

    position fetch(uint32_t most, json_writer &json) override
    {
        uint32_t count = 0;
        while (count < most && write_oldest(json)) {
            count++;
        }
        return {std::to_string(normal.position()) + "," + std::to_string(error.position()), count,
                normal.peek() != nullptr || error.peek() != nullptr};
    }

private:
    bool write_oldest(json_writer &json)
    {
        const host::trace_point *a = normal.peek();
        const host::trace_point *b = error.peek();
        if (a == nullptr && b == nullptr) {
            return false;
        }
        ring_reader &from = b == nullptr || (a != nullptr && a->time_ns <= b->time_ns) ? normal : error;
        write_trace(json, *from.peek(), from.kind());
        from.advance();
        return true;
    }

    ring_reader normal;
    ring_reader error;
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

std::unique_ptr<list_source> make_remote_destination_source(const std::optional<std::string> &start)
{
    return std::make_unique<remote_destination_source>(number_of(start, 0));
}

std::unique_ptr<list_source> make_trace_source(const std::optional<std::string> &start)
{
    const auto fields = split(start ? *start : "1,1", ',');
    const auto from_normal = parse_number(fields.front());
    const auto from_error = parse_number(fields.back());
    if (fields.size() != 2 || !from_normal || !from_error) {
        throw unexpected("cursor", base64url_encode(*start), "a next-cursor of this list");
    }
    return std::make_unique<trace_source>(*from_normal, *from_error);
}

} // namespace l2fibd
