// SPDX-License-Identifier: Apache-2.0

#include "daemon/api/lists/sources.h"

#include <algorithm>
#include <array>
#include <bit>
#include <utility>
#include <vector>

#include "base/text.h"
#include "daemon/api/json/api_error.h"
#include "daemon/api/json/records.h"
#include "daemon/api/lists/keys.h"

namespace l2fibd {

namespace {

// Throws if the forwarding plane has ended: its empty page must not look like the end of a list.
void require_running(const forwarding::row_page &page)
{
    if (page.objects == nullptr) {
        throw daemon_ends("list");
    }
}

// ---- Cursors ----

// The number in a key of one number. `first` is the list's beginning.
uint32_t number_of(const std::optional<std::string> &start, uint32_t first)
{
    const auto number = start ? base::parse_number(*start, UINT32_MAX) : first;
    if (!number) {
        refuse_cursor(*start);
    }
    return static_cast<uint32_t>(*number);
}

// ---- Objects ----

// The index behind the last item of a page that begins at `next`.
size_t page_end(size_t size, size_t next, uint32_t max_items)
{
    return std::min(size, next + max_items);
}

// The forwarding plane's objects of one kind, as they were when the list began, in the order of their member Key. How
// many entries they have, and how much they change, is of the moment of the page.
template <typename View, auto Key, auto Write, auto Activity>
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

    position fetch(uint32_t max_items, json_writer &json) override
    {
        const size_t end = page_end(views_.size(), next_, max_items);
        const auto page = std::span(views_).subspan(next_, end - next_);
        std::vector<std::remove_cvref_t<decltype(page.front().*Key)>> keys;
        std::ranges::transform(page, std::back_inserter(keys), Key);
        const auto activities = Activity(keys);
        for (size_t at = 0; at < page.size(); at++) {
            Write(json, page[at], activities[at]);
        }
        next_ = end;
        return {end == 0 ? "" : std::to_string(views_[end - 1].*Key), static_cast<uint32_t>(page.size()),
                end < views_.size()};
    }

private:
    std::vector<View> views_;
    size_t next_ = 0;
};

using domain_source = view_source<forwarding::domain_view, &forwarding::domain_view::bridge_id, write_domain,
                                  forwarding::domain_activity>;
using port_source =
    view_source<forwarding::port_view, &forwarding::port_view::xcid, write_port, forwarding::port_activity>;

// ---- Rows of the MAC table ----

class table_source : public list_source {
public:
    table_source(const forwarding::row_filter &filter, const forwarding::row_details &details,
                 const std::optional<std::string> &start)
        : filter_(filter)
        , details_(details)
    {
        if (start) {
            const auto [bridge_id, xcid, mac, holds_row] = numbers_of<4>(*start, kind);
            at_ = {static_cast<uint16_t>(bridge_id), static_cast<uint32_t>(xcid), base::mac_of_number(mac),
                   holds_row != 0};
            if (!filter.domains.holds(at_.bridge_id)) {
                refuse_cursor(*start);
            }
        }
    }

    position fetch(uint32_t max_items, json_writer &json) override
    {
        const forwarding::row_page page = forwarding::read_rows(filter_, at_, max_items, details_);
        require_running(page);
        for (const forwarding::mac_row &row : page.rows) {
            write_row(json, row, false);
        }
        at_ = page.end;
        return {key_of(kind, at_.bridge_id, at_.xcid, base::number_of_mac(at_.mac), at_.holds_row ? 1 : 0),
                static_cast<uint32_t>(page.rows.size()), page.more};
    }

private:
    static constexpr std::string_view kind = "t"; // bridge id, xcid, address, whether a row was read there

    forwarding::row_filter filter_;
    forwarding::row_details details_;
    forwarding::row_position at_ = {};
};

class address_source : public list_source {
public:
    address_source(const forwarding::mac_address &mac, const forwarding::row_filter &filter,
                   const std::optional<std::string> &start)
        : mac_(mac)
        , filter_(filter)
    {
        if (start) {
            const auto [bridge_id, xcid] = numbers_of<2>(*start, kind);
            after_ = {bridge_id, xcid};
        }
    }

    position fetch(uint32_t max_items, json_writer &json) override
    {
        if (page_.objects == nullptr) {
            find();
        }
        const size_t end = page_end(page_.rows.size(), next_, max_items);
        const auto count = static_cast<uint32_t>(end - next_);
        for (; next_ < end; next_++) {
            write_row(json, page_.rows[next_], false);
        }
        const std::string key = end == 0 ? "" : key_of(kind, page_.rows[end - 1].bridge_id, page_.rows[end - 1].xcid);
        return {key, count, end < page_.rows.size()};
    }

private:
    using place = std::pair<uint64_t, uint64_t>;
    static constexpr std::string_view kind = "a"; // bridge id, xcid

