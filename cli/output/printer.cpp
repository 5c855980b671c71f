// SPDX-License-Identifier: Apache-2.0

#include "cli/output/printer.h"

#include <algorithm>
#include <array>

#include "base/visible.h"

namespace l2fibctl {

namespace {

constexpr unsigned gap = 2;          // spaces between columns, and the indentation of a record's parts
constexpr unsigned label_width = 24; // of a record's titles with their indentation
constexpr std::string_view no_value = "-";

// An item's values by column. A column without a value stays empty.
using members = std::array<std::optional<json_value>, max_columns>;

// Sorts an item's members into the columns. The daemon sends members mostly in the order of the columns, so each search
// begins behind the previous match. For the columns a, b, c, d and the item {"b":1,"c":2,"a":3} it compares
//
//      b with a, b;  c with c;  a with d, a
members members_of(const json_value &item, const resource &shown)
{
    members found;
    const size_t count = shown.columns.size();
    size_t next = 0;
    simdjson::dom::object object;
    if (item.get(object) != simdjson::SUCCESS) {
        return found;
    }
    for (const auto &[name, value] : object) {
        for (size_t tried = 0; tried < count; tried++) {
            const size_t candidate = next + tried < count ? next + tried : next + tried - count;
            if (shown.columns[candidate].member == name) {
                found[candidate] = value;
                next = candidate + 1 < count ? candidate + 1 : 0;
                break;
            }
        }
    }
    return found;
}

// ---- JSON ----

void write_json(std::string &to, const json_value &value, const resource *parts);

void write_object(std::string &to, const members &item, const resource &shown)
{
    std::string_view separator = "{\"";
    for (size_t i = 0; i < shown.columns.size(); i++) {
        if (item[i]) {
            to.append(separator).append(shown.columns[i].member).append("\":");
            write_json(to, *item[i], shown.columns[i].parts);
            separator = ",\"";
        }
    }
    to += separator.front() == '{' ? "{}" : "}";
}

void write_json(std::string &to, const json_value &value, const resource *parts)
{
    if (parts != nullptr && value.is_object()) {
        write_object(to, members_of(value, *parts), *parts);
    } else if (parts != nullptr && value.is_array()) {
        std::string_view separator;
        to += '[';
        for (const json_value element : simdjson::dom::array(value)) {
            to += separator;
            write_json(to, element, parts);
            separator = ",";
        }
        to += ']';
    } else {
        put_value(to, value);
    }
}

// ---- Text ----

// Pads the cell whose text begins at `start` to its column's width, and appends the gap.
void end_cell(std::string &to, size_t start, const column_kind &kind)
{
    const size_t width = base::width_of(std::string_view(to).substr(start));
    const size_t padding = width < kind.width ? kind.width - width : 0;
    if (kind.is_right_aligned) {
        to.insert(start, padding, ' ').append(gap, ' ');
    } else {
        to.append(padding + gap, ' ');
    }
}

void write_cell(std::string &to, std::string_view text, const column_kind &kind)
{
    to += text;
    end_cell(to, to.size() - text.size(), kind);
}

void end_line(std::string &to)
{
    to.erase(to.find_last_not_of(' ') + 1);
    to += '\n';
}

void write_titles(std::string &to, const resource &shown, unsigned indent)
{
    to.append(indent, ' ');
    for (const column &one : shown.columns) {
        if (!one.title.empty()) {
            write_cell(to, one.title, *one.kind);
        }
    }
    end_line(to);
}

void write_row(std::string &to, const members &item, const resource &shown, unsigned indent)
{
    to.append(indent, ' ');
    for (size_t i = 0; i < shown.columns.size(); i++) {
        const column &one = shown.columns[i];
        if (one.title.empty()) {
            continue;
        }
        const size_t start = to.size();
        if (item[i]) {
            one.kind->format(to, *item[i]);
        } else {
            to += no_value;
        }
        end_cell(to, start, *one.kind);
    }
    end_line(to);
}

void write_record(std::string &to, const members &item, const resource &shown, unsigned indent);

void write_parts(std::string &to, const json_value &value, const resource &shown, unsigned indent)
{
    if (shown.shown_as == layout::record) {
        write_record(to, members_of(value, shown), shown, indent);
        return;
    }
    write_titles(to, shown, indent);
    for (const json_value element : simdjson::dom::array(value)) {
        write_row(to, members_of(element, shown), shown, indent);
    }
}

// Returns whether the value is an object or array as `parts` expect, and is not empty.
bool has_parts(const json_value &value, const resource *parts)
{
    if (parts == nullptr) {
        return false;
    }
    return parts->shown_as == layout::record ? value.is_object() && simdjson::dom::object(value).size() > 0
                                             : value.is_array() && simdjson::dom::array(value).size() > 0;
}

void write_record(std::string &to, const members &item, const resource &shown, unsigned indent)
{
    for (size_t i = 0; i < shown.columns.size(); i++) {
        const column &one = shown.columns[i];
        if (one.title.empty() || !item[i]) {
            continue;
        }
        to.append(indent, ' ');
        write_cell(to, std::string(one.title) + ":", {label_width - indent, false, nullptr});
        if (has_parts(*item[i], one.parts)) {
            end_line(to);
            write_parts(to, *item[i], *one.parts, indent + gap);
        } else {
            one.kind->format(to, *item[i]);
            end_line(to);
        }
    }
}

} // namespace

bool item_printer::in_array() const
{
    return (shown_as_ == form::json || shown_as_ == form::bridge_json) && resource_.shown_as == layout::table;
}

// The text before the next item.
std::string_view item_printer::separator() const
{
    return !in_array() ? "" : items_ == 0 ? "[" : ",\n";
}

void item_printer::set_scope(std::string_view text)
{
    std::string json;
    put_text(json, text);
    scope_ = scope_parser_.parse(json).value();
}

void item_printer::item(const json_value &value)
{
    members found = members_of(value, resource_);
    if (scope_) {
        const auto scope_column = std::ranges::find(resource_.columns, scope_member, &column::member);
        found[static_cast<size_t>(scope_column - resource_.columns.begin())] = scope_;
    }
    line_.clear();
    if (shown_as_ != form::text) {
        write_object(line_, found, resource_);
        ready_item(line_);
        return;
    }
    if (resource_.shown_as == layout::table && items_ == 0) {
        write_titles(line_, resource_, 0);
    }
    const auto write = resource_.shown_as == layout::table ? write_row : write_record;
    write(line_, found, resource_, 0);
    items_++;
    out_.put(line_);
}

void item_printer::ready_item(std::string_view json)
{
    out_.put(separator());
    out_.put(json);
    out_.put(in_array() ? "" : "\n");
    items_++;
}

void item_printer::end()
{
    if (in_array()) {
        out_.put(items_ == 0 ? "[]\n" : "]\n");
    }
    out_.flush();
}

} // namespace l2fibctl
