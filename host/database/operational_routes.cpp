// SPDX-License-Identifier: Apache-2.0

#include "host/database/operational_routes.h"

#include <bit>
#include <cerrno>
#include <iterator>
#include <optional>

#include "base/text.h"

namespace host {

using list_caller = uint32_t (*)(const l2fib_hw_edm_handler_table_t &, const operational_keys &, edm_list_req_t *,
                                 optree_list_t **);
using get_caller = uint32_t (*)(const l2fib_hw_edm_handler_table_t &, const operational_keys &, edm_get_rsp_t *);

struct operational_route {
    operational_object object;
    request_kind kind;
    uint32_t required; // key bits
    uint32_t optional; // key bits
    uint32_t action;   // slot of the action table
    list_caller list;
    get_caller get;
};

} // namespace host

namespace {

using host::operational_keys;
using host::operational_object;
using host::operational_route;
using host::request_kind;

// ---- Keys ----

// One bit for each key, in the order in which errors and descriptions name the keys.
enum key_bit : uint32_t {
    domain = 1u << 0,
    port = 1u << 1,
    mac = 1u << 2,
    vtep = 1u << 3,
    seg_info2 = 1u << 4,
    seg_info1 = 1u << 5,
    flagged = 1u << 6,
    resync_all = 1u << 7,
};

// The text of a key's value, empty for a flag; nothing if the request does not give the key.
using key_text = std::optional<std::string> (*)(const operational_keys &keys);

struct key_form {
    std::string_view name;
    key_text text;
};

template <std::optional<uint32_t> operational_keys::*Number>
std::optional<std::string> number_text(const operational_keys &keys)
{
    return keys.*Number ? std::optional(std::to_string(*(keys.*Number))) : std::nullopt;
}

template <bool operational_keys::*Flag>
std::optional<std::string> flag_text(const operational_keys &keys)
{
    return keys.*Flag ? std::optional<std::string>("") : std::nullopt;
}

std::optional<std::string> domain_text(const operational_keys &keys)
{
    return keys.domain;
}

std::optional<std::string> mac_text(const operational_keys &keys)
{
    return keys.mac_addr ? std::optional(base::mac_text(*keys.mac_addr)) : std::nullopt;
}

std::optional<std::string> vtep_text(const operational_keys &keys)
{
    if (!keys.vtep_addr) {
        return std::nullopt;
    }
    const auto *const bytes = reinterpret_cast<const uint8_t *>(&*keys.vtep_addr);
    return base::ip_text({bytes, sizeof(*keys.vtep_addr)});
}

// Row i belongs to the bit 1 << i.
constexpr key_form key_forms[] = {
    {"domain", domain_text},
    {"port", number_text<&operational_keys::port>},
    {"mac", mac_text},
    {"vtep", vtep_text},
    {"seg-info2", number_text<&operational_keys::seg_info2>},
    {"seg-info1", number_text<&operational_keys::seg_info1>},
    {"flagged", flag_text<&operational_keys::only_flagged>},
    {"resync-all", flag_text<&operational_keys::resync_all>},
};

static_assert(uint32_t{1} << std::size(key_forms) == 2 * resync_all, "each key bit has its row");

uint32_t given_keys(const operational_keys &keys)
{
    uint32_t given = 0;
    for (size_t i = 0; i < std::size(key_forms); i++) {
        given |= key_forms[i].text(keys) ? uint32_t{1} << i : 0;
    }
    return given;
}

// ---- Calls of the handlers ----

using handler_table = l2fib_hw_edm_handler_table_t;

template <typename Handler, typename... Arguments>
uint32_t call(Handler *handler, Arguments... arguments)
{
    return handler == nullptr ? ENOSYS : handler(arguments...);
}

uint32_t request_flags(const operational_keys &keys)
{
    return (keys.only_flagged ? EDM_REQ_ONLY_FLAGGED : 0) | (keys.resync_all ? EDM_REQ_RESYNC_ALL : 0);
}

const char *domain_of(const operational_keys &keys)
{
    return keys.domain ? keys.domain->c_str() : nullptr;
}

const uint8_t *mac_of(const operational_keys &keys)
{
    return keys.mac_addr ? keys.mac_addr->data() : nullptr;
}

uint32_t filter_kind(const operational_keys &keys)
{
    return keys.vtep_addr ? EDM_FILTER_VTEP : keys.seg_info2 ? EDM_FILTER_PORT : 0;
}

template <edm_mac_list_fn handler_table::*Slot>
uint32_t call_mac_list(const handler_table &handlers, const operational_keys &keys, edm_list_req_t *request,
                       optree_list_t **list)
{
    const uint32_t value = keys.vtep_addr ? *keys.vtep_addr : keys.seg_info2.value_or(0);
    return call(handlers.*Slot, request_flags(keys), domain_of(keys), mac_of(keys), filter_kind(keys), value, request,
                list);
}

template <edm_bp_mac_list_fn handler_table::*Slot>
uint32_t call_bp_mac_list(const handler_table &handlers, const operational_keys &keys, edm_list_req_t *request,
                          optree_list_t **list)
{
    return call(handlers.*Slot, request_flags(keys), domain_of(keys), *keys.port, request, list);
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
    return call(handlers.*Slot, keys.seg_info2.value_or(0), keys.seg_info1.value_or(0), request, list);
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
    return call(handlers.bp_mac_count, *keys.port, response);
}

uint32_t call_vtep_get(const handler_table &handlers, const operational_keys &keys, edm_get_rsp_t *response)
{
    return call(handlers.vtep_get, uint64_t{0}, *keys.port, *keys.seg_info2, *keys.vtep_addr, response);
}

// ---- Routes ----

constexpr auto table = operational_object::mac_table;
constexpr auto aging = operational_object::mac_aging;
constexpr auto counts = operational_object::mac_count;
constexpr auto vteps = operational_object::mac_vtep;

constexpr auto names = request_kind::list;
constexpr auto data = request_kind::datalist;
constexpr auto get = request_kind::get;

// A request takes the first route that it fits.
constexpr operational_route routes[] = {
    {table, names, 0, domain | mac | vtep | flagged, 0, call_mac_list<&handler_table::mac_list>, {}},
    {table, names, 0, domain | mac | seg_info2 | flagged, 0, call_mac_list<&handler_table::mac_list>, {}},
    {table, data, 0, domain | mac | vtep | flagged, 0, call_mac_list<&handler_table::mac_datalist>, {}},
    {table, data, 0, domain | mac | seg_info2 | flagged, 0, call_mac_list<&handler_table::mac_datalist>, {}},
    {table, names, port | domain, flagged | resync_all, 0, call_bp_mac_list<&handler_table::bp_mac_list>, {}},
    {table, data, port | domain, flagged | resync_all, 0, call_bp_mac_list<&handler_table::bp_mac_datalist>, {}},
    {table, get, domain | mac, 0, 0, {}, call_mac_get},
    {aging, data, 0, 0, 0, call_mac_aging, {}},
    {counts, get, 0, 0, 0, {}, call_mac_count},
    {counts, get, domain, 0, 0, {}, call_bd_mac_count},
    {counts, get, port, 0, 0, {}, call_bp_mac_count},
    {vteps, names, 0, seg_info2 | seg_info1, 0, call_vtep_list<&handler_table::vtep_list>, {}},
    {vteps, data, 0, seg_info2 | seg_info1, 0, call_vtep_list<&handler_table::vtep_datalist>, {}},
    {vteps, get, port | seg_info2 | vtep, 0, 0, {}, call_vtep_get},
    {operational_object::mac_action, request_kind::action, 0, 0, L2FIB_ACTION_SLOT_MAC_EDM, {}, {}},
};

constexpr std::string_view object_names[] = {"mac-table", "mac-aging", "mac-count", "mac-vtep", "mac-action"};
constexpr std::string_view kind_names[] = {"list", "datalist", "get", "action"};

// A caller may have cast any number to an enumerator.
template <typename Enumerator, size_t Count>
std::string_view name_of(Enumerator of, const std::string_view (&all)[Count])
{
    const auto place = static_cast<size_t>(of);
    return place < Count ? all[place] : "unknown";
}

// ---- Finding a route ----

// A set of routes, one bit each.
using route_set = uint32_t;

constexpr route_set all_routes = (route_set{1} << std::size(routes)) - 1;

template <typename Condition>
route_set routes_where(route_set among, Condition condition)
{
    route_set fitting = 0;
    for (route_set left = among; left != 0; left &= left - 1) {
        const int place = std::countr_zero(left);
        if (condition(routes[place])) {
            fitting |= route_set{1} << place;
        }
    }
    return fitting;
}

// The keys that some of these routes take.
uint32_t keys_of(route_set of)
{
    uint32_t keys = 0;
    for (; of != 0; of &= of - 1) {
        const operational_route &route = routes[std::countr_zero(of)];
        keys |= route.required | route.optional;
    }
    return keys;
}

// "a", "a or b", "a or b or c"; "nothing else" for no key.
std::string key_names(uint32_t keys)
{
    std::string text;
    for (; keys != 0; keys &= keys - 1) {
        text.append(text.empty() ? "" : " or ").append(key_forms[std::countr_zero(keys)].name);
    }
    return text.empty() ? "nothing else" : text;
}

// Narrows `candidates` to the routes that take every given key. On failure returns an error.
std::string narrow_by_keys(route_set &candidates, uint32_t given)
{
    uint32_t accepted = 0;
    for (uint32_t left = given; left != 0; left &= left - 1) {
        const uint32_t key = left & -left;
        const route_set fitting = routes_where(candidates, [key](const operational_route &route) {
            return ((route.required | route.optional) & key) != 0;
        });
        if (fitting == 0) {
            return "the key " + key_names(key) + " does not belong here, expected "
                   + key_names(keys_of(candidates) & ~accepted);
        }
        candidates = fitting;
        accepted |= key;
    }
    return {};
}

std::string check_domain(const operational_keys &keys)
{
    const bool is_wrong = keys.domain
                          && (keys.domain->empty() || keys.domain->size() >= L2FIB_NAME_BUFFER_SIZE
                              || keys.domain->find('\0') != std::string::npos);
    return is_wrong ? "domain: expected a bridge domain's full name of 1 to 63 characters" : "";
}

static_assert(L2FIB_NAME_BUFFER_SIZE == 64, "the error in check_domain names the maximum length");

// Chooses the first candidate whose required keys are all given.
const operational_route *choose(route_set candidates, uint32_t given, std::string &error)
{
    const route_set complete =
        routes_where(candidates, [given](const operational_route &route) { return (route.required & ~given) == 0; });
    if (complete == 0) {
        const uint32_t missing = routes[std::countr_zero(candidates)].required & ~given;
        error = "a key is missing, expected " + key_names(missing);
        return nullptr;
    }
    return &routes[std::countr_zero(complete)];
}

} // namespace

