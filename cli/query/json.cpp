// SPDX-License-Identifier: Apache-2.0

#include "cli/query/json.h"

#include <boost/json/basic_parser_impl.hpp>
#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>

#include "cli/failure.h"

namespace l2fibctl {

namespace {

namespace parsing = boost::json;

constexpr size_t max_number_length = 32; // the longest number, a double, needs 24 characters
constexpr size_t max_depth = 1023;       // of arrays and objects inside each other
constexpr int in_one_line = -1;          // nlohmann's indentation

// Returns whether JSON can hold the character without an escape.
bool is_plain(char c)
{
    return c >= ' ' && c < '\x7f' && c != '"' && c != '\\';
}

template <typename Number>
void put_number(text_buffer &to, Number number)
{
    char *digits = to.room_for(max_number_length);
    to.end_at(std::to_chars(digits, digits + max_number_length, number).ptr);
}

void put_array(text_buffer &to, json_value array)
{
    char separator = '[';
    for (json_value element = array.first(); element != array.end(); element = element.next()) {
        to.put(separator);
        put_value(to, element);
        separator = ',';
    }
    to.put(array.is_empty() ? "[]" : "]");
}

void put_object(text_buffer &to, json_value object)
{
    char separator = '{';
    for (json_value name = object.first(); name != object.end(); name = name.next().next()) {
        to.put(separator);
        put_text(to, name.text());
        to.put(':');
        put_value(to, name.next());
        separator = ',';
    }
    to.put(object.is_empty() ? "{}" : "}");
}

} // namespace

// The functions that the parser calls for each element, in the order of the text. A function that returns false sets
// the error with which the parser stops.
struct json_document::builder {
    using text_part = parsing::string_view;
    using parse_error = parsing::error_code;

    // The sizes are limited by the size of a body.
    static constexpr size_t max_object_size = SIZE_MAX;
    static constexpr size_t max_array_size = SIZE_MAX;
    static constexpr size_t max_key_size = SIZE_MAX;
    static constexpr size_t max_string_size = SIZE_MAX;

    json_document &to;
    std::string_view source;
    std::string parts = {}; // of the text or number that has not ended

    bool add(json_kind kind, json_node::content value, size_t size = 1)
    {
        to.nodes_.push_back({value, static_cast<uint32_t>(size), kind});
        return true;
    }

    bool open(json_kind kind)
    {
        to.open_.push_back(to.nodes_.size());
        return add(kind, {.natural = 0});
    }

    bool close()
    {
        const size_t start = to.open_.back();
        to.open_.pop_back();
        to.nodes_[start].size = static_cast<uint32_t>(to.nodes_.size() - start);
        return true;
    }

    bool add_part(text_part part)
    {
        parts += part;
        return true;
    }

    // Whether the parser found the text as it is, without escapes.
    bool is_in_source(text_part text) const
    {
        const std::less_equal<> is_before;
        return is_before(source.data(), text.data())
               && is_before(text.data() + text.size(), source.data() + source.size());
    }

    bool add_text(text_part last_part)
    {
        std::string_view text = last_part;
        if (!parts.empty() || !is_in_source(last_part)) {
            parts += last_part;
            text = to.unescaped_.emplace_back(std::exchange(parts, {}));
        }
        return add(json_kind::text, {.text = text.data()}, text.size());
    }

    bool on_document_begin(parse_error & /*error*/) { return true; }
    bool on_document_end(parse_error & /*error*/) { return true; }
    bool on_object_begin(parse_error & /*error*/) { return open(json_kind::object); }
    bool on_object_end(size_t /*count*/, parse_error & /*error*/) { return close(); }
    bool on_array_begin(parse_error & /*error*/) { return open(json_kind::array); }
    bool on_array_end(size_t /*count*/, parse_error & /*error*/) { return close(); }
    bool on_key_part(text_part part, size_t /*size*/, parse_error & /*error*/) { return add_part(part); }
    bool on_key(text_part part, size_t /*size*/, parse_error & /*error*/) { return add_text(part); }
    bool on_string_part(text_part part, size_t /*size*/, parse_error & /*error*/) { return add_part(part); }
    bool on_string(text_part part, size_t /*size*/, parse_error & /*error*/) { return add_text(part); }
    bool on_number_part(text_part part, parse_error & /*error*/) { return add_part(part); }
    bool on_bool(bool value, parse_error & /*error*/) { return add(json_kind::boolean, {.boolean = value}); }
    bool on_null(parse_error & /*error*/) { return add(json_kind::null, {.natural = 0}); }
    bool on_comment_part(text_part /*part*/, parse_error & /*error*/) { return true; }
    bool on_comment(text_part /*part*/, parse_error & /*error*/) { return true; }

