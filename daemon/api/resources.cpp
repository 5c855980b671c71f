// SPDX-License-Identifier: Apache-2.0

#include "daemon/api/resources.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <exception>
#include <span>
#include <thread>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "base/text.h"
#include "daemon/api/filters.h"
#include "daemon/api/history/event_stream.h"
#include "daemon/api/history/history_filter.h"
#include "daemon/api/history/history_sources.h"
#include "daemon/api/json/records.h"
#include "daemon/api/lists/sources.h"
#include "daemon/http/target.h"
#include "forwarding/feeder/answers/reading.h"
#include "forwarding/forwarding.h"

namespace l2fibd {

namespace {

// The largest `limit`. A client that wants more leaves the parameter out.
constexpr uint64_t max_limit = 1'000'000;

constexpr std::string_view operation_method = "POST";

constexpr uint32_t default_flap_window_seconds = 300;

// ---- Keys and parameters ----

struct call {
    const target &to;
    const request &sent;
    const api_context &context;

    // The key of the last path element that has one.
    const std::string &key() const
    {
        const auto found = std::find_if(to.path.rbegin(), to.path.rend(), [](auto &part) { return part.key; });
        return *found->key;
    }
    const std::string *parameter(std::string_view name) const
    {
        const auto found = std::ranges::find(to.parameters, name, &target::parameter::name);
        return found != to.parameters.end() ? &found->value : nullptr;
    }
};

// A copy of the object whose Member is `value`. Empty if there is none.
template <auto Views, auto Member, typename Value>
auto find_view(const Value &value)
{
    const auto objects = forwarding::objects();
    using view = std::remove_cvref_t<decltype(((*objects).*Views).front())>;
    if (objects == nullptr) {
        return std::optional<view>();
    }
    const auto found = std::ranges::find((*objects).*Views, value, Member);
    return found != ((*objects).*Views).end() ? std::optional(*found) : std::nullopt;
}

forwarding::domain_view domain_of(const std::string &name)
{
    const auto found = find_view<&forwarding::object_views::domains, &forwarding::domain_view::name>(name);
    if (!found) {
        throw no_domain(name);
    }
    return *found;
}

forwarding::port_view port_of(const std::string &xcid)
{
    const auto number = base::parse_number(xcid, UINT32_MAX);
    if (!number) {
        throw unexpected("port", xcid, "an xcid, a number from 0 to " + std::to_string(UINT32_MAX));
    }
    const auto found = find_view<&forwarding::object_views::ports, &forwarding::port_view::xcid>(*number);
    if (!found) {
        throw no_port(xcid);
    }
    return *found;
}

forwarding::mac_address mac_of(const std::string &subject, const std::string &text)
{
    const auto address = base::parse_mac(text);
    if (!address) {
        throw unexpected(subject, text, "a MAC address as 02:00:00:00:00:01 or 0200.0000.0001");
    }
    return *address;
}

// ---- Lists ----

uint64_t limit_of(const call &asked)
{
    const std::string *text = asked.parameter("limit");
    if (text == nullptr) {
        return list_stream::no_limit;
    }
    const auto limit = base::parse_number(*text, max_limit);
    if (!limit || *limit == 0) {
        throw unexpected("limit", *text, "a number from 1 to " + std::to_string(max_limit));
    }
    return *limit;
}

std::optional<std::string> start_of(const call &asked)
{
    const std::string *text = asked.parameter("cursor");
    return text != nullptr ? std::optional(key_of_cursor(*text)) : std::nullopt;
}

answer stream(const call &asked, std::string_view name, std::unique_ptr<list_source> source, uint64_t limit)
{
    answer result;
    auto rest = std::make_unique<list_stream>(name, std::move(source), limit, asked.context.resyncs);
    rest->write_next(result.body);
    result.worth = rest->worst();
    if (!rest->finished()) {
        result.rest = std::move(rest);
    }
    return result;
}

answer stream(const call &asked, std::string_view name, std::unique_ptr<list_source> source)
{
    return stream(asked, name, std::move(source), limit_of(asked));
}

// The value of a parameter that is "true" or "false", and false if it is not given.
bool is_set(const call &asked, std::string_view name)
{
    const std::string *text = asked.parameter(name);
    if (text != nullptr && *text != "true" && *text != "false") {
        throw unexpected(std::string(name), *text, "true or false");
    }
    return text != nullptr && *text == "true";
}

// An entry with one of these flags passes `flagged=true`, in the list of a bridge domain or the table, and of a port.
constexpr uint16_t flagged_in_domain = EDM_MAC_ON_DUMMY_PORT;
constexpr uint16_t flagged_on_port = EDM_MAC_ON_DUMMY_PORT | EDM_MAC_4000 | EDM_MAC_LOCKED;

// The filters of a list of entries.
forwarding::row_filter filter_of(const call &asked)
{
    return resolve(parse_filters(asked.to, filters_of_entries));
}

// The filters of another list. Throws api_error if a bridge domain or port that they name does not exist.
filters existing_filters(const call &asked, unsigned kinds)
{
    filters given = parse_filters(asked.to, kinds);
    static_cast<void>(resolve(given));
    return given;
}

std::optional<forwarding::mac_address> mac_parameter(const call &asked, const forwarding::row_filter &filter)
{
    const std::string *text = asked.parameter("mac");
    if (text == nullptr) {
        return std::nullopt;
    }
    const forwarding::mac_address mac = mac_of("mac", *text);
    if (!passes_address(filter, mac)) {
        throw unexpected("mac", *text, "an address that the parameters mac-prefix and not-mac-prefix let pass");
    }
    return mac;
}

// ---- Orders ----

// A word of the parameter `sort`.
struct order_word {
    std::string_view word;
    forwarding::row_order order;
    bool is_reversed; // the order begins with the largest value
};

constexpr order_word orders_of_table[] = {
    {"mac", forwarding::row_order::mac, false},      {"port", forwarding::row_order::port, false},
    {"age", forwarding::row_order::last_seen, true}, {"created", forwarding::row_order::created, false},
    {"vlan", forwarding::row_order::vlan, false},
};

// The first one is the default.
constexpr order_word orders_of_aging[] = {
    {"last-seen", forwarding::row_order::last_seen, false},
    {"created", forwarding::row_order::created, false},
};

const order_word &order_of(const std::string &text, std::span<const order_word> words)
{
    const auto found = std::ranges::find(words, text, &order_word::word);
    if (found == words.end()) {
        std::string expected;
        for (const order_word &each : words) {
            expected += (expected.empty() ? "" : ", ") + std::string(each.word);
        }
        throw unexpected("sort", text, "one of " + expected);
    }
    return *found;
}

// The order that the parameters `sort` and `reverse` ask for. Empty: the usual one.
std::optional<forwarding::order_request> order_parameter(const call &asked, const forwarding::row_filter &filter)
{
    const std::string *text = asked.parameter("sort");
    const bool is_reversed = is_set(asked, "reverse");
    if (text == nullptr && is_reversed) {
        throw unexpected("reverse", "true", "together with sort");
    }
    if (text == nullptr) {
        return std::nullopt;
    }
    if (asked.parameter("mac") != nullptr) {
        throw unexpected("sort", *text, "without mac");
    }
    const order_word &word = order_of(*text, orders_of_table);
    return forwarding::order_request{word.order, word.is_reversed != is_reversed, filter};
}

// ---- Lists of entries ----

// The order by creation shows when entries came. Other lists do so on request, because it costs a question.
forwarding::row_details details_of(const call &asked)
{
    const std::string *sort = asked.parameter("sort");
    return {.since = is_set(asked, "with-since") || (sort != nullptr && *sort == "created")};
}

// The MAC entries that pass the filter. Only the beginning of a list brings the table up to date: a cursor continues
// the same list.
answer list_entries(const call &asked, const forwarding::row_filter &filter, void (*update)(const call &asked))
{
    const std::optional<std::string> start = start_of(asked);
    const auto mac = mac_parameter(asked, filter);
    const auto order = order_parameter(asked, filter);
    const forwarding::row_details details = details_of(asked);
    const uint64_t limit = limit_of(asked);
    if (!start) {
        update(asked);
    }
    return stream(asked, "mac-entry",
                  order ? make_ordered_source(*order, start, limit,
                                              {asked.context.selections, asked.context.resyncs, false, details})
                  : mac ? make_address_source(*mac, filter, start)
                        : make_table_source(filter, details, start),
                  limit);
}

answer list_table(const call &asked)
{
    forwarding::row_filter filter = filter_of(asked);
    filter.flags = is_set(asked, "flagged") ? flagged_in_domain : uint16_t{0};
    return list_entries(asked, filter, [](const call &of) { of.context.resyncs.resync_all(); });
}

answer list_domain_entries(const call &asked)
{
    forwarding::row_filter filter = filter_of(asked);
    filter.domains.keep_only({domain_of(asked.key()).bridge_id});
    filter.flags = is_set(asked, "flagged") ? flagged_in_domain : uint16_t{0};
    return list_entries(asked, filter, [](const call &of) { of.context.resyncs.resync_domain(of.key()); });
}

answer list_port_entries(const call &asked)
{
    forwarding::row_filter filter = filter_of(asked);
    filter.ports.keep_only({forwarding::key_of(port_of(asked.key()))});
    filter.flags = is_set(asked, "flagged") ? flagged_on_port : uint16_t{0};
    return list_entries(asked, filter, [](const call &of) {
        const forwarding::port_view port = port_of(of.key());
        of.context.resyncs.resync_port(port.xcid, port.domain);
    });
}

answer list_by_age(const call &asked)
{
    const std::string *text = asked.parameter("sort");
    const order_word &word = order_of(text != nullptr ? *text : std::string(orders_of_aging[0].word), orders_of_aging);
    const forwarding::order_request wanted{word.order, word.is_reversed, filter_of(asked)};
    const std::optional<std::string> start = start_of(asked);
    const uint64_t limit = limit_of(asked);
    if (!start) {
        asked.context.resyncs.resync_all();
    }
    return stream(asked, "mac-entry",
                  make_ordered_source(wanted, start, limit,
                                      {asked.context.selections, asked.context.resyncs, true, details_of(asked)}),
                  limit);
}

// ---- Counts by group ----

struct group_word {
    std::string_view word;
    forwarding::count_group by;
};

constexpr group_word group_words[] = {
    {"domain", forwarding::count_group::domain}, {"port", forwarding::count_group::port},
    {"vlan", forwarding::count_group::vlan},     {"vtep", forwarding::count_group::vtep},
    {"type", forwarding::count_group::type},
};

answer list_counts(const call &asked)
{
    const std::string *text = asked.parameter("by");
    const auto *group = std::ranges::find(group_words, text != nullptr ? *text : std::string(), &group_word::word);
    if (group == std::end(group_words)) {
        throw unexpected("by", text != nullptr ? *text : "", "domain, port, vlan, vtep or type");
    }
    const forwarding::row_filter filter = filter_of(asked);
    const std::optional<std::string> start = start_of(asked);
    const uint64_t limit = limit_of(asked);
    if (!start) {
        asked.context.resyncs.resync_all();
    }
    return stream(asked, "mac-count", make_count_source(filter, group->by, start), limit);
}

// ---- Lists of objects ----

constexpr unsigned filters_of_domains = by_domain | by_vlan;
constexpr unsigned filters_of_ports = by_domain | by_port | by_vlan | by_vni;
constexpr unsigned filters_of_vteps = by_domain | by_port | by_vni | by_vtep;
constexpr unsigned filters_of_tunnel_entries = filters_of_vteps | by_prefix;

answer list_vteps(const call &asked)
{
    const filters given = existing_filters(asked, filters_of_vteps);
    const std::optional<std::string> start = start_of(asked);
    if (!start) {
        asked.context.resyncs.resync_all();
    }
    return stream(asked, "vtep", make_vtep_source(given, start));
}

answer list_domains(const call &asked)
{
    return stream(asked, "domain", make_domain_source(existing_filters(asked, filters_of_domains), start_of(asked)));
}

answer list_ports(const call &asked)
{
    return stream(asked, "port", make_port_source(existing_filters(asked, filters_of_ports), start_of(asked)));
}

// A device without a bridge is no bridge port, so the names of ports are not looked up.
answer list_tunnel_entries(const call &asked)
{
    static_cast<void>(existing_filters(asked, filters_of_tunnel_entries & ~unsigned{by_port}));
    return stream(asked, "tunnel-entry",
                  make_tunnel_entry_source(parse_filters(asked.to, filters_of_tunnel_entries), start_of(asked)));
}

answer list_traces(const call &asked)
{
    return stream(asked, "trace", make_trace_source(start_of(asked)));
}

// ---- What has happened ----

// The filters of events or moves. The parameter `mac` leaves one address of those that the filters let pass.
filters history_filters(const call &asked, unsigned kinds)
{
    filters given = parse_filters(asked.to, kinds);
    if (const auto mac = mac_parameter(asked, given.rest)) {
        const uint64_t address = base::number_of_mac(*mac);
        given.rest.addresses = {address, address};
    }
    if (has_ipv6(given.rest)) {
        throw invalid("vtep: expected an IPv4 address, because the history has no other tunnel end points");
    }
    return given;
}

answer list_moves(const call &asked)
{
    return stream(asked, "move", make_move_source(history_filters(asked, filters_of_moves), start_of(asked)));
}

uint32_t flap_window_of(const call &asked)
{
    const std::string *text = asked.parameter("window");
    if (text == nullptr) {
        return default_flap_window_seconds;
    }
    const auto window = base::parse_duration(*text);
    if (!window || *window == 0) {
        throw unexpected("window", *text, "a time of at least a second as 90 or 90s, 15m, 2h or 1d");
    }
    return *window;
}

answer list_flaps(const call &asked)
{
    return stream(asked, "flap",
                  make_flap_source(history_filters(asked, filters_of_flaps), flap_window_of(asked), start_of(asked)));
}

// A name that no bridge domain or port has is an error when a stream begins. When it continues, the object may have
// gone since.
answer watch_events(const call &asked)
{
    filters given = history_filters(asked, filters_of_events);
    if (asked.sent.last_event_id == nullptr) {
        static_cast<void>(resolve(given));
    }
    auto events = std::make_unique<event_stream>(asked.sent.last_event_id, std::move(given), asked.context.resyncs,
                                                 asked.sent.has_client_left);
    answer result{.is_stream = true};
    events->write_next(result.body);
    result.worth = forwarding::completeness_watch().worst();
    result.rest = std::move(events);
    return result;
}

// ---- Single resources ----

// An answer whose body has one member besides the completeness. `write` writes the member's value.
template <typename Write>
answer document(std::string_view name, Write write)
{
    answer result;
    const forwarding::completeness_watch watch;
    json_writer json;
    json.begin_object();
    json.name(std::string("l2fib-mac:").append(name));
    write(json);
    write_completeness(json, watch);
    json.end_object();
    result.body = json.take();
    result.worth = watch.worst();
    return result;
}

template <typename Write>
answer list_of_one(std::string_view name, Write write)
{
    return document(name, [&write](json_writer &json) {
        json.begin_array();
        write(json);
        json.end_array();
    });
}

answer get_entry(const call &asked)
{
    const forwarding::mac_address mac = mac_of("mac-entry", asked.key());
    const forwarding::domain_view domain = domain_of(*asked.to.path[asked.to.path.size() - 2].key);
    asked.context.resyncs.resync_domain(domain.name);
    return list_of_one("mac-entry", [&](json_writer &json) {
        const forwarding::row_page found = forwarding::find_rows(mac, domain.bridge_id, {.since = true});
        if (found.rows.empty()) {
            throw not_found("mac-entry \"" + base::mac_text(mac) + "\": there is no such entry in the bridge domain \""
                            + domain.name + "\"");
        }
        for (const forwarding::mac_row &row : found.rows) { // the zero address has a row for each tunnel of the domain
            write_row(json, row, false);
        }
    });
}

answer get_domain(const call &asked)
{
    const forwarding::domain_view domain = domain_of(asked.key());
    return list_of_one("domain", [&](json_writer &json) {
        write_domain(json, domain, forwarding::domain_activity(std::array{domain.bridge_id}).front());
    });
}

answer get_port(const call &asked)
{
    const forwarding::port_view port = port_of(asked.key());
    return list_of_one("port", [&](json_writer &json) {
        write_port(json, port, forwarding::port_activity(std::array{port.xcid}).front());
    });
}

answer count_all(const call &asked)
{
    asked.context.resyncs.resync_all();
    return document("mac-count", [](json_writer &json) { write_mac_count(json, forwarding::count_all(), true); });
}

answer counts_of(const forwarding::entry_counts &counts)
{
    return document("mac-count", [&](json_writer &json) { write_mac_count(json, counts, false); });
}

answer count_domain(const call &asked)
{
    const forwarding::domain_view domain = domain_of(asked.key());
    asked.context.resyncs.resync_domain(domain.name);
    const auto counts = forwarding::count_domain(domain.bridge_id);
    if (!counts) {
        throw no_domain(domain.name);
    }
    return counts_of(*counts);
}

answer count_port(const call &asked)
{
    const forwarding::port_view port = port_of(asked.key());
    asked.context.resyncs.resync_port(port.xcid, port.domain);
    const auto counts = forwarding::count_port(port.xcid);
    if (!counts) {
        throw no_port(asked.key());
    }
    return counts_of(*counts);
}

answer get_health(const call &asked)
{
    return document("health", [&](json_writer &json) { write_health(json, asked.context.server()); });
}

answer get_metrics(const call &asked); // below, because it names all resources

// ---- The operation ----

constexpr const char *resync_input =
    R"({"l2fib-mac:input": {"domain": NAME or "port": XCID, "wait": SECONDS}}, each member optional, or no body)";

[[noreturn]] void refuse_input(const char *tag)
{
    throw api_error{http_status::bad_request, tag, std::string("body: expected ") + resync_input};
}

constexpr struct {
    const char *name;
    bool (nlohmann::json::*has_type)() const noexcept;
} resync_members[] = {
    {"domain", &nlohmann::json::is_string},
    {"port", &nlohmann::json::is_number_unsigned},
    {"wait", &nlohmann::json::is_number_unsigned},
};

bool is_resync_input(const nlohmann::json &members)
{
    size_t known = 0;
    for (const auto &row : resync_members) {
        if (members.contains(row.name)) {
            known += (members[row.name].*row.has_type)() ? 1u : 0u;
        }
    }
    return members.is_object() && known == members.size() && !(members.contains("domain") && members.contains("port"));
}

// The members of the input. A member that the client left out is null.
struct resync_request {
    nlohmann::json domain = nullptr;
    nlohmann::json port = nullptr;
    nlohmann::json wait = nullptr;
};

resync_request read_input(std::string_view body)
{
    const auto input = nlohmann::json::parse(body.empty() ? "{}" : body, nullptr, false);
    if (!input.is_object() || input.size() > 1) {
        refuse_input(error_tag::malformed_message);
    }
    const auto members = input.empty() ? nlohmann::json::object() : input.value("l2fib-mac:input", nlohmann::json());
    if (!is_resync_input(members)) {
        refuse_input(error_tag::invalid_value);
    }
    const auto member = [&](const char *name) { return members.value(name, nlohmann::json()); };
    return {member("domain"), member("port"), member("wait")};
}

forwarding::completeness current_worth()
{
    return forwarding::completeness_watch().worst();
}

// Waits until a full dump has proven a degraded plane's table, at most `max_wait`.
void wait_for_proof(const api_context &context, std::chrono::seconds max_wait)
{
    using clock = std::chrono::steady_clock;
    constexpr auto poll_interval = std::chrono::milliseconds(20);
    forwarding::hasten_proof();
    for (const auto end = clock::now() + max_wait; current_worth() == forwarding::completeness::degraded;) {
        if (context.resyncs.is_given_up()) {
            throw daemon_ends("resync");
        }
        if (clock::now() >= end) {
            throw api_error{http_status::timed_out, error_tag::operation_failed,
                            "resync: changes of the forwarding plane were lost, and no full dump has proven the table "
                            "within "
                                + std::to_string(max_wait.count())
                                + " seconds: try again, or look at the overruns of the health resource"};
        }
        std::this_thread::sleep_for(poll_interval);
    }
}

void resync_scope(const resync_request &wanted, resync_requester &resyncs)
{
    if (wanted.domain.is_string()) {
        resyncs.resync_domain(domain_of(wanted.domain.get<std::string>()).name);
    } else if (wanted.port.is_number_unsigned()) {
        const forwarding::port_view port = port_of(std::to_string(wanted.port.get<uint64_t>()));
        resyncs.resync_port(port.xcid, port.domain);
    } else {
        resyncs.resync_all();
    }
}

answer resync(const call &asked)
{
    const resync_request wanted = read_input(asked.sent.body);
    const uint64_t max_wait = forwarding::wait_seconds();
    const uint64_t wait = wanted.wait.is_null() ? max_wait : std::min(max_wait, wanted.wait.get<uint64_t>());
    resync_scope(wanted, asked.context.resyncs);
    if (current_worth() == forwarding::completeness::degraded) {
        wait_for_proof(asked.context, std::chrono::seconds(wait));
        resync_scope(wanted, asked.context.resyncs);
    }
    return {.status = http_status::no_content, .worth = current_worth()};
}

// ---- Routing ----

// The groups of parameters that a resource may have, as bits.
enum parameter_group : uint8_t {
    none = 0,
    paging = 1, // limit and cursor
    flagged = 2,
    address = 4,   // mac
    aging = 8,     // sort
    sorting = 16,  // sort, reverse and with-since
    grouping = 32, // by
    window = 64,   // of time
};

struct parameter_kind {
    std::string_view name;
    unsigned groups; // parameter_group bits of which a resource has one
};

constexpr parameter_kind parameter_kinds[] = {
    {"limit", paging},  {"cursor", paging},        {"by", grouping},     {"flagged", flagged},
    {"mac", address},   {"sort", aging | sorting}, {"reverse", sorting}, {"with-since", aging | sorting},
    {"window", window},
};

constexpr unsigned parameters_of_entries = paging | flagged | sorting;

struct resource {
    std::string_view pattern; // behind "/restconf/", or the whole path; '*' stands for a key
    answer (*serve)(const call &asked);
    unsigned parameters = none; // parameter_group bits
    unsigned filters = 0;       // filter_kind bits
    bool is_operation = false;
};

constexpr resource resources[] = {
    {"data/l2fib-mac:mac-table/mac-entry", list_table, parameters_of_entries | address, filters_of_entries},
    {"data/l2fib-mac:mac-aging/mac-entry", list_by_age, paging | aging, filters_of_entries},
    {"data/l2fib-mac:domains/domain", list_domains, paging, filters_of_domains},
    {"data/l2fib-mac:domains/domain=*", get_domain},
    {"data/l2fib-mac:domains/domain=*/mac-entry", list_domain_entries, parameters_of_entries | address,
     filters_of_entries},
    {"data/l2fib-mac:domains/domain=*/mac-entry=*", get_entry},
    {"data/l2fib-mac:domains/domain=*/mac-count", count_domain},
    {"data/l2fib-mac:ports/port", list_ports, paging, filters_of_ports},
    {"data/l2fib-mac:ports/port=*", get_port},
    {"data/l2fib-mac:ports/port=*/mac-entry", list_port_entries, parameters_of_entries, filters_of_entries},
    {"data/l2fib-mac:ports/port=*/mac-count", count_port},
    {"data/l2fib-mac:mac-count", count_all},
    {"data/l2fib-mac:mac-counts/mac-count", list_counts, paging | grouping, filters_of_entries},
    {"data/l2fib-mac:vteps/vtep", list_vteps, paging, filters_of_vteps},
    {"data/l2fib-mac:tunnel-entries/tunnel-entry", list_tunnel_entries, paging, filters_of_tunnel_entries},
    {"data/l2fib-mac:moves/move", list_moves, paging | address, filters_of_moves},
    {"data/l2fib-mac:flaps/flap", list_flaps, paging | address | window, filters_of_flaps},
    {"data/l2fib-mac:health", get_health},
    {"data/l2fib-mac:traces/trace", list_traces, paging},
    {"operations/l2fib-mac:resync", resync, none, 0, true},
    {events_path, watch_events, address, filters_of_events},
    {metrics_path, get_metrics},
};
static_assert(std::size(resources) <= max_resources);

// The pattern in the form of shape_of.
std::string whole_pattern(const resource &of)
{
    const bool is_whole = of.pattern.starts_with('/');
    return std::string(is_whole ? "" : "restconf/").append(of.pattern.substr(is_whole ? 1 : 0));
}

const resource &find_resource(const target &to)
{
    const std::string shape = shape_of(to);
    for (const resource &candidate : resources) {
        if (shape == whole_pattern(candidate)) {
            return candidate;
        }
    }
    throw api_error{http_status::not_found, error_tag::unknown_element,
                    "\"" + shape
                        + "\": there is no such resource; expected one such as restconf/data/l2fib-mac:health"};
}

void check_method(const resource &found, std::string_view method)
{
    if (found.is_operation ? method == operation_method : is_read_method(method)) {
        return;
    }
    std::string allowed(found.is_operation ? operation_method : "GET, HEAD");
    throw api_error{http_status::method_not_allowed, error_tag::operation_not_supported,
                    "method " + std::string(method) + ": expected " + allowed, allowed};
}

// Resources that nobody has asked for are shown too, so that a rate over their first request is right.
answer get_metrics(const call &asked)
{
    metric_figures figures = read_figures();
    figures.server = asked.context.server();
    figures.resyncs = asked.context.resyncs.durations();
    figures.last_resync = asked.context.resyncs.last_resync();
    for (size_t at = 0; at < std::size(resources); at++) {
        figures.requests.push_back(
            {std::string("/").append(whole_pattern(resources[at])), asked.context.durations[at].read()});
    }
    figures.requests.push_back({"none", asked.context.durations[no_resource].read()});
    const exposition_format format = format_of(asked.sent.accept);
    return {
        .body = metrics_text(figures, format), .worth = figures.health.state, .content_type = content_type_of(format)};
}

std::string names_of_parameters(const resource &found)
{
    std::string names;
    for (const parameter_kind &kind : parameter_kinds) {
        if ((found.parameters & kind.groups) != 0) {
            names += (names.empty() ? "" : ", ") + std::string(kind.name);
        }
    }
    for (const std::string &name : names_of_filters(found.filters)) {
        names.append(", ").append(name).append(", not-").append(name);
    }
    return names.empty() ? "none" : "one of " + names;
}

bool has_parameter(const resource &of, std::string_view name)
{
    const auto *kind = std::ranges::find(parameter_kinds, name, &parameter_kind::name);
    return (kind != std::end(parameter_kinds) && (of.parameters & kind->groups) != 0) || is_filter(name, of.filters);
}

// Throws unless each parameter is one of the resource and is not given too often.
void check_parameters(const resource &found, const target &to)
{
    for (const target::parameter &given : to.parameters) {
        if (!has_parameter(found, given.name)) {
            throw invalid("parameter \"" + given.name + "\": expected " + names_of_parameters(found));
        }
        const auto times = static_cast<size_t>(std::ranges::count(to.parameters, given.name, &target::parameter::name));
        if (const size_t allowed = max_repetitions(given.name); times > allowed) {
            std::string message = "parameter \"";
            message.append(given.name).append("\": expected ");
            message += allowed == 1 ? "once" : "at most " + std::to_string(allowed) + " times";
            throw invalid(message + ", given " + (allowed == 1 ? "more than once" : std::to_string(times) + " times"));
        }
    }
}

} // namespace

bool is_read_method(std::string_view method)
{
    return method == "GET" || method == "HEAD";
}

bool is_stream_request(std::string_view uri)
{
    return uri.substr(0, uri.find('?')) == events_path;
}

answer answer_request(const request &asked, const api_context &context)
{
    const target to = parse_target(asked.uri);
    const resource &found = find_resource(to);
    if (asked.resource != nullptr) {
        *asked.resource = static_cast<size_t>(&found - resources);
    }
    check_method(found, asked.method);
    check_parameters(found, to);
    return found.serve({to, asked, context});
}

} // namespace l2fibd
