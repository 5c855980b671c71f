// SPDX-License-Identifier: Apache-2.0

#include "host/database/operational_paths.h"

#include <algorithm>
#include <arpa/inet.h>
#include <bit>
#include <cerrno>
#include <charconv>
#include <optional>
#include <span>
#include <vector>

namespace host {

using list_caller = uint32_t (*)(const l2fib_hw_edm_handler_table_t &, const operational_keys &, edm_list_req_t *,
                                 optree_list_t **);
using get_caller = uint32_t (*)(const l2fib_hw_edm_handler_table_t &, const operational_keys &, edm_get_rsp_t *);

// What an object answers for one kind of request and a set of keys.
struct operational_route {
    std::string_view object;
    request_kind kind;
    uint32_t required; // keys, one bit each
    uint32_t optional;
    uint32_t action; // slot of the action table
    list_caller list;
    get_caller get;
};

} // namespace host

namespace {

using host::operational_keys;
using host::operational_path;
using host::operational_route;
using host::request_kind;

// ---- Values ----

bool parse_number(std::string_view value, uint32_t &number)
{
    const bool is_hex = value.starts_with("0x") || value.starts_with("0X");
    const std::string_view digits = is_hex ? value.substr(2) : value;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number, is_hex ? 16 : 10);
    return error == std::errc() && end == digits.data() + digits.size();
}

// An address in groups of `group` hexadecimal digits, with `separator` between them.
bool parse_mac_groups(std::string_view value, size_t group, char separator, std::array<uint8_t, 6> &mac_addr)
{
    const size_t groups = 2 * mac_addr.size() / group;
    if (value.size() != groups * (group + 1) - 1) {
        return false;
    }
    size_t digits = 0;
    for (size_t i = 0; i < value.size(); i++) {
        if (i % (group + 1) == group) {
            if (value[i] != separator) {
                return false;
            }
            continue;
        }
        uint8_t digit = 0;
        if (std::from_chars(&value[i], &value[i] + 1, digit, 16).ec != std::errc()) {
            return false;
        }
        uint8_t &byte = mac_addr[digits++ / 2];
        byte = static_cast<uint8_t>(byte << 4 | digit);
    }
    return true;
}

bool parse_mac(std::string_view value, operational_keys &keys)
{
    return parse_mac_groups(value, 2, ':', keys.mac_addr) || parse_mac_groups(value, 4, '.', keys.mac_addr);
}

bool parse_domain(std::string_view value, operational_keys &keys)
{
    if (value.size() >= keys.domain.size()) {
        return false;
    }
    std::copy(value.begin(), value.end(), keys.domain.begin());
    return true;
}

bool parse_vtep(std::string_view value, operational_keys &keys)
{
    return inet_pton(AF_INET, std::string(value).c_str(), &keys.vtep_addr) == 1;
}

template <uint32_t operational_keys::*Number>
bool parse_number_key(std::string_view value, operational_keys &keys)
{
    return parse_number(value, keys.*Number);
}

// ---- Keys ----

struct key_form {
    std::string_view name;
    bool (*parse)(std::string_view value, operational_keys &keys); // null for a flag
    std::string_view expected;
};

constexpr std::string_view number_expected = "a number from 0 to 4294967295, decimal or 0x and hexadecimal";

// A key's place in the table is its bit.
constexpr key_form key_forms[] = {
    {"domain", parse_domain, "a bridge domain's full name of 1 to 63 characters"},
    {"port", parse_number_key<&operational_keys::xcid>, number_expected},
    {"mac", parse_mac, "a MAC address as aa:bb:cc:dd:ee:ff or aabb.ccdd.eeff"},
    {"vtep", parse_vtep, "an IPv4 address as 192.0.2.1"},
    {"seg-info2", parse_number_key<&operational_keys::seg_info2>, number_expected},
    {"seg-info1", parse_number_key<&operational_keys::seg_info1>, number_expected},
    {"flagged", nullptr, {}},
    {"resync-all", nullptr, {}},
};

consteval uint32_t key(std::string_view name)
{
    for (size_t i = 0; i < std::size(key_forms); i++) {
        if (key_forms[i].name == name) {
            return uint32_t{1} << i;
        }
    }
    throw "no such key";
}

