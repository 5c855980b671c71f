// SPDX-License-Identifier: Apache-2.0

#include "forwarding/recorded/elements.h"

#include <cerrno>
#include <fstream>

#include <nlohmann/json.hpp>

#include "base/result.h"

namespace forwarding {

// Readers ask for a dozen members of each entry, most of which are not there: the lengths of the keys rule out most.
const value *element::member(const value &object, std::string_view key) const
{
    const value *const values = values_.data();
    const value *found = nullptr;
    for (const value *each = &object + 1; each < values + object.end; each = values + each->end) {
        if (each->text_at - each->key_at == key.size() && this->key(*each) == key) {
            found = each;
        }
    }
    return found;
}

namespace {

// Limits of one element. What `ip` and `bridge` print for one is shorter than 10 KiB; the limits keep a file that is
// something else from filling the memory.
constexpr size_t max_texts = size_t{16} << 20; // bytes
constexpr size_t max_values = size_t{1} << 20;

} // namespace

// Takes the parser's events and collects the values of one element.
class element_reader final : public nlohmann::json_sax<nlohmann::json> {
public:
    explicit element_reader(const std::function<void(const element &each)> &read)
        : read_(read)
    {}

    bool null() override { return add(value_kind::other); }
    bool boolean(bool truth) override { return add(value_kind::truth, truth ? 1 : 0); }
    bool number_integer(number_integer_t) override { return add(value_kind::other); }
    bool number_unsigned(number_unsigned_t number) override { return add(value_kind::number, number); }
    bool number_float(number_float_t, const string_t &) override { return add(value_kind::other); }
    bool binary(binary_t &) override { return add(value_kind::other); } // JSON has none
    bool string(string_t &text) override { return add(value_kind::text, 0, text); }
    bool start_object(size_t) override { return open(value_kind::object); }
    bool end_object() override { return close(); }
    bool start_array(size_t) override;
    bool end_array() override { return in_list_ && open_.empty() ? true : close(); }
    bool key(string_t &key) override;
    bool parse_error(size_t, const std::string &, const nlohmann::json::exception &error) override
    {
        throw malformed(std::string("is not JSON: ") + error.what());
    }

private:
    bool add(value_kind kind, uint64_t number = 0, std::string_view text = {});
    bool open(value_kind kind);
    bool close();
    uint32_t append(std::string_view text);
    void refuse_unless_object(value_kind kind) const;
    [[noreturn]] void refuse(const std::string &why) const;

    const std::function<void(const element &each)> &read_;
    element element_;
    std::vector<uint32_t> open_; // places of the lists and objects that have not ended
    uint32_t key_at_ = 0;        // where the key of the next value begins
    uint64_t count_ = 0;         // elements read
    bool in_list_ = false;
};

bool element_reader::start_array(size_t)
{
    if (!in_list_) {
        in_list_ = true;
        return true;
    }
    return open(value_kind::list);
}

bool element_reader::key(string_t &key)
{
    key_at_ = append(key);
    return true;
}

// Returns where the text begins.
uint32_t element_reader::append(std::string_view text)
{
    const size_t at = element_.texts_.size();
    if (text.size() > max_texts - at) {
        refuse("its texts are longer than " + std::to_string(max_texts) + " bytes");
    }
    element_.texts_ += text;
    return static_cast<uint32_t>(at);
}

void element_reader::refuse(const std::string &why) const
{
    throw malformed("element " + std::to_string(count_) + ": " + why);
}

void element_reader::refuse_unless_object(value_kind kind) const
{
    if (!in_list_) {
        throw malformed("is not a list of objects");
    }
    if (open_.empty() && kind != value_kind::object) {
        refuse("is not an object");
    }
}

bool element_reader::add(value_kind kind, uint64_t number, std::string_view text)
{
    refuse_unless_object(kind);
    if (element_.values_.size() == max_values) {
        refuse("it has more than " + std::to_string(max_values) + " values");
    }
    const uint32_t text_at = append(text);
    const auto text_end = static_cast<uint32_t>(element_.texts_.size());
    const auto end = static_cast<uint32_t>(element_.values_.size() + 1);
    element_.values_.push_back({kind, number, end, key_at_, text_at, text_end});
    key_at_ = text_end; // no key, unless one follows
    return true;
}

bool element_reader::open(value_kind kind)
{
    add(kind);
    open_.push_back(static_cast<uint32_t>(element_.values_.size() - 1));
    return true;
}

// Ends a list or an object. The end of an element passes it on.
bool element_reader::close()
{
    element_.values_[open_.back()].end = static_cast<uint32_t>(element_.values_.size());
    open_.pop_back();
    if (!open_.empty()) {
        return true;
    }
    try {
        read_(element_);
    } catch (const malformed &error) {
        refuse(error.what());
    }
    count_++;
    element_.values_.clear();
    element_.texts_.clear();
    key_at_ = 0;
    return true;
}

void read_elements(const std::string &path, const std::function<void(const element &each)> &read)
{
    std::ifstream file(path);
    if (!file) {
        throw malformed(base::system_failure(errno, path + ": cannot be read").text);
    }
    try {
        element_reader reader(read);
        nlohmann::json::sax_parse(file, &reader);
    } catch (const malformed &error) {
        throw malformed(path + ": " + error.what());
    } catch (const std::ios_base::failure &error) { // of a directory, or of a failing disk
        throw malformed(path + ": cannot be read: " + error.what());
    }
}

} // namespace forwarding
