// SPDX-License-Identifier: Apache-2.0

// The requester's side of the record encoder: what an encoded record holds, and the way back into a record.
//
// An encoded record is one map of names to values: numbers are unsigned integers, addresses byte strings in wire order,
// texts text strings. A field that its record does not carry (the value that belongs to another segment type, an absent
// text) is left out, and so is whatever is always zero. Names are those of platform/parcel.h.
//
// Texts are carried as the bytes that they are in the record, which need not be any character set.
//
// Threads: any. Statuses are 0 for success or an error number: EINVAL for a null argument or an unknown schema, EBADMSG
// for anything but a whole encoded record without more behind it, ENOMEM.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "platform/parcel.h"

namespace host {

enum class parcel_kind : uint8_t { number, bytes, text };

// One field of an encoded record; the views are into the encoded bytes.
struct parcel_value {
    std::string_view name;
    parcel_kind kind;
    uint64_t number;       // of a number
    std::string_view text; // of a text or of bytes
};

// Lists the fields of an encoded record, in the order of its schema, without being told which schema it is.
// `values` is emptied first, and left empty on failure.
L2FIB_EXPORT uint32_t parcel_read(std::span<const uint8_t> data, std::vector<parcel_value> &values);

// Fills a record, whose size is that of the schema's record, from its encoded form. The texts are heap copies that
// parcel_free_indirections releases. A record that the schema does not describe exactly is EBADMSG: a field that it
// does not know or does not expect for these values, one that is missing, repeated or too large. On failure the
// record is all zero.
L2FIB_EXPORT uint32_t parcel_decode(std::span<const uint8_t> data, void *record, const parcel_schema_t *schema);

} // namespace host
