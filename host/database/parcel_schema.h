// SPDX-License-Identifier: Apache-2.0

// What a schema of the record encoder is: the list of a record's fields.
//
// The encoder turns a record into one CBOR map of field names to values. Numbers become unsigned integers, addresses
// byte strings in wire order, texts text strings with the bytes of the record, in whatever character set they are. A
// record that has a VTEP at 10.1.1.1 on a port with the attributes 1 and 2 becomes
//
//      {"seg_info1": 1, "seg_info2": 2, "vtep_addr": h'0a010101'}
//
// A field whose condition does not hold is left out, and so is an absent text.
//
// Threads: any. Schemas are constants.
#pragma once

#include <cstdint>
#include <cstring>

#include "platform/parcel.h"

namespace host {

enum class parcel_kind : uint8_t { number, bytes, text };

// The field exists if the 32-bit number at offset `selector` has a value whose bit is set in `values`. With
// no_selector the field always exists.
struct parcel_condition {
    static constexpr uint16_t no_selector = 0xffff;

    uint16_t selector;
    uint32_t values;
};

struct parcel_field {
    const char *name;
    parcel_kind kind;
    uint16_t offset;
    uint16_t width; // bytes in the record; of a text: the width of its pointer
    parcel_condition when;
};

} // namespace host

// The fields stand in the order of the encoding. A field stands behind the selector of its condition.
struct parcel_schema {
    const host::parcel_field *fields;
    uint32_t field_count;
    uint32_t record_size;
};

namespace host {

// Reads a value at any alignment.
template <typename Type>
Type parcel_load(const uint8_t *place)
{
    Type value;
    std::memcpy(&value, place, sizeof(value));
    return value;
}

// Whether the condition of a field holds for a record.
inline bool parcel_expects(const void *record, const parcel_field &field)
{
    constexpr uint32_t value_bits = 32;
    if (field.when.selector == parcel_condition::no_selector) {
        return true;
    }
    const auto value = parcel_load<uint32_t>(static_cast<const uint8_t *>(record) + field.when.selector);
    return value < value_bits && (field.when.values >> value & 1) != 0;
}

} // namespace host
