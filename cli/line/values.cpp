// SPDX-License-Identifier: Apache-2.0

#include "cli/line/values.h"

#include <algorithm>
#include <cerrno>
#include <sys/un.h>

#include "base/text.h"
#include "cli/line/wording.h"

namespace l2fibctl {

namespace {

constexpr size_t max_name_length = 255; // above every real name, and short enough for a request's URI
constexpr size_t max_path_length = sizeof(sockaddr_un::sun_path) - 1;

base::result expected(std::string_view value, const std::string &expectation)
{
    return base::failure(EINVAL, in_quotes(value) + ": expected " + expectation);
}

// `subject` names the value, such as "a name".
base::result check_length(const std::string &value, size_t max_length, const std::string &subject)
{
    const bool fits = !value.empty() && value.size() <= max_length;
    return fits ? base::success()
                : base::failure(EINVAL,
                                "expected " + subject + " of 1 to " + std::to_string(max_length) + " characters");
}

const option_row *find_filter(std::string_view name, command_kind command)
{
    const option_row *row = find_option(name, command);
    return row != nullptr && row->is_filter() ? row : nullptr;
}

// "domain, port or vlan": the names that --not takes in this command.
std::string filter_names(command_kind command)
{
    std::vector<std::string_view> names;
    for (const option_row *row : options_of(command)) {
        if (row->is_filter()) {
            names.push_back(row->name);
        }
    }
    return listed(names, " or ");
}

} // namespace

base::result check_choice(const value_place &place, std::string &value)
{
    const bool fits = std::ranges::count(place.row.choices, value) != 0;
    return fits ? base::success() : expected(value, listed(place.row.choices, " or "));
}

// The parser's own conversion turns -1 and numbers that are too large into other numbers.
base::result check_number(const value_place &place, std::string &value)
{
    const auto number = base::parse_number(value, place.row.max_number);
    const bool fits = number && *number != 0;
    return fits ? base::success() : expected(value, "a number from 1 to " + std::to_string(place.row.max_number));
}

base::result check_name(const value_place & /*place*/, std::string &value)
{
    return check_length(value, max_name_length, "a name");
}

base::result check_event(const value_place & /*place*/, std::string &value)
{
    const bool is_id = !value.empty() && value.find_first_not_of("0123456789-") == std::string::npos;
    return is_id ? base::success() : expected(value, "the id of an event such as 1732380000-17");
}

base::result check_path(const value_place & /*place*/, std::string &value)
{
    return check_length(value, max_path_length, "a path");
}

base::result check_ip(const value_place & /*place*/, std::string &value)
{
    return base::parse_ip(value) ? base::success() : expected(value, "an IP address such as 192.0.2.1 or 2001:db8::1");
}

base::result check_age(const value_place & /*place*/, std::string &value)
{
    return base::parse_duration(value) ? base::success() : expected(value, "an age such as 90, 90s, 15m, 2h or 1d");
}

base::result check_address(const value_place & /*place*/, std::string &value)
{
    const auto address = base::parse_mac(value);
    if (!address) {
        return expected(value, "an address such as 02:00:00:00:00:01 or 0200.0000.0001");
    }
    value = base::mac_text(*address);
    return base::success();
}

base::result check_prefix(const value_place & /*place*/, std::string &value)
{
    const bool fits = base::parse_mac_prefix(value).has_value();
    return fits ? base::success() : expected(value, "1 to 12 hexadecimal digits such as 02:00:5e, 0200.5e or 02005e");
}

base::result check_not(const value_place &place, std::string &value)
{
    const size_t equals = value.find('=');
    const option_row *negated = find_filter(value.substr(0, equals), place.command);
    if (negated == nullptr || equals == std::string::npos) {
        return expected(value, "NAME=VALUE with one of the names " + filter_names(place.command));
    }
    std::string wanted = value.substr(equals + 1);
    if (base::result checked = negated->check({*negated, place.command}, wanted); !checked.ok()) {
        return base::failure(EINVAL, std::string(negated->name) + ": " + checked.text);
    }
    value = std::string(negated->parameter) + "=" + wanted;
    return base::success();
}

base::result check_columns(const value_place & /*place*/, std::string &value)
{
    const std::vector<std::string_view> names = base::split(value, ',');
    const bool fits = std::ranges::none_of(names, &std::string_view::empty);
    return fits ? base::success() : expected(value, "names with commas between them, such as domain,mac-address");
}

void store_filter(client_options &to, const option_row &row, const std::string &value)
{
    to.filters.push_back({std::string(row.parameter), value});
}

void store_not(client_options &to, const option_row & /*row*/, const std::string &value)
{
    const size_t equals = value.find('=');
    to.filters.push_back({"not-" + value.substr(0, equals), value.substr(equals + 1)});
}

void store_columns(client_options &to, const option_row & /*row*/, const std::string &value)
{
    for (const std::string_view name : base::split(value, ',')) {
        to.columns.emplace_back(name);
    }
}

void store_color(client_options &to, const option_row & /*row*/, const std::string &value)
{
    to.color = value == "always" ? when::always : value == "never" ? when::never : when::automatic;
}

void store_window(client_options &to, const option_row & /*row*/, const std::string &value)
{
    to.window_seconds = *base::parse_duration(value);
}

// --aging means --sort last-seen. check_combination of parser.cpp refuses another order beside it.
void store_aging(client_options &to, const option_row & /*row*/, const std::string & /*value*/)
{
    to.sorted_by = last_seen_word;
}

void store_word(client_options &to, const option_row & /*row*/, const std::string &value)
{
    to.words.push_back(value);
}

void store_number_in(uint64_t &to, const std::string &value)
{
    to = base::parse_number(value).value_or(0);
}

void store_number_in(unsigned &to, const std::string &value)
{
    to = static_cast<unsigned>(base::parse_number(value, UINT32_MAX).value_or(0));
}

} // namespace l2fibctl
