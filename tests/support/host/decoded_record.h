// SPDX-License-Identifier: Apache-2.0

// Encoded records as text, for tests that look at what a handler filled in.
#pragma once

#include <cbor.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "tests/support/words.h"

namespace test {

struct cbor_release {
    void operator()(cbor_item_t *item) const { cbor_decref(&item); }
};

using cbor_ptr = std::unique_ptr<cbor_item_t, cbor_release>;

// Null if the bytes are not exactly one item.
inline cbor_ptr load_cbor(std::span<const uint8_t> data)
{
    cbor_load_result result{};
    cbor_ptr item(cbor_load(data.data(), data.size(), &result));
    return result.read == data.size() ? std::move(item) : nullptr;
}

inline std::string_view text_of(const cbor_item_t *item)
{
    return {reinterpret_cast<const char *>(cbor_string_handle(item)), cbor_string_length(item)};
}

// The fields of an encoded record, each as NAME=VALUE: numbers in decimal, texts in quotes, bytes in hexadecimal.
inline std::string record_text(std::span<const uint8_t> data)
{
    const cbor_ptr map = load_cbor(data);
    std::string text;
    for (const cbor_pair &pair : std::span(cbor_map_handle(map.get()), cbor_map_size(map.get()))) {
        const cbor_item_t *const value = pair.value;
        text += (text.empty() ? "" : " ") + std::string(text_of(pair.key)) + "=";
        text += cbor_isa_uint(value)     ? std::to_string(cbor_get_int(value))
                : cbor_isa_string(value) ? "'" + std::string(text_of(value)) + "'"
                                         : hex(cbor_bytestring_handle(value), cbor_bytestring_length(value));
    }
    return text;
}

// The value of a field in such a text; empty if the record does not have the field.
inline std::string value_of(const std::string &record, const std::string &name)
{
    const size_t before = (" " + record).find(" " + name + "=");
    const size_t value = before + name.size() + 1;
    return before == std::string::npos ? "" : record.substr(value, record.find(' ', value) - value);
}

} // namespace test
