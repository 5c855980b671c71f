#include "daemon/resources.h"

#include <algorithm>
#include <cctype>
#include <exception>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "daemon/database.h"
#include "daemon/health.h"
#include "daemon/records.h"
#include "daemon/sources.h"
#include "daemon/target.h"
#include "daemon/text.h"
#include "forwarding/forwarding.h"

namespace l2fibd {

namespace {

constexpr uint64_t most_items = 1'000'000;

// ---- What a request names ----

struct call {
    const target &to;
    std::string_view uri;
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

forwarding::domain_view domain_of(const std::string &name)
{
    const auto domains = forwarding::domains();
    const auto found = std::ranges::find(domains, name, &forwarding::domain_view::name);
    if (found == domains.end()) {
        throw no_domain(name);
    }
    return *found;
}

forwarding::port_view port_of(const std::string &xcid)
{
    const auto number = parse_number(xcid, UINT32_MAX);
    if (!number) {
        throw unexpected("port", xcid, "an xcid, a number from 0 to 4294967295");
    }
    const auto ports = forwarding::ports();
    const auto found = std::ranges::find(ports, *number, &forwarding::port_view::xcid);
    if (found == ports.end()) {
        throw no_port(xcid);
    }
    return *found;
}

std::string mac_of(const std::string &what, const std::string &text)
{
    const auto address = parse_mac(text);
    if (!address) {
        throw unexpected(what, text, "a MAC address as 02:00:00:00:00:01 or 0200.0000.0001");
    }
    return mac_text(*address);
}

// ---- Lists ----

uint64_t limit_of(const call &asked)
{
    const std::string *text = asked.parameter("limit");
    if (text == nullptr) {
        return list_stream::no_limit;
    }
    const auto limit = parse_number(*text, most_items);
    if (!limit || *limit == 0) {
        throw unexpected("limit", *text, "a number from 1 to " + std::to_string(most_items));
    }
    return *limit;
}

std::optional<std::string> start_of(const call &asked)
{
    const std::string *text = asked.parameter("cursor");
    if (text == nullptr) {
        return std::nullopt;
    }
    auto key = base64url_decode(*text);
    if (!key || key->empty() || key->find('\0') != std::string::npos) {
        throw unexpected("cursor", *text, "a next-cursor of this list");
    }
    return key;
}

// The request without its cursor.
std::string restart_of(const call &asked)
{
    std::string uri(asked.uri.substr(0, asked.uri.find('?')));
    char separator = '?';
    for (const target::parameter &parameter : asked.to.parameters) {
        if (parameter.name != "cursor") {
            uri += separator;
            uri += parameter.name + "=" + percent_encode(parameter.value);
            separator = '&';
        }
    }
    return uri;
}

answer stream(std::string_view name, std::unique_ptr<list_source> source, uint64_t limit)
{
    answer result;
    auto rest = std::make_unique<list_stream>(name, std::move(source), limit);
    rest->write_next(result.body);
    if (!rest->finished()) {
        result.rest = std::move(rest);
    }
    return result;
}

answer stream(const call &asked, std::string_view name, std::unique_ptr<list_source> source)
{
    return stream(name, std::move(source), limit_of(asked));
}

std::unique_ptr<list_source> source_in_database(const call &asked, database_list list)
{
    list.cursor = start_of(asked);
    list.restart = restart_of(asked);
    return make_database_source(std::move(list));
}

answer stream_from_database(const call &asked, std::string_view name, database_list list)
{
    return stream(asked, name, source_in_database(asked, std::move(list)));
}

bool is_flagged(const call &asked)
{
    const std::string *text = asked.parameter("flagged");
    if (text != nullptr && *text != "true" && *text != "false") {
        throw unexpected("flagged", *text, "true or false");
    }
    return text != nullptr && *text == "true";
}

// The MAC entries of a domain, or of all of them when its name is empty.
answer list_entries(const call &asked, const std::string &domain)
{
    std::string path = "mac-table";
    std::string mac;
    if (const std::string *vtep = asked.parameter("vtep")) {
        if (!is_ipv4(*vtep)) {
            throw unexpected("vtep", *vtep, "an IPv4 address as 192.0.2.1");
        }
        path += "/vtep/" + *vtep;
    }
    if (!domain.empty()) {
        path += "/domain/" + percent_encode(domain);
    }
    if (const std::string *text = asked.parameter("mac")) {
        mac = mac_of("mac", *text);
        path += "/mac/" + mac;
    }
    path += is_flagged(asked) ? "/flagged" : "";
    return stream_from_database(asked, "mac-entry", {.path = path, .domain = domain, .mac = mac});
}

answer list_table(const call &asked)
{
    return list_entries(asked, {});
}

answer list_domain_entries(const call &asked)
{
    return list_entries(asked, domain_of(asked.key()).name);
}

answer list_port_entries(const call &asked)
{
    const forwarding::port_view port = port_of(asked.key());
    const std::string path = port_path(port.xcid, port.domain) + (is_flagged(asked) ? "/flagged" : "");
    return stream_from_database(asked, "mac-entry",
                                {.path = path, .order = list_order::by_port, .domain = port.domain});
}

// New entries come behind all others, so that an answer might never end while more of them come than are told. It ends,
// therefore, after as many as there are now; the page more is for what the counts leave out.
answer list_by_age(const call &asked)
{
    const host::operational_page counts = get_record("mac-count", not_found("mac-aging: the table has no counts"));
    const uint64_t limit = std::min(limit_of(asked), entries_counted(counts.items[0].data) + page_items);
    return stream("mac-entry", source_in_database(asked, {.path = "mac-aging", .order = list_order::by_age}), limit);
}

answer list_vteps(const call &asked)
{
    return stream_from_database(asked, "vtep", {.path = "mac-vtep", .order = list_order::by_vtep});
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
    json_writer json(result.body);
    json.begin_object();
    json.name(std::string("l2fib-mac:").append(name));
    write(json);
    json.end_object();
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
    const std::string mac = mac_of("mac-entry", asked.key());
    const std::string domain = domain_of(*asked.to.path[asked.to.path.size() - 2].key).name;
    const auto missing = not_found("mac-entry \"" + mac + "\": the bridge domain \"" + domain + "\" has no such entry");
    const host::operational_page page = get_record(domain_path(domain) + "/mac/" + mac, missing);
    return single_entry("mac-entry", [&](json_writer &json) {
        port_names names;
        write_mac_entry(json, page.items[0].data, mac, names);
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

answer count_at(const std::string &path, const api_error &missing, bool of_all)
{
    const host::operational_page page = get_record(path, missing);
    return document("mac-count", [&](json_writer &json) { write_mac_count(json, page.items[0].data, of_all); });
}

answer count_all(const call & /*asked*/)
{
    return count_at("mac-count", not_found("mac-count: the table has no counts"), true);
}

// The counts of a domain and a port come without a resynchronisation of their own.
answer count_domain(const call &asked)
{
    const std::string domain = domain_of(asked.key()).name;
    resync_domain(domain);
    return count_at("mac-count/domain/" + percent_encode(domain), no_domain(domain), false);
}

answer count_port(const call &asked)
{
    const forwarding::port_view port = port_of(asked.key());
    resync_port(port.xcid, port.domain);
    return count_at("mac-count/port/" + std::to_string(port.xcid), no_port(asked.key()), false);
}

answer get_health(const call & /*asked*/)
{
    return document("health", write_health);
}

// ---- The operation ----

constexpr const char *resync_input =
    R"({"l2fib-mac:input": {"domain": NAME}}, {"l2fib-mac:input": {"port": XCID}} or nothing)";

// The input's only member; null when there is none.
nlohmann::json read_input(std::string_view body)
{
    const auto input = nlohmann::json::parse(body.empty() ? "{}" : body, nullptr, false);
    if (!input.is_object() || input.size() > 1) {
        throw api_error{400, "malformed-message", std::string("body: expected ") + resync_input};
    }
    return input.empty() ? nlohmann::json::object() : input.value("l2fib-mac:input", nlohmann::json());
}

answer resync(const call &asked)
{
    const nlohmann::json input = read_input(asked.body);
    if (input.is_object() && input.empty()) {
        resync_all();
    } else if (input.is_object() && input.size() == 1 && input.contains("domain") && input["domain"].is_string()) {
        resync_domain(domain_of(input["domain"].get<std::string>()).name);
    } else if (input.is_object() && input.size() == 1 && input.contains("port") && input["port"].is_number_unsigned()) {
        const forwarding::port_view port = port_of(std::to_string(input["port"].get<uint64_t>()));
        resync_port(port.xcid, port.domain);
    } else {
        throw invalid(std::string("body: expected ") + resync_input);
    }
    return {.status = 204, .body = {}, .rest = nullptr};
}

// ---- Routing ----

enum parameter_set : uint8_t {
    none = 0,
    paging = 1, // limit and cursor
    flagged = 2,
    filters = 4, // mac and vtep
};

struct parameter_kind {
    std::string_view name;
    parameter_set of;
};

constexpr parameter_kind parameter_kinds[] = {
    {"limit", paging}, {"cursor", paging}, {"flagged", flagged}, {"mac", filters}, {"vtep", filters},
};

struct resource {
    std::string_view pattern; // '*' stands for a key
    answer (*serve)(const call &asked);
    unsigned parameters = none; // parameter_set bits
    bool is_operation = false;
};

constexpr resource resources[] = {
    {"data/l2fib-mac:mac-table/mac-entry", list_table, paging | flagged | filters},
    {"data/l2fib-mac:mac-aging/mac-entry", list_by_age, paging},
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
        throw api_error{
            405, "operation-not-supported", "method " + std::string(method) + ": expected " + allowed, {}, allowed};
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
    return found.serve({to, asked.uri, asked.body});
}

std::string error_body(const api_error &error)
{
    std::string body;
    json_writer json(body);
    json.begin_object();
    json.begin_object("ietf-restconf:errors");
    json.begin_array("error");
    json.begin_object();
    json.member("error-type", error.status < 500 && error.status != 410 ? "protocol" : "application");
    json.member("error-tag", error.tag);
    json.member("error-message", error.message);
    if (!error.restart.empty()) {
        json.begin_object("error-info");
        json.member("l2fib-mac:restart", error.restart);
        json.end_object();
    }
    json.end_object();
    json.end_array();
    json.end_object();
    json.end_object();
    return body;
}

} // namespace l2fibd