    static place place_of(const forwarding::mac_row &row) { return {row.bridge_id, row.xcid}; }

    void find()
    {
        const auto &domains = filter_.domains;
        const bool is_one = !domains.is_exclusion && domains.values.size() == 1;
        page_ = forwarding::find_rows(mac_, is_one ? domains.values.front() : uint16_t{0}, {.since = true});
        require_running(page_);
        std::erase_if(page_.rows, [&](const forwarding::mac_row &row) { return !passes(filter_, row); });
        const auto next = std::ranges::upper_bound(page_.rows, after_, {}, place_of);
        next_ = static_cast<size_t>(next - page_.rows.begin());
    }

    forwarding::mac_address mac_;
    forwarding::row_filter filter_;
    place after_ = {};
    forwarding::row_page page_ = {};
    size_t next_ = 0;
};

class ordered_source : public list_source {
public:
    ordered_source(forwarding::order_request wanted, const std::optional<std::string> &start, uint64_t limit,
                   const order_context &context)
        : wanted_(std::move(wanted))
        , places_ahead_(static_cast<uint32_t>(std::min<uint64_t>(limit, max_places_ahead)))
        , context_(context)
    {
        if (start) {
            at_ = position_in(*start);
            places_ahead_ = std::min(max_places_ahead, places_ahead_ * continued_answers);
            selection_ = context.selections.take(wanted_, at_).value_or(forwarding::order_selection());
        }
    }

    // Keeps the rest of the selection for the client that continues with a cursor.
    ~ordered_source() override
    {
        forwarding::seek(selection_, at_);
        if (forwarding::is_fresh(selection_)) {
            context_.selections.keep(std::move(selection_));
        }
    }

    position fetch(uint32_t max_items, json_writer &json) override
    {
        if (next_ == page_.rows.size()) {
            read_ahead();
        }
        const size_t end = page_end(page_.rows.size(), next_, max_items);
        const auto count = static_cast<uint32_t>(end - next_);
        for (; next_ < end; next_++) {
            write_row(json, page_.rows[next_], context_.is_aging_list);
        }
        const bool is_at_end = next_ == page_.rows.size();
        at_ = is_at_end ? selection_.at : position_of(selection_, page_.rows[next_ - 1].place);
        return {key_of(kind() + base::percent_encode(at_.port), at_.value, at_.slot, at_.began), count,
                !is_at_end || page_.more};
    }

private:
    // Each selection looks at all entries of the table, so one selection gets many places: at most 2.4 megabytes.
    static constexpr uint32_t max_places_ahead = 100'000;
    static constexpr uint32_t continued_answers = 8; // a client that sends a cursor will probably send more of them
    static constexpr uint32_t max_rows_ahead = 1'000;

    // Names the kind of list in a key, and is followed by the port's name: a letter for each order, "r" if it is
    // reversed, and a colon.
    std::string kind() const
    {
        constexpr std::string_view letters = "clmvp"; // by row_order
        return letters[static_cast<size_t>(wanted_.order)] + std::string(wanted_.is_reversed ? "r:" : ":");
    }

    // A key has the members of order_position.
    forwarding::order_position position_in(const std::string &start) const
    {
        const std::string word = start.substr(0, start.find(' '));
        const auto port = word.starts_with(kind()) ? base::percent_decode(word.substr(kind().size())) : std::nullopt;
        if (!port) {
            refuse_cursor(start);
        }
        const auto [value, slot, began] = numbers_of<3>(start, word);
        return {value, static_cast<uint32_t>(slot), true, began, *port};
    }

    void read_ahead()
    {
        if (!forwarding::is_fresh(selection_)) {
            selection_ = {}; // two selections would take twice the memory
            const sort_places::hold place(context_.selections.places, context_.resyncs);
            selection_ = forwarding::select_ahead(wanted_, at_, places_ahead_);
            at_ = selection_.at;
        }
        page_ = forwarding::read_selection(selection_, max_rows_ahead, context_.details).page;
        require_running(page_);
        next_ = 0;
    }

    forwarding::order_request wanted_;
    uint32_t places_ahead_; // that a selection gets
    order_context context_;
    forwarding::order_position at_ = {};
    forwarding::order_selection selection_ = {};
    forwarding::row_page page_ = {};
    size_t next_ = 0;
};

// Each answer counts again, because counts are of one moment.
class count_source : public list_source {
public:
    count_source(const forwarding::row_filter &filter, forwarding::count_group by,
                 const std::optional<std::string> &start)
        : filter_(filter)
        , by_(by)
    {
        if (start) {
            const auto [bridge_id, xcid, vlan, high, low, type] = numbers_of<6>(*start, kind());
            after_ = {{static_cast<uint16_t>(bridge_id), static_cast<uint32_t>(xcid)},
                      static_cast<uint16_t>(vlan),
                      std::bit_cast<base::ip_address>(std::array{high, low}),
                      static_cast<forwarding::row_origin>(type)};
        }
    }