constexpr uint32_t domain = key("domain");
constexpr uint32_t port = key("port");
constexpr uint32_t mac = key("mac");
constexpr uint32_t vtep = key("vtep");
constexpr uint32_t seg_info2 = key("seg-info2");
constexpr uint32_t seg_info1 = key("seg-info1");
constexpr uint32_t flagged = key("flagged");
constexpr uint32_t resync_all = key("resync-all");

// ---- Calls of the handlers ----

using handler_table = l2fib_hw_edm_handler_table_t;

template <typename Handler, typename... Arguments>
uint32_t call(Handler *handler, Arguments... arguments)
{
    return handler == nullptr ? ENOSYS : handler(arguments...);
}

uint32_t request_flags(const operational_keys &keys)
{
    return ((keys.given & flagged) != 0 ? EDM_REQ_ONLY_FLAGGED : 0)
           | ((keys.given & resync_all) != 0 ? EDM_REQ_RESYNC_ALL : 0);
}

const char *domain_of(const operational_keys &keys)
{
    return (keys.given & domain) != 0 ? keys.domain.data() : nullptr;
}

const uint8_t *mac_of(const operational_keys &keys)
{
    return (keys.given & mac) != 0 ? keys.mac_addr.data() : nullptr;
}

uint32_t filter_kind(const operational_keys &keys)
{
    return (keys.given & vtep) != 0 ? EDM_FILTER_VTEP : (keys.given & seg_info2) != 0 ? EDM_FILTER_PORT : 0;
}

template <edm_mac_list_fn handler_table::*Slot>
uint32_t call_mac_list(const handler_table &handlers, const operational_keys &keys, edm_list_req_t *request,
                       optree_list_t **list)
{
    const uint32_t kind = filter_kind(keys);
    const uint32_t value = kind == EDM_FILTER_VTEP ? keys.vtep_addr : keys.seg_info2;
    return call(handlers.*Slot, request_flags(keys), domain_of(keys), mac_of(keys), kind, value, request, list);
}

template <edm_bp_mac_list_fn handler_table::*Slot>
uint32_t call_bp_mac_list(const handler_table &handlers, const operational_keys &keys, edm_list_req_t *request,
                          optree_list_t **list)
{
    return call(handlers.*Slot, request_flags(keys), domain_of(keys), keys.xcid, request, list);
}

uint32_t call_mac_aging(const handler_table &handlers, const operational_keys &, edm_list_req_t *request,
                        optree_list_t **list)
{
    return call(handlers.mac_aging_datalist, request, list);
}

template <edm_vtep_list_fn handler_table::*Slot>
uint32_t call_vtep_list(const handler_table &handlers, const operational_keys &keys, edm_list_req_t *request,
                        optree_list_t **list)
{
    return call(handlers.*Slot, keys.seg_info2, keys.seg_info1, request, list);
}

uint32_t call_mac_get(const handler_table &handlers, const operational_keys &keys, edm_get_rsp_t *response)
{
    return call(handlers.mac_get, request_flags(keys), domain_of(keys), mac_of(keys), response);
}

uint32_t call_mac_count(const handler_table &handlers, const operational_keys &, edm_get_rsp_t *response)
{
    return call(handlers.mac_count, response);
}

uint32_t call_bd_mac_count(const handler_table &handlers, const operational_keys &keys, edm_get_rsp_t *response)
{
    return call(handlers.bd_mac_count, domain_of(keys), response);
}

uint32_t call_bp_mac_count(const handler_table &handlers, const operational_keys &keys, edm_get_rsp_t *response)
{
    return call(handlers.bp_mac_count, keys.xcid, response);
}

uint32_t call_vtep_get(const handler_table &handlers, const operational_keys &keys, edm_get_rsp_t *response)
{
    return call(handlers.vtep_get, uint64_t{0}, keys.xcid, keys.seg_info2, keys.vtep_addr, response);
}

// ---- Routes ----

constexpr auto names = request_kind::list;
constexpr auto data = request_kind::datalist;
constexpr auto get = request_kind::get;

