// SPDX-License-Identifier: Apache-2.0

#include "cli/live/top_model.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <string_view>
#include <unordered_map>

#include "base/text.h"

namespace l2fibctl {

namespace {

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

// Returns the digits at the start of the text without leading zeros. The text behind them stays in `text`.
std::string_view take_number(std::string_view &text)
{
    const auto end = std::ranges::find_if_not(text, is_digit);
    std::string_view digits = text.substr(0, static_cast<size_t>(end - text.begin()));
    text.remove_prefix(digits.size());
    digits.remove_prefix(std::min(digits.find_first_not_of('0'), digits.size()));
    return digits;
}

// Whether the name `a` stands before `b`: "p2" before "p10".
bool is_before(std::string_view a, std::string_view b)
{
    while (!a.empty() && !b.empty()) {
        if (is_digit(a.front()) && is_digit(b.front())) {
            const std::string_view left = take_number(a);
            const std::string_view right = take_number(b);
            if (left != right) {
                return left.size() != right.size() ? left.size() < right.size() : left < right;
            }
        } else if (a.front() != b.front()) {
            return a.front() < b.front();
        } else {
            a.remove_prefix(1);
            b.remove_prefix(1);
        }
    }
    return a.size() < b.size();
}

bool is_before_by_name(const top_row &a, const top_row &b)
{
    return a.name != b.name ? is_before(a.name, b.name) : is_before(a.domain, b.domain);
}

// Largest first; equal ones by name.
bool is_before_by(top_order order, const top_row &a, const top_row &b)
{
    if (order == top_order::changes && a.rate != b.rate) {
        return a.rate > b.rate; // no rate is the smallest
    }
    if (order == top_order::changes && a.changes != b.changes) {
        return a.changes > b.changes;
    }
    if (order == top_order::entries && a.entries != b.entries) {
        return a.entries > b.entries;
    }
    return is_before_by_name(a, b);
}

std::string lower_case(std::string text)
{
    std::ranges::transform(text, text.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

uint64_t natural_of(json_value item, std::string_view member)
{
    const json_value found = find(item, member);
    if (found && found.is_text()) {
        return base::parse_number(found.text()).value_or(0);
    }
    return number_of(item, member);
}

// A name alone is not enough: an interface may be a port of several VLANs, and an address be in several domains.
std::string key_of(json_value item)
{
    text_buffer key;
    for (const char *const member : {"xcid", "domain", "name", "mac-address"}) {
        if (const json_value found = find(item, member)) {
            put_value(key, found);
        }
        key.put(' ');
    }
    return std::string(key.text());
}

std::string searched_text_of(json_value item)
{
    std::string names;
    for (const char *const member : {"mac-address", "name", "domain", "port", "other-port", "vtep", "other-vtep"}) {
        names.append(text_of(item, member)).append("\n");
    }
    return lower_case(names);
}

void drop_last_character(std::string &text)
{
    while (!text.empty() && base::is_utf8_continuation(text.back())) {
        text.pop_back();
    }
    if (!text.empty()) {
        text.pop_back();
    }
}

void type(top_state &state, const key &pressed)
{
    switch (pressed.kind) {
    case key_kind::character: state.filter += pressed.text; break;
    case key_kind::backspace: drop_last_character(state.filter); break;
    case key_kind::escape: state.filter.clear(); [[fallthrough]];
    case key_kind::enter: state.is_typing = false; break;
    default: break;
    }
}

top_order next_order(const top_state &state)
{
    switch (state.order) {
    case top_order::changes: return state.has_entries ? top_order::entries : top_order::name;
    case top_order::entries: return top_order::name;
    case top_order::name: return top_order::changes;
    }
    return state.order;
}

void apply_character(top_state &state, const std::string &text)
{
    if (text == "q") {
        state.has_ended = true;
    } else if (text == "s") {
        state.order = next_order(state);
        state.offset = 0;
    } else if (text == "/") {
        state.is_typing = true;
    }
}

void scroll(top_state &state, key_kind pressed, size_t rows, size_t page)
{
    const auto back = [&](size_t count) { state.offset -= std::min(state.offset, count); };
    switch (pressed) {
    case key_kind::up: back(1); break;
    case key_kind::down: state.offset++; break;
    case key_kind::page_up: back(page); break;
    case key_kind::page_down: state.offset += page; break;
    case key_kind::home: state.offset = 0; break;
    case key_kind::end: state.offset = rows; break;
    default: break;
    }
}

} // namespace

top_row row_of(json_value item)
{
    const std::string_view address = text_of(item, "mac-address");
    const json_value per_minute = find(item, "per-minute");
    top_row row = {.key = key_of(item),
                   .name = std::string(address.empty() ? text_of(item, "name") : address),
                   .domain = std::string(text_of(item, "domain")),
                   .entries = natural_of(item, "entries"),
                   .changes = natural_of(item, per_minute ? "moves" : "changes")};
    if (per_minute && per_minute.is_text()) {
        row.rate = std::strtod(std::string(per_minute.text()).c_str(), nullptr);
    }
    row.searched = searched_text_of(item);
    row.item = json_text(item);
    return row;
}

void add_rates(top_sample &now, const top_sample &before, double seconds)
{
    std::unordered_map<std::string_view, uint64_t> changes;
    for (const top_row &row : before) {
        changes.emplace(row.key, row.changes);
    }
    for (top_row &row : now) {
        const auto found = changes.find(row.key);
        if (found != changes.end() && row.changes >= found->second && seconds > 0) {
            row.rate = static_cast<double>(row.changes - found->second) / seconds;
        }
    }
}

std::vector<const top_row *> pick_rows(const top_sample &sample, const top_state &state)
{
    const std::string wanted = lower_case(state.filter);
    std::vector<const top_row *> picked;
    for (const top_row &row : sample) {
        if (row.searched.find(wanted) != std::string::npos) {
            picked.push_back(&row);
        }
    }
    std::ranges::stable_sort(picked,
                             [&](const top_row *a, const top_row *b) { return is_before_by(state.order, *a, *b); });
    return picked;
}

std::string one_decimal(double number)
{
    constexpr size_t max_length = 340; // of the largest double
    std::array<char, max_length> text = {};
    std::snprintf(text.data(), text.size(), "%.1f", number);
    return text.data();
}

std::string item_with_rate(const top_row &row)
{
    if (!row.rate || !row.item.ends_with('}')) {
        return row.item;
    }
    return row.item.substr(0, row.item.size() - 1) + R"(,"changes-per-second":")" + one_decimal(*row.rate) + "\"}";
}

const char *word_of(top_order order)
{
    switch (order) {
    case top_order::changes: return "changes";
    case top_order::entries: return "entries";
    case top_order::name: return "name";
    }
    return "";
}

void clamp_offset(top_state &state, size_t rows, size_t page)
{
    state.offset = std::min(state.offset, rows - std::min(rows, page));
}

void apply(top_state &state, const key &pressed, size_t rows, size_t page)
{
    if (state.is_typing && (pressed.kind <= key_kind::backspace)) {
        type(state, pressed);
        state.offset = 0;
    } else if (pressed.kind == key_kind::character) {
        apply_character(state, pressed.text);
    } else {
        scroll(state, pressed.kind, rows, page);
    }
    clamp_offset(state, rows, page);
}

} // namespace l2fibctl
