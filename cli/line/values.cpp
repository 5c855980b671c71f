// SPDX-License-Identifier: Apache-2.0

#include "cli/line/values.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <sys/un.h>

#include "base/text.h"

namespace l2fibctl {

namespace {

constexpr size_t max_name_length = 255; // above every real name, and short enough for a request's URI
constexpr size_t max_path_length = sizeof(sockaddr_un::sun_path) - 1;
constexpr size_t max_prefix_digits = 2 * base::mac_bytes;
constexpr std::string_view prefix_expectation = "1 to 12 hexadecimal digits such as 02:00:5e, 0200.5e or 02005e";

base::result expected(std::string_view value, std::string_view expectation)
{
    std::string text = "\"";
    text.append(value).append("\": expected ").append(expectation);
    return base::failure(EINVAL, text);
}

// "a, b or c"
std::string joined(word_list words)
{
    std::string text;
    for (size_t i = 0; i < words.size(); i++) {
        const bool is_last = i + 1 == words.size();
        text.append(i == 0 ? "" : is_last ? " or " : ", ").append(words[i]);
    }
    return text;
}

// `subject` names the value, such as "a name".
base::result check_length(const std::string &value, size_t max_length, const std::string &subject)
{
    const bool fits = !value.empty() && value.size() <= max_length;
    return fits ? base::success()
                : base::failure(EINVAL,
                                "expected " + subject + " of 1 to " + std::to_string(max_length) + " characters");
}

struct age_unit {
    char letter;
    uint64_t seconds;
};
constexpr age_unit age_units[] = {{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}};

// How a prefix is written between its separators.
struct prefix_form {
    char separator;
    size_t digits; // of each part but the last
};
constexpr prefix_form prefix_forms[] = {{':', 2}, {'-', 2}, {'.', 4}};

bool is_hexadecimal(std::string_view text)
{
    return std::ranges::all_of(text, [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; });
}

// Returns the digits of "2:0:5e" or "0200.5e" without separators: "02005e". An octet may lack its leading zero. Behind
// dots the last part may be shorter, because half octets count there. Returns an empty text if a part has another
// length.
std::string join_parts(std::string_view text, const prefix_form &written)
{
    const bool has_octets = written.digits == 2;
    std::string digits;
    const std::vector<std::string_view> parts = base::split(text, written.separator);
    for (const std::string_view &part : parts) {
        const bool may_be_short = has_octets || &part == &parts.back();
        if (part.empty() || part.size() > written.digits || (part.size() < written.digits && !may_be_short)) {
            return "";
        }
        digits.append(has_octets ? written.digits - part.size() : 0, '0').append(part);
    }
    return digits;
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
    return joined(names);
}

} // namespace

std::optional<uint64_t> parse_age(std::string_view text)
{
    uint64_t factor = 1;
    const auto *unit = std::ranges::find(age_units, text.empty() ? '\0' : text.back(), &age_unit::letter);
    if (unit != std::end(age_units)) {
        factor = unit->seconds;
        text.remove_suffix(1);
    }
    const auto number = base::parse_number(text, UINT32_MAX);
    return number ? std::optional(*number * factor) : std::nullopt;
}

base::result check_choice(const value_place &place, std::string &value)
{
    const bool fits = std::ranges::count(place.row.choices, value) != 0;
    return fits ? base::success() : expected(value, joined(place.row.choices));
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

base::result check_path(const value_place & /*place*/, std::string &value)
{
    return check_length(value, max_path_length, "a path");
}

base::result check_ip(const value_place & /*place*/, std::string &value)
{
    in6_addr address = {}; // large enough for both families
    const bool fits =
        inet_pton(AF_INET, value.c_str(), &address) == 1 || inet_pton(AF_INET6, value.c_str(), &address) == 1;
    return fits ? base::success() : expected(value, "an IP address such as 192.0.2.1 or 2001:db8::1");
}

base::result check_age(const value_place & /*place*/, std::string &value)
{
    return parse_age(value) ? base::success() : expected(value, "an age such as 90, 90s, 15m, 2h or 1d");
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
    const auto *written = std::ranges::find_if(
        prefix_forms, [&](const prefix_form &row) { return value.find(row.separator) != std::string::npos; });
    const std::string digits = written != std::end(prefix_forms) ? join_parts(value, *written) : value;
    if (digits.empty() || digits.size() > max_prefix_digits || !is_hexadecimal(digits)) {
        return expected(value, prefix_expectation);
    }
    value = digits;
    return base::success();
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
    to.window_seconds = *parse_age(value);
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