// A path takes the first of the routes that it fits.
constexpr operational_route routes[] = {
    {"mac-table", names, 0, domain | mac | vtep | flagged, 0, call_mac_list<&handler_table::mac_list>, {}},
    {"mac-table", names, 0, domain | mac | seg_info2 | flagged, 0, call_mac_list<&handler_table::mac_list>, {}},
    {"mac-table", data, 0, domain | mac | vtep | flagged, 0, call_mac_list<&handler_table::mac_datalist>, {}},
    {"mac-table", data, 0, domain | mac | seg_info2 | flagged, 0, call_mac_list<&handler_table::mac_datalist>, {}},
    {"mac-table", names, port | domain, flagged | resync_all, 0, call_bp_mac_list<&handler_table::bp_mac_list>, {}},
    {"mac-table", data, port | domain, flagged | resync_all, 0, call_bp_mac_list<&handler_table::bp_mac_datalist>, {}},
    {"mac-table", get, domain | mac, 0, 0, {}, call_mac_get},
    {"mac-aging", data, 0, 0, 0, call_mac_aging, {}},
    {"mac-count", get, 0, 0, 0, {}, call_mac_count},
    {"mac-count", get, domain, 0, 0, {}, call_bd_mac_count},
    {"mac-count", get, port, 0, 0, {}, call_bp_mac_count},
    {"mac-vtep", names, 0, seg_info2 | seg_info1, 0, call_vtep_list<&handler_table::vtep_list>, {}},
    {"mac-vtep", data, 0, seg_info2 | seg_info1, 0, call_vtep_list<&handler_table::vtep_datalist>, {}},
    {"mac-vtep", get, port | seg_info2 | vtep, 0, 0, {}, call_vtep_get},
    {"mac-action", request_kind::action, 0, 0, L2FIB_ACTION_SLOT_MAC_EDM, {}, {}},
};

constexpr std::string_view kind_names[] = {"list", "datalist", "get", "action"};

std::string_view name_of(request_kind kind)
{
    return kind_names[static_cast<size_t>(kind)];
}

// ---- Parsing ----

constexpr size_t max_shown = 64; // characters of an offending element that an error repeats

struct parser {
    std::string_view rest;
    bool at_end;
    size_t position; // of the element taken last, from 1
    std::string_view element;
    uint32_t candidates; // routes that the path still fits, one bit each
    operational_path &parsed;
    std::string &error;
};

bool take_element(parser &path)
{
    path.position++;
    if (path.at_end) {
        return false;
    }
    const size_t end = path.rest.find('/');
    path.element = path.rest.substr(0, end);
    path.at_end = end == std::string_view::npos;
    path.rest = path.at_end ? std::string_view() : path.rest.substr(end + 1);
    return true;
}

bool refuse(parser &path, std::string_view instead)
{
    path.error = "element " + std::to_string(path.position);
    if (path.element.empty()) {
        path.error += " is missing: ";
    } else {
        path.error += ", \"" + std::string(path.element.substr(0, max_shown)) + "\": ";
    }
    path.error += instead;
    return false;
}

// "a", "a or b", "a, b or c".
std::string alternatives(std::span<const std::string_view> words)
{
    std::string joined;
    for (size_t i = 0; i < words.size(); i++) {
        if (i > 0) {
            joined += i + 1 == words.size() ? " or " : ", ";
        }
        joined += words[i];
    }
    return joined;
}

template <typename Name>
std::string expected_names(uint32_t set, Name name_at)
{
    std::vector<std::string_view> found;
    for (; set != 0; set &= set - 1) {
        const std::string_view name = name_at(static_cast<size_t>(std::countr_zero(set)));
        if (std::find(found.begin(), found.end(), name) == found.end()) {
            found.push_back(name);
        }
    }
    return found.empty() ? "expected the end of the path" : "expected " + alternatives(found);
}

template <typename Condition>
uint32_t routes_where(uint32_t among, Condition condition)
{
    uint32_t fitting = 0;
    for (uint32_t left = among; left != 0; left &= left - 1) {
        const auto i = static_cast<size_t>(std::countr_zero(left));
        if (condition(routes[i])) {
            fitting |= uint32_t{1} << i;
        }
    }
    return fitting;
}

constexpr uint32_t all_routes = (uint32_t{1} << std::size(routes)) - 1;

bool parse_object(parser &path, request_kind kind)
{
    take_element(path);
    const uint32_t of_object =
        routes_where(all_routes, [&path](const operational_route &route) { return route.object == path.element; });
    if (of_object == 0) {
        return refuse(path, expected_names(all_routes, [](size_t i) { return routes[i].object; }));
    }
    path.candidates = routes_where(of_object, [kind](const operational_route &route) { return route.kind == kind; });
    if (path.candidates == 0) {
        return refuse(path, "cannot answer a " + std::string(name_of(kind)) + " request, "
                                + expected_names(of_object, [](size_t i) { return name_of(routes[i].kind); }));
    }
    return true;
}

