// SPDX-License-Identifier: Apache-2.0

// The text form of a fabric's options: which items it has, and their limits.

#include <cerrno>
#include <charconv>
#include <string>

#include "forwarding/generated/generate.h"

namespace forwarding {
namespace {

struct fabric_item {
    std::string_view name;
    uint32_t fabric_options::*value;
    uint32_t min;
    uint32_t max;
    std::string_view unit; // may follow the number
};

constexpr fabric_item fabric_items[] = {
    {"bridges", &fabric_options::bridges, 1, 60'000, ""},  {"ports", &fabric_options::ports, 1, 1'000, ""},
    {"macs", &fabric_options::macs, 0, 16'000'000, ""},    {"vteps", &fabric_options::vteps, 0, 60'000, ""},
    {"churn", &fabric_options::churn, 0, 1'000'000, "/s"}, {"seed", &fabric_options::seed, 0, UINT32_MAX, ""},
};

std::string known_items()
{
    std::string names;
    for (const fabric_item &item : fabric_items) {
        names.append(names.empty() ? "" : ", ").append(item.name);
    }
    return names;
}

base::result parse_value(const fabric_item &item, std::string_view text, fabric_options &options)
{
    std::string_view digits = text;
    if (digits.ends_with(item.unit)) {
        digits.remove_suffix(item.unit.size());
    }
    uint32_t value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (error != std::errc() || end != digits.data() + digits.size() || value < item.min || value > item.max) {
        return base::failure(EINVAL, std::string(item.name) + " is \"" + std::string(text)
                                         + "\", expected a number from " + std::to_string(item.min) + " to "
                                         + std::to_string(item.max));
    }
    options.*item.value = value;
    return base::success();
}

base::result parse_item(std::string_view text, fabric_options &options)
{
    const size_t equals = text.find('=');
    for (const fabric_item &item : fabric_items) {
        if (equals != std::string_view::npos && item.name == text.substr(0, equals)) {
            return parse_value(item, text.substr(equals + 1), options);
        }
    }
    return base::failure(EINVAL, "\"" + std::string(text) + "\" is none of the items NAME=NUMBER with the names "
                                     + known_items());
}

// Limits that hold for each bridge can still exceed the totals.
constexpr struct {
    std::string_view name;
    uint32_t fabric_options::*of_each;
    uint64_t max;
} totals[] = {{"ports", &fabric_options::ports, 1'000'000}, {"vteps", &fabric_options::vteps, 16'000'000}};

base::result check_totals(const fabric_options &options)
{
    for (const auto &each : totals) {
        const uint64_t total = uint64_t{options.bridges} * (options.*each.of_each);
        if (total > each.max) {
            return base::failure(EINVAL, "bridges times " + std::string(each.name) + " is " + std::to_string(total)
                                             + ", expected at most " + std::to_string(each.max));
        }
    }
    return base::success();
}

} // namespace

base::result parse_fabric(std::string_view text, fabric_options &options)
{
    while (!text.empty()) {
        const size_t comma = text.find(',');
        if (base::result parsed = parse_item(text.substr(0, comma), options); !parsed.ok()) {
            return parsed;
        }
        text.remove_prefix(comma == std::string_view::npos ? text.size() : comma + 1);
    }
    return check_totals(options);
}

} // namespace forwarding