    bool on_uint64(uint64_t value, text_part /*part*/, parse_error & /*error*/)
    {
        parts.clear();
        return add(json_kind::natural, {.natural = value});
    }

    bool on_int64(int64_t value, text_part /*part*/, parse_error & /*error*/)
    {
        parts.clear();
        return value < 0 ? add(json_kind::negative, {.negative = value})
                         : add(json_kind::natural, {.natural = static_cast<uint64_t>(value)});
    }

    // The parser rounds doubles less exactly than the standard library, and it turns whole numbers beyond 64 bits into
    // doubles. The API has neither, so such a whole number and a double without end are errors.
    bool on_double(double /*value*/, text_part last_part, parse_error &error)
    {
        parts += last_part;
        double value = 0;
        const auto parsed = std::from_chars(parts.data(), parts.data() + parts.size(), value);
        const bool is_whole = parts.find_first_of(".eE") == std::string::npos;
        parts.clear();
        if (is_whole || parsed.ec != std::errc()) {
            error = parsing::error::exponent_overflow;
            return false;
        }
        return add(json_kind::real, {.real = value});
    }
};

json_value json_document::parse(std::string_view text)
{
    nodes_.clear();
    open_.clear();
    unescaped_.clear();
    parsing::parse_options options;
    options.max_depth = max_depth;
    parsing::basic_parser<builder> parser(options, builder{*this, text});
    parsing::error_code error;
    const size_t parsed = parser.write_some(false, text.data(), text.size(), error);
    return !error && parsed == text.size() ? json_value(nodes_.data()) : json_value();
}

void fail_damaged()
{
    throw failure(
        exit_status::cut,
        "the daemon's answer is damaged: expected the JSON of the API; compare the versions of l2fibd and l2fibctl");
}

json_value find(json_value object, std::string_view member)
{
    if (!object.is_object()) {
        return {};
    }
    json_value name = object.first();
    while (name != object.end() && name.text() != member) {
        name = name.next().next();
    }
    return name != object.end() ? name.next() : json_value();
}

std::string_view text_of(json_value object, std::string_view member)
{
    const json_value found = find(object, member);
    if (found && !found.is_text()) {
        fail_damaged();
    }
    return found ? found.text() : "";
}

uint64_t number_of(json_value object, std::string_view member)
{
    const json_value found = find(object, member);
    if (found && found.kind() != json_kind::natural) {
        fail_damaged();
    }
    return found ? found.natural() : 0;
}

void put_text(text_buffer &to, std::string_view text)
{
    constexpr size_t quotes = 2;
    char *at = to.room_for(text.size() + quotes);
    *at++ = '"';
    const auto copied = std::ranges::find_if_not(text, is_plain);
    if (copied == text.end()) {
        at = std::copy(text.begin(), copied, at);
        *at++ = '"';
        to.end_at(at);
    } else {
        using nlohmann::json;
        to.put(json(text).dump(in_one_line, ' ', true, json::error_handler_t::replace));
    }
}

void put_value(text_buffer &to, json_value value)
{
    switch (value.kind()) {
    case json_kind::array: put_array(to, value); break;
    case json_kind::object: put_object(to, value); break;
    case json_kind::text: put_text(to, value.text()); break;
    case json_kind::natural: put_number(to, value.natural()); break;
    case json_kind::negative: put_number(to, value.negative()); break;
    case json_kind::real: put_number(to, value.real()); break;
    case json_kind::boolean: to.put(value.boolean() ? "true" : "false"); break;
    case json_kind::null: to.put("null"); break;
    }
}

} // namespace l2fibctl