    position fetch(uint32_t max_items, json_writer &json) override
    {
        if (counted_.objects == nullptr) {
            count();
        }
        const auto &groups = counted_.groups;
        const size_t end = page_end(groups.size(), next_, max_items);
        const auto count = static_cast<uint32_t>(end - next_);
        for (; next_ < end; next_++) {
            write_group_count(json, groups[next_], by_, *counted_.objects);
        }
        return {end == 0 ? "" : key_of_group(groups[end - 1].key), count, end < groups.size()};
    }

private:
    std::string kind() const { return "n" + std::to_string(static_cast<unsigned>(by_)); }

    std::string key_of_group(const forwarding::group_key &key) const
    {
        const auto [high, low] = std::bit_cast<std::array<uint64_t, 2>>(key.vtep);
        return key_of(kind(), key.place.first, key.place.second, key.vlan, high, low, static_cast<unsigned>(key.type));
    }

    void count()
    {
        counted_ = forwarding::count_rows(filter_, by_);
        if (counted_.objects == nullptr) {
            throw daemon_ends("list");
        }
        if (after_) {
            const auto next = std::ranges::upper_bound(counted_.groups, *after_, {}, &forwarding::group_count::key);
            next_ = static_cast<size_t>(next - counted_.groups.begin());
        }
    }

    forwarding::row_filter filter_;
    forwarding::count_group by_;
    std::optional<forwarding::group_key> after_ = std::nullopt;
    forwarding::group_counts counted_ = {};
    size_t next_ = 0;
};

class vtep_source : public list_source {
public:
    vtep_source(filters given, const std::optional<std::string> &start)
        : given_(std::move(given))
    {
        if (start) {
            const auto [xcid, address, vni] = numbers_of<3>(*start, kind);
            at_.xcid = static_cast<uint32_t>(xcid);
            at_.vni = static_cast<uint32_t>(vni);
            at_.address = std::bit_cast<std::array<uint8_t, base::ipv4_bytes>>(static_cast<uint32_t>(address));
        }
    }

    position fetch(uint32_t max_items, json_writer &json) override
    {
        auto vteps = forwarding::read_vteps(at_, max_items + 1); // one more shows whether items follow
        const bool more = vteps.size() > max_items;
        vteps.resize(std::min<size_t>(vteps.size(), max_items));
        at_ = vteps.empty() ? at_ : vteps.back();
        const auto objects = forwarding::objects();
        std::erase_if(vteps, [&](const forwarding::vtep_view &vtep) { return !passes(vtep, objects.get()); });
        for (const forwarding::vtep_view &vtep : vteps) {
            write_vtep(json, vtep, objects.get());
        }
        return {key_of(kind, at_.xcid, std::bit_cast<uint32_t>(at_.address), at_.vni),
                static_cast<uint32_t>(vteps.size()), more};
    }

private:
    static constexpr std::string_view kind = "v"; // xcid, address, VNI

    bool passes(const forwarding::vtep_view &vtep, const forwarding::object_views *objects) const
    {
        const forwarding::port_view *port =
            objects != nullptr ? objects->find_port(vtep.bridge_id, vtep.xcid) : nullptr;
        const named_place place = port != nullptr ? place_of(*port) : named_place{.xcid = vtep.xcid};
        return passes_names(given_, place) && given_.rest.vnis.holds(vtep.vni)
               && given_.rest.vteps.holds(base::ip_of(vtep.address));
    }

    filters given_;
    forwarding::vtep_view at_ = {};
};

class tunnel_entry_source : public list_source {
public:
    tunnel_entry_source(filters given, uint32_t from)
        : given_(std::move(given))
        , cursor_(from)
    {}

    position fetch(uint32_t max_items, json_writer &json) override
    {
        auto entries = forwarding::tunnel_entries(cursor_, max_items);
        uint32_t ahead = cursor_;
        const bool more = !entries.empty() && !forwarding::tunnel_entries(ahead, 1).empty();
        std::erase_if(entries, [&](const forwarding::tunnel_entry &entry) { return !passes(entry); });
        for (const forwarding::tunnel_entry &entry : entries) {
            write_tunnel_entry(json, entry);
        }
        return {std::to_string(cursor_), static_cast<uint32_t>(entries.size()), more};
    }

private:
    bool passes(const forwarding::tunnel_entry &entry) const
    {
        return passes_names(given_,
                            {.domain = entry.domain, .vlan = entry.vlan, .port = entry.port, .xcid = entry.xcid})
               && given_.rest.vnis.holds(entry.vni)
               && given_.rest.vteps.holds(forwarding::address_of(entry.record.destination))
               && forwarding::passes_address(given_.rest, entry.record.mac);
    }

