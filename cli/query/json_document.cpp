// SPDX-License-Identifier: Apache-2.0

#include <algorithm>
#include <bit>
#include <charconv>
#include <climits>
#include <cstring>
#include <limits>
#include <nlohmann/json.hpp>
#include <utility>

#include "base/text.h"
#include "cli/query/json.h"

namespace l2fibctl {

namespace {

constexpr size_t max_depth = 1023; // of arrays and objects inside each other
constexpr size_t min_nodes = 64;   // of a short answer
constexpr char del = '\x7f';

// Returns whether JSON can hold the character without an escape.
bool is_plain(char c)
{
    return c >= ' ' && c < del && c != '"' && c != '\\';
}

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

} // namespace

// Tests eight characters at once: an operation on all bytes of a word
// sets the high bit of the first byte that is not plain, and of no byte before it.
const char *skip_plain(const char *at, const char *end)
{
    static_assert(std::endian::native == std::endian::little, "the first character is the lowest byte of a word");
    constexpr uint64_t each_byte = 0x0101010101010101;
    constexpr uint64_t high_bits = 0x80 * each_byte;
    constexpr char flip = '"' ^ ' '; // turns a quotation mark into a space, and a space into a quotation mark
    uint64_t word = 0;
    for (; static_cast<size_t>(end - at) >= sizeof(word); at += sizeof(word)) {
        std::memcpy(&word, at, sizeof(word));
        const uint64_t is_quote_or_control = (word ^ each_byte * flip) - each_byte * (' ' + 1);
        const uint64_t is_backslash = (word ^ each_byte * '\\') - each_byte;
        const uint64_t is_del = word + each_byte;
        const uint64_t special = (is_quote_or_control | is_backslash | is_del | word) & high_bits;
        if (special != 0) {
            return at + std::countr_zero(special) / CHAR_BIT;
        }
    }
    return std::find_if_not(at, end, is_plain);
}

size_t json_names::number_of(std::string_view name)
{
    size_t number = 0;
    while (number < size() && (*this)[number] != name) {
        number++;
    }
    if (number == size() && !is_full()) {
        quoted_.push_back('"' + std::string(name) + "\":");
    }
    return number;
}

uint64_t json_value::natural() const
{
    uint64_t number = node_->value.natural;
    if (is_plain()) {
        std::from_chars(digits().data(), digits().data() + digits().size(), number);
    }
    return number;
}

void json_nodes::grow()
{
    nodes_.resize(std::max(min_nodes, 2 * size_));
}

// Reads JSON as the daemon writes it: without spaces and escapes, and with natural numbers only. That is several times
// as fast as the library, which reads everything else.
class json_document::plain_reader {
public:
    plain_reader(std::string_view source, json_document &to)
        : at_(source.data())
        , end_(source.data() + source.size())
        , to_(to)
    {}

    // Returns false at everything else, whether it is JSON or not. The nodes are worth nothing then.
    bool read() { return read_value(json_names::max_names, 0) && at_ == end_; }

private:
    static constexpr unsigned max_nesting = 16; // deeper than the API; each level is a recursion

    void add(json_kind kind, json_node::content value, uint16_t name)
    {
        to_.nodes_.add({.value = value, .kind = kind, .name = name});
    }

    // Adds the source from `start` up to here.
    void add_source(json_kind kind, const char *start, bool is_plain_source, uint16_t name)
    {
        to_.nodes_.add({{.source = start}, static_cast<uint32_t>(at_ - start), kind, is_plain_source, name});
    }

    bool take(char expected)
    {
        const bool is_next = at_ != end_ && *at_ == expected;
        at_ += is_next ? 1 : 0;
        return is_next;
    }

    bool take(std::string_view expected)
    {
        const bool is_next = std::string_view(at_, end_).starts_with(expected);
        at_ += is_next ? expected.size() : 0;
        return is_next;
    }

    // Moves to the quotation mark at the end of a text. Returns false if the text has escapes or is not JSON.
    bool skip_text(bool &is_plain_text)
    {
        at_ = skip_plain(at_, end_);
        while (at_ != end_ && *at_ != '"') {
            const size_t length = base::utf8_length({at_, end_});
            if (length == 0 || *at_ == '\\' || (*at_ >= 0 && *at_ < ' ')) {
                return false;
            }
            is_plain_text = false;
            at_ = skip_plain(at_ + length, end_);
        }
        return true;
    }

    bool read_text(uint16_t name)
    {
        const char *start = ++at_;
        bool is_plain_text = true;
        if (!skip_text(is_plain_text)) {
            return false;
        }
        add_source(json_kind::text, start, is_plain_text, name);
        return take('"');
    }

    // Leaves numbers that may be beyond 64 bits to the library.
    bool read_natural(uint16_t name)
    {
        const char *start = at_;
        while (at_ != end_ && is_digit(*at_)) {
            at_++;
        }
        const auto digits = at_ - start;
        add_source(json_kind::natural, start, true, name);
        return digits == 1 || (digits > 1 && digits <= std::numeric_limits<uint64_t>::digits10 && *start != '0');
    }

    bool read_word(uint16_t name)
    {
        const bool is_true = take("true");
        const bool is_boolean = is_true || take("false");
        add(is_boolean ? json_kind::boolean : json_kind::null, {.boolean = is_true}, name);
        return is_boolean || take("null");
    }

