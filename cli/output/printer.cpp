// SPDX-License-Identifier: Apache-2.0

#include "cli/output/printer.h"

#include <algorithm>
#include <array>

#include "base/visible.h"

namespace l2fibctl {

namespace {

constexpr unsigned gap = 2;
constexpr unsigned label_width = 24; // of a record's titles
constexpr std::string_view no_value = "-";

// The values of an item, by column.
using members = std::array<std::optional<json_value>, most_columns>;

// The daemon sends members mostly in the order of the columns, so each search begins behind the last find.
members members_of(const json_value &item, const resource &of)
{
    members found;
    const size_t count = of.columns.size();
    size_t at = 0;
    simdjson::dom::object object;
    if (item.get(object) != simdjson::SUCCESS) {
        return found;
    }
    for (const auto &[name, value] : object) {
        for (size_t tried = 0; tried < count; tried++) {
            const size_t candidate = at + tried < count ? at + tried : at + tried - count;
            if (of.columns[candidate].member == name) {
                found[candidate] = value;
                at = candidate + 1 < count ? candidate + 1 : 0;
                break;
            }
        }
    }
    return found;
}

// ---- JSON ----

void write_json(std::string &to, const json_value &value, const resource *parts);

void write_object(std::string &to, const members &item, const resource &of)
{
    std::string_view separator = "{\"";
    for (size_t i = 0; i < of.columns.size(); i++) {
        if (item[i]) {
            to.append(separator).append(of.columns[i].member).append("\":");
            write_json(to, *item[i], of.columns[i].parts);
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

// Fills up the cell whose text begins at `start`.
void end_cell(std::string &to, size_t start, const column_kind &kind)
{
    const size_t width = base::width_of(std::string_view(to).substr(start));
    const size_t padding = width < kind.width ? kind.width - width : 0;
    if (kind.right) {
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

void write_titles(std::string &to, const resource &of, unsigned indent)
{
    to.append(indent, ' ');
    for (const column &one : of.columns) {
        if (!one.title.empty()) {
            write_cell(to, one.title, *one.kind);
        }
    }
    end_line(to);
}

void write_row(std::string &to, const members &item, const resource &of, unsigned indent)
{
    to.append(indent, ' ');
    for (size_t i = 0; i < of.columns.size(); i++) {
        const column &one = of.columns[i];
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

void write_record(std::string &to, const members &item, const resource &of, unsigned indent);

void write_parts(std::string &to, const json_value &value, const resource &of, unsigned indent)
{
    if (of.shown_as == layout::record) {
        write_record(to, members_of(value, of), of, indent);
        return;
    }
    write_titles(to, of, indent);
    for (const json_value element : simdjson::dom::array(value)) {
        write_row(to, members_of(element, of), of, indent);
    }
}

// Whether the value is of the parts' type and has any.
bool has_parts(const json_value &value, const resource *parts)
{
    if (parts == nullptr) {
        return false;
    }
    return parts->shown_as == layout::record ? value.is_object() && simdjson::dom::object(value).size() > 0
                                             : value.is_array() && simdjson::dom::array(value).size() > 0;
}

void write_record(std::string &to, const members &item, const resource &of, unsigned indent)
{
    for (size_t i = 0; i < of.columns.size(); i++) {
        const column &one = of.columns[i];
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

bool printer::in_array() const
{
    return (shown_in_ == form::json || shown_in_ == form::bridge_json) && what_.shown_as == layout::table;
}

// What stands before the next item.
std::string_view printer::separator() const
{
    return !in_array() ? "" : items_ == 0 ? "[" : ",\n";
}

void printer::set_scope(std::string_view text)
{
    std::string json;
    put_text(json, text);
    scope_ = scope_parser_.parse(json).value();
}

void printer::item(const json_value &value)
{
    members found = members_of(value, what_);
    if (scope_) {
        const auto column_of_scope = std::ranges::find(what_.columns, scope_member, &column::member);
        found[static_cast<size_t>(column_of_scope - what_.columns.begin())] = scope_;
    }
    line_.clear();
    if (shown_in_ != form::text) {
        write_object(line_, found, what_);
        ready_item(line_);
        return;
    }
    if (what_.shown_as == layout::table && items_ == 0) {
        write_titles(line_, what_, 0);
    }
    const auto write = what_.shown_as == layout::table ? write_row : write_record;
    write(line_, found, what_, 0);
    items_++;
    out_.put(line_);
}

void printer::ready_item(std::string_view json)
{
    out_.put(separator());
    out_.put(json);
    out_.put(in_array() ? "" : "\n");
    items_++;
}

void printer::end()
{
    if (in_array()) {
        out_.put(items_ == 0 ? "[]\n" : "]\n");
    }
    out_.flush();
}

} // namespace l2fibctl
