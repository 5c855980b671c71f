// SPDX-License-Identifier: Apache-2.0

#include "cli/output/printer.h"

#include <algorithm>
#include <array>

#include "base/text.h"

namespace l2fibctl {

namespace {

constexpr unsigned gap = 2;          // spaces between columns, and the indentation of a record's parts
constexpr unsigned label_width = 24; // of a record's titles with their indentation
constexpr std::string_view no_value = "-";
constexpr std::string_view sum_title = "Sum";
constexpr std::string_view color_end = "\x1b[0m";

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

void write_object(text_buffer &to, const members &item, const selection &shown)
{
    char separator = '{';
    for (const shown_column &one : shown) {
        if (item[one.place]) {
            write_member(to, separator, item[one.place], *one.shown);
            separator = ',';
        }
    }
    to.put(separator == '{' ? "{}" : "}");
}

void write_json(text_buffer &to, json_value value, const resource *parts)
{
    if (parts != nullptr && value.is_object()) {
        write_object(to, members_of(value, *parts), select_columns(*parts, form::json, {}));
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
void end_cell(text_buffer &to, size_t start, size_t width, const shown_column &at)
{
    const size_t padding = width < at.width ? at.width - width : 0;
    if (at.shown->kind->is_right_aligned) {
        to.insert_spaces(start, padding);
        to.put_spaces(gap);
    } else {
        to.put_spaces(padding + gap);
    }
}

// `text` is plain ASCII.
void write_plain_cell(text_buffer &to, std::string_view text, const shown_column &at)
{
    const size_t start = to.size();
    to.put(text);
    end_cell(to, start, text.size(), at);
}

void end_line(text_buffer &to)
{
    to.shorten(to.text().find_last_not_of(' ') + 1);
    to.put('\n');
}

void write_titles(text_buffer &to, const selection &shown, unsigned indent)
{
    to.put_spaces(indent);
    for (const shown_column &one : shown) {
        write_plain_cell(to, one.shown->title, one);
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

// A cell with a colour or a name that may be cut.
void write_dressed_cell(text_buffer &to, json_value value, const shown_column &at, const look &wanted)
{
    const column_kind &kind = *at.shown->kind;
    const bool has_color = wanted.has_colors && kind.color != nullptr && value;
    const std::string_view color = has_color ? kind.color(value) : std::string_view();
    const size_t start = to.size();
    to.put(color);
    const size_t text_start = to.size();
    size_t width = write_value(to, value, kind);
    if (wanted.cuts_names && kind.is_name) {
        width = cut_middle(to, text_start, width, at.width);
    }
    to.put(color.empty() ? "" : color_end);
    end_cell(to, start, width, at);
}

void write_row(text_buffer &to, const members &item, const selection &shown, const look &wanted, unsigned indent)
{
    const bool is_dressed = wanted.has_colors || wanted.cuts_names;
    to.put_spaces(indent);
    for (const shown_column &one : shown) {
        if (is_dressed) {
            write_dressed_cell(to, item[one.place], one, wanted);
        } else {
            const size_t start = to.size();
            end_cell(to, start, write_value(to, item[one.place], *one.shown->kind), one);
        }
    }
    end_line(to);
}

void write_record(text_buffer &to, const members &item, const selection &shown, unsigned indent);

void write_parts(text_buffer &to, json_value value, const resource &shown, unsigned indent)
{
    const selection columns = select_columns(shown, form::text, {});
    if (shown.shown_as == layout::record) {
        write_record(to, members_of(value, shown), columns, indent);
        return;
    }
    write_titles(to, columns, indent);
    for (json_value element = value.first(); element != value.end(); element = element.next()) {
        write_row(to, members_of(element, shown), columns, {}, indent);
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

void write_label(text_buffer &to, std::string_view title, unsigned indent)
{
    to.put_spaces(indent);
    const size_t start = to.size();
    to.put(title);
    to.put(':');
    const size_t written = indent + to.size() - start;
    to.put_spaces(written < label_width ? label_width - written + gap : gap);
}

void write_record(text_buffer &to, const members &item, const selection &shown, unsigned indent)
{
    for (const shown_column &at : shown) {
        const column &one = *at.shown;
        const json_value value = item[at.place];
        if (!value) {
            continue;
        }
        write_label(to, one.title, indent);
        if (has_parts(value, one.parts)) {
            end_line(to);
            write_parts(to, value, *one.parts, indent + gap);
        } else {
            one.kind->format(to, value);
            end_line(to);
        }
    }
}

// ---- Sums ----

// A number of the API: 64 bits are a text. Other values count nothing.
uint64_t amount_of(json_value value)
{
    if (value && value.is_text()) {
        return base::parse_number(value.text()).value_or(0);
    }
    return value && value.kind() == json_kind::natural ? value.natural() : 0;
}

using column_sums = std::vector<uint64_t>; // of each selected column

void add_to_sums(column_sums &sums, const members &item, const selection &shown)
{
    for (size_t i = 0; i < sums.size(); i++) {
        sums[i] += amount_of(item[shown[i].place]);
    }
}

// The row's first cell is the title, unless that column has a sum itself.
void write_sums(text_buffer &to, const column_sums &sums, const selection &shown)
{
    for (size_t i = 0; i < sums.size(); i++) {
        const bool has_sum = shown[i].shown->kind->is_summed;
        write_plain_cell(to, has_sum ? std::to_string(sums[i]) : i == 0 ? std::string(sum_title) : "", shown[i]);
    }
    end_line(to);
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

item_printer::item_printer(form shown_as, const resource &printed, const look &wanted, output &out)
    : shown_as_(shown_as)
    , resource_(printed)
    , look_(wanted)
    , selection_(select_columns(printed, shown_as, wanted))
    , out_(out)
{
    const auto is_summed = [](const shown_column &one) { return one.shown->kind->is_summed; };
    if (shown_as == form::text && std::ranges::any_of(selection_, is_summed)) {
        sums_.resize(selection_.size());
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
    if (shown_as_ == form::text && resource_.shown_as == layout::record) {
        write_record(to, found, selection_, 0);
    } else if (shown_as_ == form::text) {
        if (items_ == 0 && look_.has_titles) {
            write_titles(to, selection_, 0);
        }
        write_row(to, found, selection_, look_, 0);
        add_to_sums(sums_, found, selection_);
    } else {
        to.put(separator());
        write_object(to, found, selection_);
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
    if (!sums_.empty() && items_ > 0) {
        write_sums(out_.pending(), sums_, selection_);
    }
    if (shown_as_ == form::text && look_.has_titles && items_ > 0 && !resource_.note.empty()) {
        out_.pending().put(resource_.note);
        out_.pending().put('\n');
    }
    out_.flush();
}

} // namespace l2fibctl
