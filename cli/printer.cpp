#include "cli/printer.h"

#include <nlohmann/json.hpp>

#include "daemon/visible.h"

namespace l2fibctl {

namespace {

using nlohmann::json;

constexpr unsigned gap = 2;
constexpr unsigned label_width = 24; // of a record's titles

const json *find(const json &item, const column &of)
{
    const auto found = item.is_object() ? item.find(of.member) : item.end();
    return item.is_object() && found != item.end() ? &*found : nullptr;
}

// ---- JSON ----

void write_json(std::string &to, const json &value, const resource *parts);

void write_object(std::string &to, const json &item, const resource &of)
{
    std::string_view separator = "{";
    for (const column &one : of.columns) {
        if (const json *value = find(item, one)) {
            to.append(separator).append("\"").append(one.member).append("\":");
            write_json(to, *value, one.parts);
            separator = ",";
        }
    }
    to += separator == "{" ? "{}" : "}";
}

// Characters beyond ASCII are escaped, which keeps a terminal safe and the text the same.
void write_json(std::string &to, const json &value, const resource *parts)
{
    if (parts != nullptr && value.is_object()) {
        write_object(to, value, *parts);
    } else if (parts != nullptr && value.is_array()) {
        std::string_view separator;
        to += '[';
        for (const json &element : value) {
            to += separator;
            write_json(to, element, parts);
            separator = ",";
        }
        to += ']';
    } else {
        to += value.dump(-1, ' ', true, json::error_handler_t::replace);
    }
}

// ---- Text ----

void write_cell(std::string &to, std::string_view text, const column_kind &kind)
{
    const size_t width = l2fibd::width_of(text);
    const size_t padding = width < kind.width ? kind.width - width : 0;
    to.append(kind.right ? padding : 0, ' ').append(text).append((kind.right ? 0 : padding) + gap, ' ');
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

void write_row(std::string &to, const json &item, const resource &of, unsigned indent)
{
    to.append(indent, ' ');
    for (const column &one : of.columns) {
        if (!one.title.empty()) {
            const json *value = find(item, one);
            write_cell(to, value != nullptr ? one.kind->format(*value) : "-", *one.kind);
        }
    }
    end_line(to);
}

void write_record(std::string &to, const json &item, const resource &of, unsigned indent);

void write_parts(std::string &to, const json &value, const resource &of, unsigned indent)
{
    if (of.shown_as == layout::record) {
        write_record(to, value, of, indent);
        return;
    }
    write_titles(to, of, indent);
    for (const json &element : value) {
        write_row(to, element, of, indent);
    }
}

void write_record(std::string &to, const json &item, const resource &of, unsigned indent)
{
    for (const column &one : of.columns) {
        const json *value = find(item, one);
        if (one.title.empty() || value == nullptr) {
            continue;
        }
        const bool has_parts = one.parts != nullptr && !value->empty();
        to.append(indent, ' ');
        write_cell(to, std::string(one.title) + ":", {label_width - indent, false, nullptr});
        to += has_parts ? "" : one.kind->format(*value);
        end_line(to);
        if (has_parts) {
            write_parts(to, *value, *one.parts, indent + gap);
        }
    }
}

} // namespace

void printer::item(const json &value)
{
    line_.clear();
    if (shown_in_ == form::text) {
        if (what_.shown_as == layout::table && items_ == 0) {
            write_titles(line_, what_, 0);
        }
        const auto write = what_.shown_as == layout::table ? write_row : write_record;
        write(line_, value, what_, 0);
    } else {
        const bool in_array = shown_in_ != form::json_lines && what_.shown_as == layout::table;
        line_ += !in_array ? "" : items_ == 0 ? "[" : ",\n";
        write_object(line_, value, what_);
        line_ += in_array ? "" : "\n";
    }
    items_++;
    out_.put(line_);
}

void printer::end()
{
    const bool in_array =
        (shown_in_ == form::json || shown_in_ == form::bridge_json) && what_.shown_as == layout::table;
    if (in_array) {
        out_.put(items_ == 0 ? "[]\n" : "]\n");
    }
    out_.flush();
}

} // namespace l2fibctl
