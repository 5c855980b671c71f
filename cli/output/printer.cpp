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

// An item's values by column. A column without a member has no value.
using members = std::array<json_value, max_columns + 1>; // the last place is for members without a column

// Returns the place of the column, or max_columns if the resource has no such column.
size_t column_of(std::string_view name, const resource &shown)
{
    const auto found = std::ranges::find(shown.columns, name, &column::member);
    return found != shown.columns.end() ? static_cast<size_t>(found - shown.columns.begin()) : max_columns;
}

// Sorts an item's members into the columns. If a member is there twice, the last one counts.
members members_of(json_value item, const resource &shown, column_places &places)
{
    members found;
    if (!item.is_object()) {
        return found;
    }
    places.follow(item.names(), shown);
    for (json_value member = item.first(); member != item.end(); member = member.next()) {
        found[places.of(member)] = member;
    }
    return found;
}

// The same for a value of which the answer has few.
members members_of(json_value item, const resource &shown)
{
    column_places places;
    return members_of(item, shown, places);
}

// ---- JSON ----

void write_json(text_buffer &to, json_value value, const resource *parts);

void write_member(text_buffer &to, char separator, json_value value, const column &shown)
{
    const std::string_view plain = value.plain_member(shown.member);
    if (plain.empty()) {
        put_name(to, separator, shown.member);
        write_json(to, value, shown.parts);
    } else {
        to.put(separator);
        to.put(plain);
    }
}

void write_object(text_buffer &to, const members &item, const resource &shown)
{
    char separator = '{';
    for (size_t i = 0; i < shown.columns.size(); i++) {
        if (item[i]) {
            write_member(to, separator, item[i], shown.columns[i]);
            separator = ',';
        }
    }
    to.put(separator == '{' ? "{}" : "}");
}

void write_json(text_buffer &to, json_value value, const resource *parts)
{
    if (parts != nullptr && value.is_object()) {
        write_object(to, members_of(value, *parts), *parts);
    } else if (parts != nullptr && value.is_array()) {
        to.put('[');
        for (json_value element = value.first(); element != value.end(); element = element.next()) {
            to.put(element == value.first() ? "" : ",");
            write_json(to, element, parts);
        }
        to.put(']');
    } else {
        put_value(to, value);
    }
}

// ---- Text ----

// Pads the cell whose text begins at `start` and is `width` characters wide to its column's width. Appends the gap.
void end_cell(text_buffer &to, size_t start, size_t width, const column_kind &kind)
{
    const size_t padding = width < kind.width ? kind.width - width : 0;
    if (kind.is_right_aligned) {
        to.insert_spaces(start, padding);
        to.put_spaces(gap);
    } else {
        to.put_spaces(padding + gap);
    }
}

// `title` is plain ASCII.
void write_title(text_buffer &to, std::string_view title, const column_kind &kind)
{
    const size_t start = to.size();
    to.put(title);
    end_cell(to, start, title.size(), kind);
}

void end_line(text_buffer &to)
{
    to.shorten(to.text().find_last_not_of(' ') + 1);
    to.put('\n');
}

void write_titles(text_buffer &to, const resource &shown, unsigned indent)
{
    to.put_spaces(indent);
    for (const column &one : shown.columns) {
        if (!one.title.empty()) {
            write_title(to, one.title, *one.kind);
        }
    }
    end_line(to);
}

size_t write_value(text_buffer &to, json_value value, const column_kind &kind)
{
    if (value) {
        return kind.format(to, value);
    }
    to.put(no_value);
    return no_value.size();
}

void write_row(text_buffer &to, const members &item, const resource &shown, unsigned indent)
{
    to.put_spaces(indent);
    for (size_t i = 0; i < shown.columns.size(); i++) {
        const column &one = shown.columns[i];
        if (!one.title.empty()) {
            const size_t start = to.size();
            end_cell(to, start, write_value(to, item[i], *one.kind), *one.kind);
        }
    }
    end_line(to);
}

void write_record(text_buffer &to, const members &item, const resource &shown, unsigned indent);

void write_parts(text_buffer &to, json_value value, const resource &shown, unsigned indent)
{
    if (shown.shown_as == layout::record) {
        write_record(to, members_of(value, shown), shown, indent);
        return;
    }
    write_titles(to, shown, indent);
    for (json_value element = value.first(); element != value.end(); element = element.next()) {
        write_row(to, members_of(element, shown), shown, indent);
    }
}

// Returns whether the value is an object or array as `parts` expect, and is not empty.
bool has_parts(json_value value, const resource *parts)
{
    if (parts == nullptr) {
        return false;
    }
    const bool fits = parts->shown_as == layout::record ? value.is_object() : value.is_array();
    return fits && !value.is_empty();
}

void write_record(text_buffer &to, const members &item, const resource &shown, unsigned indent)
{
    for (size_t i = 0; i < shown.columns.size(); i++) {
        const column &one = shown.columns[i];
        if (one.title.empty() || !item[i]) {
            continue;
        }
        to.put_spaces(indent);
        write_title(to, std::string(one.title) + ":", {label_width - indent, false, nullptr});
        if (has_parts(item[i], one.parts)) {
            end_line(to);
            write_parts(to, item[i], *one.parts, indent + gap);
        } else {
            one.kind->format(to, item[i]);
            end_line(to);
        }
    }
}

} // namespace

void column_places::follow(const json_names &names, const resource &shown)
{
    if (&names == names_ && names.generation() == generation_ && names.size() == places_.size()) {
        return;
    }
    names_ = &names;
    generation_ = names.generation();
    places_.clear();
    for (size_t number = 0; number < names.size(); number++) {
        places_.push_back(static_cast<uint8_t>(column_of(names[number], shown)));
    }
}

bool item_printer::in_array() const
{
    return (shown_as_ == form::json || shown_as_ == form::bridge_json) && resource_.shown_as == layout::table;
}

// The text before the next item.
std::string_view item_printer::separator() const
{
    return !in_array() ? "" : items_ == 0 ? "[" : ",\n";
}

// The text behind each item of a JSON form.
std::string_view item_printer::terminator() const
{
    return in_array() ? "" : "\n";
}

void item_printer::set_scope(std::string_view text)
{
    scope_text_.shorten(0);
    put_text(scope_text_, text);
    scope_ = scope_document_.parse(scope_text_.text());
}

void item_printer::item(json_value value)
{
    members found = members_of(value, resource_, places_);
    if (scope_) {
        found[column_of(scope_member, resource_)] = scope_;
    }
    text_buffer &to = out_.pending();
    if (shown_as_ == form::text) {
        if (resource_.shown_as == layout::table && items_ == 0) {
            write_titles(to, resource_, 0);
        }
        const auto write = resource_.shown_as == layout::table ? write_row : write_record;
        write(to, found, resource_, 0);
    } else {
        to.put(separator());
        write_object(to, found, resource_);
        to.put(terminator());
    }
    end_item();
}

void item_printer::ready_item(std::string_view json)
{
    text_buffer &to = out_.pending();
    to.put(separator());
    to.put(json);
    to.put(terminator());
    end_item();
}

void item_printer::end_item()
{
    items_++;
    out_.end_item();
}

void item_printer::end()
{
    if (in_array()) {
        out_.pending().put(items_ == 0 ? "[]\n" : "]\n");
    }
    out_.flush();
}

} // namespace l2fibctl
