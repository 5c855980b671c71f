// SPDX-License-Identifier: Apache-2.0

// The way back from an encoded record to the record, for tests that look at what a handler filled in.
#pragma once

#include <cbor.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "host/database/parcel_schema.h"
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

inline void store_field(void *record, const host::parcel_field &field, const cbor_item_t *value)
{
    uint8_t *place = static_cast<uint8_t *>(record) + field.offset;
    if (field.kind == host::parcel_kind::number) {
        const uint64_t number = cbor_get_int(value);
        std::memcpy(place, &number, field.width);
    } else if (field.kind == host::parcel_kind::bytes) {
        std::memcpy(place, cbor_bytestring_handle(value), field.width);
    } else {
        const char *copy = strdup(std::string(text_of(value)).c_str());
        std::memcpy(place, &copy, sizeof(copy));
    }
}

// Fills the zeroed record. False if the bytes are not a map of fields that the record has.
inline bool decode_record(std::span<const uint8_t> data, void *record, const parcel_schema_t *schema)
{
    const cbor_ptr map = load_cbor(data);
    if (map == nullptr || !cbor_isa_map(map.get())) {
        return false;
    }
    const host::parcel_field *field = schema->fields;
    const host::parcel_field *const end = field + schema->field_count;
    for (const cbor_pair &pair : std::span(cbor_map_handle(map.get()), cbor_map_size(map.get()))) {
        while (field != end && (text_of(pair.key) != field->name || !host::parcel_expects(record, *field))) {
            field++;
        }
        if (field == end) {
            return false;
        }
        store_field(record, *field, pair.value);
    }
    return true;
}

} // namespace test