namespace host {

const operational_route *operational_route_find(const operational_request &request, std::string &error)
{
    route_set candidates = routes_where(all_routes, [&request](const operational_route &route) {
        return route.object == request.object && route.kind == request.kind;
    });
    if (candidates == 0) {
        error = "it cannot answer a request of the kind " + std::string(name_of(request.kind, kind_names));
        return nullptr;
    }
    const uint32_t given = given_keys(request.keys);
    error = narrow_by_keys(candidates, given);
    if (error.empty()) {
        error = check_domain(request.keys);
    }
    return error.empty() ? choose(candidates, given, error) : nullptr;
}

std::string_view operational_object_name(operational_object object)
{
    return name_of(object, object_names);
}

std::string operational_request_text(const operational_request &request)
{
    std::string text(operational_object_name(request.object));
    for (const key_form &form : key_forms) {
        const std::optional<std::string> value = form.text(request.keys);
        if (value) {
            text.append(" ").append(form.name).append(value->empty() ? "" : " ").append(*value);
        }
    }
    return text;
}

uint32_t operational_route_list(const operational_route &route, const operational_keys &keys,
                                const l2fib_hw_edm_handler_table_t &handlers, edm_list_req_t &request,
                                optree_list_t *list)
{
    return route.list(handlers, keys, &request, &list);
}

uint32_t operational_route_get(const operational_route &route, const operational_keys &keys,
                               const l2fib_hw_edm_handler_table_t &handlers, edm_get_rsp_t &response)
{
    return route.get(handlers, keys, &response);
}

uint32_t operational_route_act(const operational_route &route, const l2fib_action_table_t &actions,
                               optree_request_t *request)
{
    return call(actions.action[route.action], request);
}

} // namespace host