    filters given_;
    uint32_t cursor_;
};

// Reads the points of one ring, up to the newest one when the list began.
class ring_reader {
public:
    ring_reader(host::trace_ring of, uint64_t from)
        : ring_(of)
        , next_(from)
        , newest_(host::trace_newest(of))
    {}

    // The next point. Null at the end.
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

    // The sequence number from which a later list continues.
    uint64_t position() const { return at_ < count_ ? points_[at_].sequence : next_; }

private:
    static constexpr size_t batch_points = 64; // a writer of trace points waits for a reader's copy of at most so many

    host::trace_ring ring_;
    uint64_t next_; // of the point after those in points_
    uint64_t newest_;
    std::array<host::trace_point, batch_points> points_{};
    size_t at_ = 0;
    size_t count_ = 0;
};

// A key for the first point of each ring.
constexpr std::string_view beginning_of_rings = "1,1";

// The points of both rings, by time. A key has the next sequence number of each ring: "17,3".
class trace_source : public list_source {
public:
    trace_source(uint64_t from_normal, uint64_t from_error)
        : normal_(host::trace_ring::normal, from_normal)
        , error_(host::trace_ring::error, from_error)
    {}

    position fetch(uint32_t max_items, json_writer &json) override
    {
        uint32_t count = 0;
        while (count < max_items && write_oldest(json)) {
            count++;
        }
        return {std::to_string(normal_.position()) + "," + std::to_string(error_.position()), count,
                normal_.peek() != nullptr || error_.peek() != nullptr};
    }

private:
    // Writes the older one of the two next points. False at the end of both rings.
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

std::unique_ptr<list_source> make_table_source(const forwarding::row_filter &filter,
                                               const forwarding::row_details &details,
                                               const std::optional<std::string> &start)
{
    return std::make_unique<table_source>(filter, details, start);
}

std::unique_ptr<list_source> make_address_source(const forwarding::mac_address &mac,
                                                 const forwarding::row_filter &filter,
                                                 const std::optional<std::string> &start)
{
    return std::make_unique<address_source>(mac, filter, start);
}

std::unique_ptr<list_source> make_ordered_source(forwarding::order_request wanted,
                                                 const std::optional<std::string> &start, uint64_t limit,
                                                 const order_context &context)
{
    return std::make_unique<ordered_source>(std::move(wanted), start, limit, context);
}

std::unique_ptr<list_source> make_count_source(const forwarding::row_filter &filter, forwarding::count_group by,
                                               const std::optional<std::string> &start)
{
    return std::make_unique<count_source>(filter, by, start);
}

std::unique_ptr<list_source> make_vtep_source(const filters &given, const std::optional<std::string> &start)
{
    return std::make_unique<vtep_source>(given, start);
}

std::unique_ptr<list_source> make_domain_source(const filters &given, const std::optional<std::string> &start)
{
    auto domains = forwarding::domains();
    std::erase_if(domains, [&given](const forwarding::domain_view &domain) {
        return !passes_names(given, place_of(domain)) || !given.rest.vlans.holds(domain.vlan);
    });
    return std::make_unique<domain_source>(std::move(domains), start);
}

std::unique_ptr<list_source> make_port_source(const filters &given, const std::optional<std::string> &start)
{
    auto ports = forwarding::ports();
    std::erase_if(ports, [&given](const forwarding::port_view &port) {
        return !passes_names(given, place_of(port)) || !given.rest.vlans.holds(port.vlan)
               || !given.rest.vnis.holds(port.vni);
    });
    return std::make_unique<port_source>(std::move(ports), start);
}

std::unique_ptr<list_source> make_tunnel_entry_source(const filters &given, const std::optional<std::string> &start)
{
    return std::make_unique<tunnel_entry_source>(given, number_of(start, 0));
}

std::unique_ptr<list_source> make_trace_source(const std::optional<std::string> &start)
{
    const auto fields = base::split(start ? std::string_view(*start) : beginning_of_rings, ',');
    const auto from_normal = base::parse_number(fields.front());
    const auto from_error = base::parse_number(fields.back());
    if (fields.size() != 2 || !from_normal || !from_error) {
        refuse_cursor(*start);
    }
    return std::make_unique<trace_source>(*from_normal, *from_error);
}

} // namespace l2fibd
