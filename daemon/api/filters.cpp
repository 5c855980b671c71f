// SPDX-License-Identifier: Apache-2.0

#include "daemon/api/filters.h"

#include <algorithm>
#include <array>

#include "base/text.h"
#include "daemon/api/json/api_error.h"

namespace l2fibd {

namespace {

using forwarding::row_filter;
using forwarding::row_origin;

constexpr std::string_view not_prefix = "not-";
constexpr uint16_t max_vlan = 4'094;
constexpr uint32_t max_vni = 16'777'215;

std::string_view without_not(std::string_view parameter)
{
    return parameter.starts_with(not_prefix) ? parameter.substr(not_prefix.size()) : parameter;
}

// ---- Names ----

template <name_condition filters::*Name>
bool add_name(filters &to, const std::string &value, bool is_not)
{
    if (is_not) {
        (to.*Name).except.push_back(value);
    } else {
        (to.*Name).only = value;
    }
    return !value.empty();
}

template <name_condition filters::*Name>
bool has_no_name(const filters &given)
{
    const name_condition &name = given.*Name;
    return name.only && std::ranges::find(name.except, *name.only) != name.except.end();
}

// ---- Values ----

template <typename Value>
void add_to_set(forwarding::value_set<Value> &set, const Value &value, bool is_not)
{
    is_not ? set.exclude({value}) : set.keep_only({value});
}

template <auto Set, uint32_t Max>
bool add_number(filters &to, const std::string &value, bool is_not)
{
    using number_type = typename decltype((to.rest.*Set).values)::value_type;
    const auto number = base::parse_number(value, Max);
    if (number && *number != 0) {
        add_to_set(to.rest.*Set, static_cast<number_type>(*number), is_not);
    }
    return number && *number != 0;
}

// No tunnel end point has an unspecified address, and the zero one stands for rows without a tunnel end point.
bool is_unspecified(const base::ip_address &address)
{
    return address == base::ip_address{} || address == base::ip_of(std::array<uint8_t, base::ipv4_bytes>{});
}

bool add_vtep(filters &to, const std::string &value, bool is_not)
{
    const auto address = base::parse_ip(value);
    if (!address || is_unspecified(*address)) {
        return false;
    }
    add_to_set(to.rest.vteps, *address, is_not);
    return true;
}

struct type_word {
    std::string_view word;
    row_origin origin;
};

constexpr type_word type_words[] = {
    {"learned", row_origin::learned},
    {"static", row_origin::fixed},
    {"local", row_origin::local},
};

bool add_type(filters &to, const std::string &value, bool is_not)
{
    const auto *found = std::ranges::find(type_words, value, &type_word::word);
    if (found != std::end(type_words)) {
        add_to_set(to.rest.origins, found->origin, is_not);
    }
    return found != std::end(type_words);
}

bool add_prefix(filters &to, const std::string &value, bool is_not)
{
    const auto range = base::parse_mac_prefix(value);
    if (range && is_not) {
        to.rest.not_addresses.push_back(*range);
    } else if (range) {
        to.rest.addresses = *range;
    }
    return range.has_value();
}

bool add_older(filters &to, const std::string &value, bool is_not)
{
    const auto age = base::parse_duration(value);
    if (age) {
        forwarding::age_range &ages = to.rest.ages;
        is_not ? void(ages.max = std::min<int64_t>(ages.max, *age))
               : void(ages.min = std::max<int64_t>(ages.min, int64_t{*age} + 1));
    }
    return age.has_value();
}

bool add_newer(filters &to, const std::string &value, bool is_not)
{
    const auto age = base::parse_duration(value);
    if (age) {
        forwarding::age_range &ages = to.rest.ages;
        is_not ? void(ages.min = std::max<int64_t>(ages.min, *age))
               : void(ages.max = std::min<int64_t>(ages.max, int64_t{*age} - 1));
    }
    return age.has_value();
}

template <auto Set>
bool has_no_value(const filters &given)
{
    return (given.rest.*Set).holds_none();
}

bool has_no_type(const filters &given)
{
    return std::ranges::none_of(type_words,
                                [&](const type_word &type) { return given.rest.origins.holds(type.origin); });
}

bool has_no_address(const filters &given)
{
    return std::ranges::any_of(given.rest.not_addresses, [&](const base::mac_range &range) {
        return range.holds(given.rest.addresses.first) && range.holds(given.rest.addresses.last);
    });
}

bool has_no_age(const filters &given)
{
    return given.rest.ages.min > given.rest.ages.max;
}

// ---- Parameters ----

struct filter_parameter {
    std::string_view name;
    filter_kind kind;
    std::string_view expected;
    bool (*add)(filters &to, const std::string &value, bool is_not); // returns false if the value does not parse
    bool (*is_impossible)(const filters &given);                     // no entry can meet the conditions of this kind
};

constexpr std::string_view an_age = "an age as 90 or 90s (seconds), 15m, 2h or 1d";

constexpr filter_parameter parameters[] = {
    {"domain", by_domain, "the name of a bridge domain or of a bridge", add_name<&filters::domain>,
     has_no_name<&filters::domain>},
    {"port", by_port, "the name of an interface or an xcid", add_name<&filters::port>, has_no_name<&filters::port>},
    {"vlan", by_vlan, "a number from 1 to 4094", add_number<&row_filter::vlans, max_vlan>,
     has_no_value<&row_filter::vlans>},
    {"vni", by_vni, "a number from 1 to 16777215", add_number<&row_filter::vnis, max_vni>,
     has_no_value<&row_filter::vnis>},
    {"vtep", by_vtep, "an IPv4 or IPv6 address as 192.0.2.1 or 2001:db8::1", add_vtep,
     has_no_value<&row_filter::vteps>},
    {"type", by_type, "learned, static or local", add_type, has_no_type},
    {"mac-prefix", by_prefix, "1 to 12 hexadecimal digits as 02:00:5e, 02-00-5e, 0200.5e or 02005e", add_prefix,
     has_no_address},
    {"older-than", by_age, an_age, add_older, has_no_age},
    {"newer-than", by_age, an_age, add_newer, has_no_age},
};

const filter_parameter *find_parameter(std::string_view name, unsigned kinds)
{
    const auto *found = std::ranges::find(parameters, without_not(name), &filter_parameter::name);
    return found != std::end(parameters) && (kinds & found->kind) != 0 ? found : nullptr;
}

// The error for conditions of one kind that no entry can meet.
api_error contradiction(const target &to, filter_kind kind)
{
    std::string texts;
    for (const target::parameter &given : to.parameters) {
        if (find_parameter(given.name, kind) != nullptr) {
            texts += (texts.empty() ? "" : ", ") + given.name + "=" + given.value;
        }
    }
    return unexpected("parameters", texts, "conditions that an entry can meet together");
}

// ---- Objects ----

bool names_domain(const std::string &text, const named_place &at)
{
    const std::string_view part = at.domain.substr(at.domain.find(':') + 1);
    const std::string vlan = "." + std::to_string(at.vlan);
    const bool has_vlan = at.vlan != 0 && part.ends_with(vlan);
    return text == at.domain || text == part || text == at.bridge
           || (has_vlan && text == part.substr(0, part.size() - vlan.size()));
}

bool names_port(const std::string &text, const named_place &at)
{
    return !at.port.empty() && (text == at.port || text == std::to_string(at.xcid));
}

template <typename Matches>
bool passes_name(const name_condition &condition, Matches matches)
{
    return (!condition.only || matches(*condition.only)) && std::ranges::none_of(condition.except, matches);
}

std::vector<uint16_t> ids_of_domains(const forwarding::object_views &objects, const std::string &name)
{
    std::vector<uint16_t> found;
    for (const forwarding::domain_view &each : objects.domains) {
        if (names_domain(name, place_of(each))) {
            found.push_back(each.bridge_id);
        }
    }
    if (found.empty()) {
        throw no_domain(name);
    }
    return found;
}

// An interface whose name is a number hides the port with this xcid.
std::vector<forwarding::port_place> places_of_ports(const forwarding::object_views &objects, const std::string &name)
{
    std::vector<forwarding::port_place> named;
    std::vector<forwarding::port_place> numbered;
    for (const forwarding::port_view &each : objects.ports) {
        if (each.name == name) {
            named.push_back(forwarding::key_of(each));
        } else if (names_port(name, place_of(each))) {
            numbered.push_back(forwarding::key_of(each));
        }
    }
    if (named.empty() && numbered.empty()) {
        throw no_port(name);
    }
    return named.empty() ? numbered : named;
}

template <typename Value, typename Find>
void resolve_names(const name_condition &condition, std::string_view subject, forwarding::value_set<Value> &set,
                   Find find)
{
    if (condition.only) {
        set.keep_only(find(*condition.only));
    }
    for (const std::string &name : condition.except) {
        set.exclude(find(name));
    }
    if (set.holds_none()) {
        throw unexpected(std::string(subject), *condition.only, "one that the \"not-\" parameters leave over");
    }
}

} // namespace

named_place place_of(const forwarding::domain_view &domain)
{
    return {.domain = domain.name, .vlan = domain.vlan, .bridge = domain.bridge};
}

named_place place_of(const forwarding::port_view &port)
{
    return {.domain = port.domain, .vlan = port.vlan, .port = port.name, .xcid = port.xcid};
}

bool is_filter(std::string_view parameter, unsigned kinds)
{
    return find_parameter(parameter, kinds) != nullptr;
}

size_t max_repetitions(std::string_view parameter)
{
    constexpr size_t max_exclusions = 64;
    return parameter.starts_with(not_prefix) ? max_exclusions : 1;
}

std::vector<std::string> names_of_filters(unsigned kinds)
{
    std::vector<std::string> names;
    for (const filter_parameter &each : parameters) {
        if ((kinds & each.kind) != 0) {
            names.emplace_back(each.name);
        }
    }
    return names;
}

filters parse_filters(const target &to, unsigned kinds)
{
    filters parsed;
    for (const target::parameter &given : to.parameters) {
        const filter_parameter *found = find_parameter(given.name, kinds);
        if (found != nullptr && !found->add(parsed, given.value, given.name.starts_with(not_prefix))) {
            throw unexpected(given.name, given.value, std::string(found->expected));
        }
    }
    for (const filter_parameter &each : parameters) {
        if (each.is_impossible(parsed)) {
            throw contradiction(to, each.kind);
        }
    }
    return parsed;
}

forwarding::row_filter resolve(const filters &given)
{
    forwarding::row_filter resolved = given.rest;
    const auto objects = forwarding::objects();
    if (objects == nullptr) {
        return resolved; // the list fails by itself
    }
    resolve_names(given.domain, "domain", resolved.domains,
                  [&](const std::string &name) { return ids_of_domains(*objects, name); });
    resolve_names(given.port, "port", resolved.ports,
                  [&](const std::string &name) { return places_of_ports(*objects, name); });
    return resolved;
}

bool passes_names(const filters &given, const named_place &at)
{
    return passes_name(given.domain, [&](const std::string &name) { return names_domain(name, at); })
           && passes_name(given.port, [&](const std::string &name) { return names_port(name, at); });
}

} // namespace l2fibd