    // The objects of a list have the same names in one order, so the name is most often the one that followed in the
    // object before.
    bool read_name(uint16_t &name)
    {
        uint16_t &guess = to_.following_[name];
        if (guess >= to_.names_.size() || !take(to_.names_.quoted(guess))) {
            bool is_plain_text = true;
            const char *start = at_ + 1;
            if (!take('"') || !skip_text(is_plain_text)) {
                return false;
            }
            guess = static_cast<uint16_t>(to_.names_.number_of({start, at_}));
            if (!take("\":")) {
                return false;
            }
        }
        name = guess;
        return name < json_names::max_names;
    }

    bool read_object(uint16_t name, unsigned nesting)
    {
        const size_t start = to_.nodes_.size();
        add(json_kind::object, {.names = &to_.names_}, name);
        at_++;
        if (take('}')) {
            return true;
        }
        uint16_t member = json_names::max_names;
        do {
            if (!read_name(member) || !read_value(member, nesting + 1)) {
                return false;
            }
        } while (take(','));
        to_.nodes_.end_container(start);
        return take('}');
    }

    bool read_array(uint16_t name, unsigned nesting)
    {
        const size_t start = to_.nodes_.size();
        add(json_kind::array, {}, name);
        at_++;
        if (take(']')) {
            return true;
        }
        do {
            if (!read_value(json_names::max_names, nesting + 1)) {
                return false;
            }
        } while (take(','));
        to_.nodes_.end_container(start);
        return take(']');
    }

    bool read_value(uint16_t name, unsigned nesting)
    {
        if (at_ == end_ || nesting > max_nesting) {
            return false;
        }
        switch (*at_) {
        case '"': return read_text(name);
        case '{': return read_object(name, nesting);
        case '[': return read_array(name, nesting);
        case 't':
        case 'f':
        case 'n': return read_word(name);
        default: return read_natural(name);
        }
    }

    const char *at_;
    const char *end_;
    json_document &to_;
};

// The functions that the library calls for each element, in the order of the text. It stops when one returns false.
struct json_document::builder {
    json_document &to;
    std::vector<size_t> containers = {};   // the places of those that have not ended
    uint16_t name = json_names::max_names; // of the next value

    bool add(json_kind kind, json_node::content value, size_t size = 1)
    {
        to.nodes_.add({value, static_cast<uint32_t>(size), kind, false, std::exchange(name, json_names::max_names)});
        return true;
    }

    bool open(json_kind kind, json_node::content value)
    {
        containers.push_back(to.nodes_.size());
        return add(kind, value) && containers.size() <= max_depth;
    }

    bool close()
    {
        to.nodes_.end_container(containers.back());
        containers.pop_back();
        return true;
    }

    bool add_natural(uint64_t value) { return add(json_kind::natural, {.natural = value}); }

    // The library prescribes these names.
    bool start_object(size_t /*size*/) { return open(json_kind::object, {.names = &to.names_}); }
    bool end_object() { return close(); }
    bool start_array(size_t /*size*/) { return open(json_kind::array, {}); }
    bool end_array() { return close(); }
    bool null() { return add(json_kind::null, {}); }
    bool boolean(bool value) { return add(json_kind::boolean, {.boolean = value}); }
    bool number_unsigned(uint64_t value) { return add_natural(value); }
    bool binary(nlohmann::json::binary_t & /*bytes*/) { return false; } // JSON has none
    bool parse_error(size_t /*place*/, const std::string & /*token*/, const nlohmann::json::exception & /*error*/)
    {
        return false;
    }

    bool key(const std::string &text)
    {
        name = static_cast<uint16_t>(to.names_.number_of(text));
        return name < json_names::max_names;
    }

    bool string(std::string &text)
    {
        const std::string &kept = to.texts_.emplace_back(std::move(text));
        return add(json_kind::text, {.source = kept.data()}, kept.size());
    }

    bool number_integer(int64_t value)
    {
        return value < 0 ? add(json_kind::negative, {.negative = value}) : add_natural(static_cast<uint64_t>(value));
    }

    // The library turns whole numbers beyond 64 bits into doubles. The API has none, so they are errors.
    bool number_float(double value, const std::string &text)
    {
        return text.find_first_of(".eE") != std::string::npos && add(json_kind::real, {.real = value});
    }
};

// The library takes a zero byte for the end of the text, and skips a byte order mark. Neither is JSON.
bool json_document::read_by_library(std::string_view text)
{
    constexpr char byte_order_mark[] = "\xef\xbb\xbf";
    const bool is_other = text.find('\0') != std::string_view::npos || text.starts_with(byte_order_mark);
    nodes_.clear();
    builder handler{*this};
    return !is_other && nlohmann::json::sax_parse(text, &handler);
}

bool json_document::read(std::string_view text)
{
    nodes_.clear();
    texts_.clear();
    return plain_reader(text, *this).read() || read_by_library(text);
}

json_value json_document::parse(std::string_view text)
{
    bool is_json = read(text);
    if (!is_json && names_.is_full()) {
        names_.clear(); // those of earlier texts
        following_.fill(json_names::max_names);
        is_json = read(text);
    }
    return is_json ? nodes_.root() : json_value();
}

} // namespace l2fibctl
