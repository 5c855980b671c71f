// SPDX-License-Identifier: Apache-2.0

#include "daemon/api/resources.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <exception>
#include <thread>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "base/text.h"
#include "daemon/api/database.h"
#include "daemon/api/health.h"
#include "daemon/api/records.h"
#include "daemon/api/sources.h"
#include "daemon/http/target.h"
#include "forwarding/feeder/reading.h"
#include "forwarding/forwarding.h"

namespace l2fibd {

namespace {

constexpr uint64_t most_items = 1'000'000;

// ---- What a request names ----

struct call {
    const target &to;
    std::string_view body;

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

api_error no_domain(const std::string &name)
{
    return not_found("domain \"" + name + "\": there is no such bridge domain");
}

api_error no_port(const std::string &xcid)
{
    return not_found("port \"" + xcid + "\": there is no such bridge port");
}

// What a request names, copied from all views of one kind; null: there is none such.
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
        throw unexpected("port", xcid, "an xcid, a number from 0 to 4294967295");
    }
    const auto found = find_view<&forwarding::object_views::ports, &forwarding::port_view::xcid>(*number);
    if (!found) {
        throw no_port(xcid);
    }
    return *found;
}

forwarding::mac_address mac_of(const std::string &what, const std::string &text)
{
    const auto address = base::parse_mac(text);
    if (!address) {
        throw unexpected(what, text, "a MAC address as 02:00:00:00:00:01 or 0200.0000.0001");
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
    const auto limit = base::parse_number(*text, most_items);
    if (!limit || *limit == 0) {
        throw unexpected("limit", *text, "a number from 1 to " + std::to_string(most_items));
    }
    return *limit;
}

std::optional<std::string> start_of(const call &asked)
{
    const std::string *text = asked.parameter("cursor");
    return text != nullptr ? std::optional(key_of_continuation(*text)) : std::nullopt;
}

answer stream(std::string_view name, std::unique_ptr<list_source> source, uint64_t limit)
{
    answer result;
    auto rest = std::make_unique<list_stream>(name, std::move(source), limit);
    rest->write_next(result.body);
    result.worth = rest->worst();
    if (!rest->finished()) {
        result.rest = std::move(rest);
    }
    return result;
}

answer stream(const call &asked, std::string_view name, std::unique_ptr<list_source> source)
{
    return stream(name, std::move(source), limit_of(asked));
}

bool is_flagged(const call &asked)
{
    const std::string *text = asked.parameter("flagged");
    if (text != nullptr && *text != "true" && *text != "false") {
        throw unexpected("flagged", *text, "true or false");
    }
    return text != nullptr && *text == "true";
}

// What a list of a domain or of the whole table takes for flagged; a port's takes more.
constexpr uint16_t flagged_in_domain = EDM_MAC_ON_DUMMY_PORT;
constexpr uint16_t flagged_on_port = EDM_MAC_ON_DUMMY_PORT | 0xc000;

std::optional<std::array<uint8_t, 4>> vtep_of(const call &asked)
{
    const std::string *text = asked.parameter("vtep");
    if (text == nullptr) {
        return std::nullopt;
    }
    const auto address = base::parse_ipv4(*text);
    if (!address) {
        throw unexpected("vtep", *text, "an IPv4 address as 192.0.2.1");
    }
    return address;
}

// The MAC entries of a domain, or of all of them when the filter names none. Only a list's beginning is brought up to
// date: a continuation belongs to it.
answer list_entries(const call &asked, forwarding::row_filter filter, void (*resync)(const call &asked))
{
    filter.vtep = vtep_of(asked);
    filter.flags = is_flagged(asked) ? flagged_in_domain : uint16_t{0};
    const std::optional<std::string> start = start_of(asked);
    const std::string *text = asked.parameter("mac");
    const auto mac = text != nullptr ? std::optional(mac_of("mac", *text)) : std::nullopt;
    const uint64_t limit = limit_of(asked);
    if (!start) {
        resync(asked);
    }
    return stream("mac-entry", mac ? make_address_source(*mac, filter, start) : make_table_source(filter, start),
                  limit);
}

answer list_table(const call &asked)
{
    return list_entries(asked, {}, [](const call &) { resync_all(); });
}

answer list_domain_entries(const call &asked)
{
    return list_entries(asked, {.bridge_id = domain_of(asked.key()).bridge_id},
                        [](const call &of) { resync_domain(of.key()); });
}

answer list_port_entries(const call &asked)
{
    const forwarding::port_view port = port_of(asked.key());
    const std::optional<std::string> start = start_of(asked);
    const uint16_t flags = is_flagged(asked) ? flagged_on_port : uint16_t{0};
    const uint64_t limit = limit_of(asked);
    if (!start) {
        resync_port(port.xcid, port.domain);
    }
    return stream("mac-entry",
                  make_table_source({.bridge_id = port.bridge_id, .xcid = port.xcid, .flags = flags}, start), limit);
}

struct order_name {
    std::string_view name;
    forwarding::row_order order;
};

constexpr order_name orders[] = {
    {"last-seen", forwarding::row_order::last_seen},
    {"created", forwarding::row_order::created},
};

forwarding::row_order order_of(const call &asked)
{
    const std::string *text = asked.parameter("sort");
    const auto *found = std::ranges::find(orders, text != nullptr ? *text : "last-seen", &order_name::name);
    if (found == std::end(orders)) {
        throw unexpected("sort", *text, "last-seen or created");
    }
    return found->order;
}

answer list_by_age(const call &asked)
{
    const forwarding::row_order order = order_of(asked);
    const std::optional<std::string> start = start_of(asked);
    const uint64_t limit = limit_of(asked);
    if (!start) {
        resync_all();
    }
    return stream("mac-entry", make_ordered_source(order, start, limit), limit);
}

answer list_vteps(const call &asked)
{
    const std::optional<std::string> start = start_of(asked);
    if (!start) {
        resync_all();
    }
    return stream(asked, "vtep", make_vtep_source(start));
}

answer list_domains(const call &asked)
{
    return stream(asked, "domain", make_domain_source(start_of(asked)));
}

answer list_ports(const call &asked)
{
    return stream(asked, "port", make_port_source(start_of(asked)));
}

answer list_tunnel_entries(const call &asked)
{
    return stream(asked, "tunnel-entry", make_tunnel_entry_source(start_of(asked)));
}

answer list_traces(const call &asked)
{
    return stream(asked, "trace", make_trace_source(start_of(asked)));
}

// ---- Single resources ----

// The whole body, around what `write` puts into it.
template <typename Write>
answer document(std::string_view name, Write write)
{
    answer result;
    const forwarding::completeness_watch watch;
    json_writer json(result.body);
    json.begin_object();
    json.name(std::string("l2fib-mac:").append(name));
    write(json);
    write_completeness(json, watch);
    json.end_object();
    result.worth = watch.worst();
    return result;
}

template <typename Write>
answer single_entry(std::string_view name, Write write)
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
    resync_domain(domain.name);
    return single_entry("mac-entry", [&](json_writer &json) {
        const forwarding::row_page found = forwarding::find_rows(mac, domain.bridge_id);
        if (found.rows.empty()) {
            throw not_found("mac-entry \"" + base::mac_text(mac) + "\": the bridge domain \"" + domain.name
                            + "\" has no such entry");
        }
        for (const forwarding::mac_row &row : found.rows) { // the zero address stands on each tunnel of the domain
            write_row(json, row, false);
        }
    });
}

answer get_domain(const call &asked)
{
    const forwarding::domain_view domain = domain_of(asked.key());
    return single_entry("domain", [&](json_writer &json) { write_domain(json, domain); });
}

answer get_port(const call &asked)
{
    const forwarding::port_view port = port_of(asked.key());
    return single_entry("port", [&](json_writer &json) { write_port(json, port); });
}

answer count_all(const call & /*asked*/)
{
    resync_all();
    return document("mac-count", [](json_writer &json) { write_mac_count(json, forwarding::count_all(), true); });
}

answer document_of(const forwarding::entry_counts &counts)
{
    return document("mac-count", [&](json_writer &json) { write_mac_count(json, counts, false); });
}

answer count_domain(const call &asked)
{
    const forwarding::domain_view domain = domain_of(asked.key());
    resync_domain(domain.name);
    const auto counts = forwarding::count_domain(domain.bridge_id);
    if (!counts) {
        throw no_domain(domain.name);
    }
    return document_of(*counts);
}

answer count_port(const call &asked)
{
    const forwarding::port_view port = port_of(asked.key());
    resync_port(port.xcid, port.domain);
    const auto counts = forwarding::count_port(port.xcid);
    if (!counts) {
        throw no_port(asked.key());
    }
    return document_of(*counts);
}

answer get_health(const call & /*asked*/)
{
    return document("health", write_health);
}

// ---- The operation ----

constexpr const char *resync_input =
    R"({"l2fib-mac:input": {"domain": NAME or "port": XCID, "wait": SECONDS}}, each of them optional, or nothing)";

[[noreturn]] void refuse_input(const char *tag)
{
    throw api_error{400, tag, std::string("body: expected ") + resync_input};
}

// The input's members; null members were not given.
struct resync_request {
    nlohmann::json domain = nullptr;
    nlohmann::json port = nullptr;
    nlohmann::json wait = nullptr;
};

resync_request read_input(std::string_view body)
{
    const auto input = nlohmann::json::parse(body.empty() ? "{}" : body, nullptr, false);
    if (!input.is_object() || input.size() > 1) {
        refuse_input("malformed-message");
    }
    const auto members = input.empty() ? nlohmann::json::object() : input.value("l2fib-mac:input", nlohmann::json());
    const auto member = [&](const char *name) { return members.value(name, nlohmann::json()); };
    const size_t known =
        !members.is_object() ? 0 : members.count("domain") + members.count("port") + members.count("wait");
    if (!members.is_object() || known != members.size() || (members.contains("domain") && members.contains("port"))) {
        refuse_input("invalid-value");
    }
    resync_request read{member("domain"), member("port"), member("wait")};
    if ((members.contains("domain") && !read.domain.is_string())
        || (members.contains("port") && !read.port.is_number_unsigned())
        || (members.contains("wait") && !read.wait.is_number_unsigned())) {
        refuse_input("invalid-value");
    }
    return read;
}

// Waits until the copy of a degraded plane has been proven.
void wait_for_proof(std::chrono::seconds most)
{
    using clock = std::chrono::steady_clock;
    constexpr auto look_again = std::chrono::milliseconds(20);
    const auto state = [] { return forwarding::completeness_watch().worst(); };
    forwarding::hasten_proof();
    for (const auto end = clock::now() + most; state() == forwarding::completeness::degraded;) {
        if (requests_given_up()) {
            throw api_error{503, "operation-failed", "the daemon ends"};
        }
        if (clock::now() >= end) {
            throw api_error{504, "operation-failed",
                            "resync: changes of the forwarding plane were lost, and the full dump that mends the table "
                            "has not ended within "
                                + std::to_string(most.count())
                                + " seconds: try again, or look at the overruns of the health resource"};
        }
        std::this_thread::sleep_for(look_again);
    }
}

answer resync(const call &asked)
{
    const resync_request wanted = read_input(asked.body);
    const uint64_t most_wait = forwarding::wait_seconds();
    const uint64_t wait = wanted.wait.is_null() ? most_wait : std::min(most_wait, wanted.wait.get<uint64_t>());
    const auto bring_up_to_date = [&] {
        if (wanted.domain.is_string()) {
            resync_domain(domain_of(wanted.domain.get<std::string>()).name);
        } else if (wanted.port.is_number_unsigned()) {
            const forwarding::port_view port = port_of(std::to_string(wanted.port.get<uint64_t>()));
            resync_port(port.xcid, port.domain);
        } else {
            resync_all();
        }
    };
    bring_up_to_date();
    if (forwarding::completeness_watch().worst() == forwarding::completeness::degraded) {
        wait_for_proof(std::chrono::seconds(wait));
        bring_up_to_date();
    }
    return {.status = 204, .body = {}, .rest = nullptr, .worth = forwarding::completeness_watch().worst()};
}

// ---- Routing ----

enum parameter_set : uint8_t {
    none = 0,
    paging = 1, // limit and cursor
    flagged = 2,
    filters = 4, // mac and vtep
    sorting = 8,
};

struct parameter_kind {
    std::string_view name;
    parameter_set of;
};

constexpr parameter_kind parameter_kinds[] = {
    {"limit", paging}, {"cursor", paging}, {"flagged", flagged}, {"mac", filters}, {"vtep", filters}, {"sort", sorting},
};

struct resource {
    std::string_view pattern; // '*' stands for a key
    answer (*serve)(const call &asked);
    unsigned parameters = none; // parameter_set bits
    bool is_operation = false;
};

constexpr resource resources[] = {
    {"data/l2fib-mac:mac-table/mac-entry", list_table, paging | flagged | filters},
    {"data/l2fib-mac:mac-aging/mac-entry", list_by_age, paging | sorting},
    {"data/l2fib-mac:domains/domain", list_domains, paging},
    {"data/l2fib-mac:domains/domain=*", get_domain},
    {"data/l2fib-mac:domains/domain=*/mac-entry", list_domain_entries, paging | flagged | filters},
    {"data/l2fib-mac:domains/domain=*/mac-entry=*", get_entry},
    {"data/l2fib-mac:domains/domain=*/mac-count", count_domain},
    {"data/l2fib-mac:ports/port", list_ports, paging},
    {"data/l2fib-mac:ports/port=*", get_port},
    {"data/l2fib-mac:ports/port=*/mac-entry", list_port_entries, paging | flagged},
    {"data/l2fib-mac:ports/port=*/mac-count", count_port},
    {"data/l2fib-mac:mac-count", count_all},
    {"data/l2fib-mac:vteps/vtep", list_vteps, paging},
    {"data/l2fib-mac:tunnel-entries/tunnel-entry", list_tunnel_entries, paging},
    {"data/l2fib-mac:health", get_health},
    {"data/l2fib-mac:traces/trace", list_traces, paging},
    {"operations/l2fib-mac:resync", resync, none, true},
};

const resource &find_resource(const target &to)
{
    const std::string shape = shape_of(to);
    for (const resource &candidate : resources) {
        if (shape == std::string("restconf/").append(candidate.pattern)) {
            return candidate;
        }
    }
    throw api_error{404, "unknown-element", "\"" + shape + "\": there is no such resource"};
}

void check_method(const resource &found, std::string_view method)
{
    const char *allowed = found.is_operation ? "POST" : "GET, HEAD";
    const bool reads = method == "GET" || method == "HEAD";
    if (found.is_operation ? method != "POST" : !reads) {
        throw api_error{405, "operation-not-supported", "method " + std::string(method) + ": expected " + allowed,
                        allowed};
    }
}

// Each parameter is one that the resource has, and given once.
void check_parameters(const resource &found, const target &to)
{
    std::string expected;
    for (const parameter_kind &kind : parameter_kinds) {
        if ((found.parameters & kind.of) != 0) {
            expected += (expected.empty() ? "" : ", ") + std::string(kind.name);
        }
    }
    for (const target::parameter &given : to.parameters) {
        const auto *kind = std::ranges::find(parameter_kinds, given.name, &parameter_kind::name);
        if (kind == std::end(parameter_kinds) || (found.parameters & kind->of) == 0) {
            throw invalid("parameter \"" + given.name + "\": expected "
                          + (expected.empty() ? "none" : "one of " + expected));
        }
        if (std::ranges::count(to.parameters, given.name, &target::parameter::name) > 1) {
            throw invalid("parameter \"" + given.name + "\": given more than once");
        }
    }
}

} // namespace

answer answer_request(const request &asked)
{
    const target to = parse_target(asked.uri);
    const resource &found = find_resource(to);
    check_method(found, asked.method);
    check_parameters(found, to);
    return found.serve({to, asked.body});
}

void write_errors(json_writer &json, const api_error &error)
{
    json.begin_object("ietf-restconf:errors");
    json.begin_array("error");
    json.begin_object();
    json.member("error-type", error.status < 500 ? "protocol" : "application");
    json.member("error-tag", error.tag);
    json.member("error-message", error.message);
    json.end_object();
    json.end_array();
    json.end_object();
}

std::string error_body(const api_error &error)
{
    std::string body;
    json_writer json(body);
    json.begin_object();
    write_errors(json, error);
    write_completeness(json, forwarding::completeness_watch());
    json.end_object();
    return body;
}

} // namespace l2fibd