// The keys that the routes which the path still fits have and that were not given yet.
template <typename Keys>
uint32_t keys_of_candidates(const parser &path, Keys keys_of)
{
    uint32_t keys = 0;
    for (uint32_t left = path.candidates; left != 0; left &= left - 1) {
        keys |= keys_of(routes[std::countr_zero(left)]);
    }
    return keys & ~path.parsed.keys.given;
}

bool refuse_key(parser &path, uint32_t expected)
{
    return refuse(path, expected_names(expected, [](size_t i) { return key_forms[i].name; }));
}

bool decode_escape(std::string_view text, size_t at, char &decoded)
{
    uint8_t code = 0;
    const std::string_view digits = text.substr(std::min(at, text.size()), 2);
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), code, 16);
    decoded = static_cast<char>(code);
    return error == std::errc() && end - digits.data() == 2 && code != 0;
}

std::optional<std::string> percent_decoded(std::string_view element)
{
    std::string decoded;
    for (size_t i = 0; i < element.size(); i++) {
        char character = element[i];
        if (character == '\0' || (character == '%' && !decode_escape(element, i + 1, character))) {
            return std::nullopt;
        }
        i += element[i] == '%' ? 2u : 0u;
        decoded += character;
    }
    return decoded;
}

bool parse_value(parser &path, const key_form &form)
{
    path.element = {};
    if (!take_element(path) || path.element.empty()) {
        return refuse(path, "expected " + std::string(form.expected));
    }
    const std::optional<std::string> value = percent_decoded(path.element);
    if (!value) {
        return refuse(path, "expected % to begin the two hexadecimal digits of a character");
    }
    if (!form.parse(*value, path.parsed.keys)) {
        return refuse(path, "expected " + std::string(form.expected));
    }
    return true;
}

bool parse_key(parser &path)
{
    const uint32_t expected =
        keys_of_candidates(path, [](const operational_route &route) { return route.required | route.optional; });
    const auto *form = std::find_if(std::begin(key_forms), std::end(key_forms),
                                    [&path](const key_form &known) { return known.name == path.element; });
    const uint32_t bit = form == std::end(key_forms) ? 0 : uint32_t{1} << (form - std::begin(key_forms));
    if ((expected & bit) == 0) {
        return refuse_key(path, expected);
    }
    path.parsed.keys.given |= bit;
    path.candidates = routes_where(path.candidates, [bit](const operational_route &route) {
        return ((route.required | route.optional) & bit) != 0;
    });
    return form->parse == nullptr || parse_value(path, *form);
}

// Takes the first of the routes whose required keys have all been given.
bool choose_route(parser &path)
{
    const uint32_t given = path.parsed.keys.given;
    const uint32_t complete = routes_where(
        path.candidates, [given](const operational_route &route) { return (route.required & ~given) == 0; });
    if (complete == 0) {
        path.element = {};
        return refuse_key(path, keys_of_candidates(path, [](const operational_route &r) { return r.required; }));
    }
    path.parsed.route = &routes[std::countr_zero(complete)];
    return true;
}

} // namespace

bool host::operational_path_parse(std::string_view path, request_kind kind, operational_path &parsed,
                                  std::string &error)
{
    parsed = {};
    parser at{path, false, 0, {}, 0, parsed, error};
    if (!parse_object(at, kind)) {
        return false;
    }
    while (take_element(at)) {
        if (!parse_key(at)) {
            return false;
        }
    }
    return choose_route(at);
}

uint32_t host::operational_path_list(const operational_path &path, const l2fib_hw_edm_handler_table_t &handlers,
                                     edm_list_req_t &request, optree_list_t *list)
{
    return path.route->list(handlers, path.keys, &request, &list);
}

uint32_t host::operational_path_get(const operational_path &path, const l2fib_hw_edm_handler_table_t &handlers,
                                    edm_get_rsp_t &response)
{
    return path.route->get(handlers, path.keys, &response);
}

uint32_t host::operational_path_act(const operational_path &path, const l2fib_action_table_t &actions,
                                    optree_request_t *request)
{
    return call(actions.action[path.route->action], request);
}
