// SPDX-License-Identifier: Apache-2.0

#include "platform/parcel.h"

#include <cbor.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <span>

#include "host/database/parcel_schema.h"

namespace {

using host::parcel_condition;
using host::parcel_field;
using host::parcel_kind;
using host::parcel_load;

using mac_info = l2fib_mac_info_t;
using mac_count = l2fib_mac_count_info_t;
using vtep_info = l2fib_vtep_info_t;

// ---- The three records ----

constexpr parcel_condition always{parcel_condition::no_selector, 0};

template <typename... Values>
constexpr parcel_condition when(size_t selector, Values... values)
{
    return {static_cast<uint16_t>(selector), ((uint32_t{1} << values) | ...)};
}

template <typename... Types>
constexpr parcel_condition segment(Types... types)
{
    return when(offsetof(mac_info, seg_type), types...);
}

constexpr parcel_condition aux(uint32_t kind)
{
    return when(offsetof(mac_info, aux_kind), kind);
}

// Values of aux_kind.
constexpr uint32_t aux_kind_16_bits = 1;
constexpr uint32_t aux_kind_32_bits = 2;
constexpr uint32_t aux_kind_alternative = 3;

constexpr auto any_port = segment(EDM_SEG_TYPE_INTERFACE, EDM_SEG_TYPE_5, EDM_SEG_TYPE_VXLAN, EDM_SEG_TYPE_20);
constexpr auto interface = segment(EDM_SEG_TYPE_INTERFACE);
constexpr auto pseudowire = segment(EDM_SEG_TYPE_PSEUDOWIRE);
constexpr auto vxlan = segment(EDM_SEG_TYPE_VXLAN);
constexpr auto has_bmac = when(offsetof(mac_info, bmac_valid), 1u);

constexpr auto number = parcel_kind::number;
constexpr auto bytes = parcel_kind::bytes;
constexpr auto text = parcel_kind::text;

#define AT(record, member) offsetof(record, member), sizeof(record::member)

constexpr parcel_field mac_info_fields[] = {
    {"mac_flags", number, AT(mac_info, mac_flags), always},
    {"mac_flags2", number, AT(mac_info, mac_flags2), always},
    {"hw_valid", number, AT(mac_info, hw_valid), always},
    {"ext_attr", number, AT(mac_info, ext_attr), always},
    {"bridge_id", number, AT(mac_info, bridge_id), always},
    {"bd_name", text, AT(mac_info, bd_name), always},
    {"xcid", number, AT(mac_info, xcid), always},
    {"seg_type", number, AT(mac_info, seg_type), always},
    {"seg_id", number, AT(mac_info, seg.seg_id_wide), pseudowire},
    {"seg_id", number, AT(mac_info, seg.narrow.seg_id), any_port},
    {"seg_sub_id", number, AT(mac_info, seg.narrow.sub.seg_sub_id16), interface},
    {"seg_sub_id", number, AT(mac_info, seg.narrow.sub.seg_sub_id), vxlan},
    {"seg_attr", number, AT(mac_info, seg_attr), pseudowire},
    {"seg_attr_kind", number, AT(mac_info, seg_attr_kind), pseudowire},
    {"bmac_valid", number, AT(mac_info, bmac_valid), always},
    {"bmac", bytes, AT(mac_info, bmac), has_bmac},
    {"vtep_addr", bytes, AT(mac_info, vtep_addr), vxlan},
    {"vtep_seg_info", number, AT(mac_info, vtep_seg_info), vxlan},
    {"node_id", number, AT(mac_info, node_id), always},
    {"time_str", text, AT(mac_info, time_str), always},
    {"age", number, AT(mac_info, age), always},
    {"prev_mac", text, AT(mac_info, prev_mac), always},
    {"next_mac", text, AT(mac_info, next_mac), always},
    {"aux_kind", number, AT(mac_info, aux_kind), always},
    {"aux_value", number, AT(mac_info, aux_value.value16), aux(aux_kind_16_bits)},
    {"aux_value", number, AT(mac_info, aux_value.value32), aux(aux_kind_32_bits)},
    {"aux_value_alt", number, AT(mac_info, aux_value_alt), aux(aux_kind_alternative)},
};

constexpr parcel_field mac_count_fields[] = {
    {"mac_cnt_sum", number, AT(mac_count, mac_cnt_sum), always},
    {"mac_cnt_plain", number, AT(mac_count, mac_cnt_plain), always},
    {"mac_cnt_f2", number, AT(mac_count, mac_cnt_f2), always},
    {"mac_cnt_f4", number, AT(mac_count, mac_cnt_f4), always},
    {"mac_cnt_f60", number, AT(mac_count, mac_cnt_f60), always},
};

constexpr parcel_field vtep_info_fields[] = {
    {"seg_info1", number, AT(vtep_info, seg_info1), always},
    {"seg_info2", number, AT(vtep_info, seg_info2), always},
    {"vtep_addr", bytes, AT(vtep_info, vtep_addr), always},
};

#undef AT

constexpr bool is_selector(const parcel_field &field, size_t offset)
{
    return field.offset == offset && field.width == sizeof(uint32_t)
           && field.when.selector == parcel_condition::no_selector;
}

// Whether each field lies in its record, and comes after the selector of its condition.
template <size_t Count>
constexpr bool is_sound(const parcel_field (&fields)[Count], size_t record_size)
{
    for (size_t i = 0; i < Count; i++) {
        bool selected = fields[i].when.selector == parcel_condition::no_selector;
        for (size_t j = 0; j < i && !selected; j++) {
            selected = is_selector(fields[j], fields[i].when.selector);
        }
        if (!selected || fields[i].offset + size_t{fields[i].width} > record_size) {
            return false;
        }
    }
    return true;
}

static_assert(is_sound(mac_info_fields, sizeof(mac_info)));
static_assert(is_sound(mac_count_fields, sizeof(mac_count)));
static_assert(is_sound(vtep_info_fields, sizeof(vtep_info)));

} // namespace

const parcel_schema l2fib_bridge_mac_info_parcel{mac_info_fields, std::size(mac_info_fields), sizeof(mac_info)};
const parcel_schema l2fib_bridge_hw_mac_count_info_parcel{mac_count_fields, std::size(mac_count_fields),
                                                          sizeof(mac_count)};
const parcel_schema l2fib_vtep_info_parcel{vtep_info_fields, std::size(vtep_info_fields), sizeof(vtep_info)};

namespace {

bool is_known(const parcel_schema *schema)
{
    return schema == &l2fib_bridge_mac_info_parcel || schema == &l2fib_bridge_hw_mac_count_info_parcel
           || schema == &l2fib_vtep_info_parcel;
}

// ---- Encoding ----

constexpr size_t max_head_size = 9; // bytes that a CBOR head takes: the type, and a number of up to 64 bits

uint64_t number_at(const uint8_t *place, uint16_t width)
{
    switch (width) {
    case 1: return *place;
    case 2: return parcel_load<uint16_t>(place);
    case 4: return parcel_load<uint32_t>(place);
    default: return parcel_load<uint64_t>(place);
    }
}

const char *text_at(const void *record, const parcel_field &field)
{
    return parcel_load<const char *>(static_cast<const uint8_t *>(record) + field.offset);
}

// A field is left out if its condition does not hold, or its text is absent.
bool is_present(const void *record, const parcel_field &field)
{
    return host::parcel_expects(record, field) && (field.kind != text || text_at(record, field) != nullptr);
}

// The bytes of a field's value behind the head.
size_t length_of(const void *record, const parcel_field &field)
{
    return field.kind == text ? strlen(text_at(record, field)) : field.width;
}

struct encoded_size {
    size_t field_count = 0;
    size_t max_bytes = max_head_size;
};

encoded_size size_of(const void *record, std::span<const parcel_field> fields)
{
    encoded_size size;
    for (const parcel_field &field : fields) {
        if (is_present(record, field)) {
            size.field_count++;
            size.max_bytes += max_head_size + strlen(field.name) + max_head_size + length_of(record, field);
        }
    }
    return size;
}

uint8_t *append(uint8_t *end, const void *source, size_t length)
{
    memcpy(end, source, length);
    return end + length;
}

uint8_t *append_text(uint8_t *end, const char *source)
{
    const size_t length = strlen(source);
    end += cbor_encode_string_start(length, end, max_head_size);
    return append(end, source, length);
}

uint8_t *append_field(uint8_t *end, const void *record, const parcel_field &field)
{
    const uint8_t *place = static_cast<const uint8_t *>(record) + field.offset;
    end = append_text(end, field.name);
    switch (field.kind) {
    case number: return end + cbor_encode_uint(number_at(place, field.width), end, max_head_size);
    case bytes:
        end += cbor_encode_bytestring_start(field.width, end, max_head_size);
        return append(end, place, field.width);
    case text: break;
    }
    return append_text(end, text_at(record, field));
}

// Encodes a record into a buffer of at least `max_bytes`, and returns the number of bytes used.
size_t encode_into(uint8_t *buffer, const void *record, std::span<const parcel_field> fields, size_t field_count)
{
    uint8_t *end = buffer + cbor_encode_map_start(field_count, buffer, max_head_size);
    for (const parcel_field &field : fields) {
        if (is_present(record, field)) {
            end = append_field(end, record, field);
        }
    }
    return static_cast<size_t>(end - buffer);
}

} // namespace

uint32_t parcel_encode(void **data, uint32_t *length, const void *record, const parcel_schema_t *schema)
{
    if (data == nullptr || length == nullptr || record == nullptr || !is_known(schema)) {
        return EINVAL;
    }
    const std::span fields(schema->fields, schema->field_count);
    const encoded_size size = size_of(record, fields);
    if (size.max_bytes > std::numeric_limits<uint32_t>::max()) {
        return EOVERFLOW;
    }
    auto *const buffer = static_cast<uint8_t *>(malloc(size.max_bytes));
    if (buffer == nullptr) {
        return ENOMEM;
    }
    *length = static_cast<uint32_t>(encode_into(buffer, record, fields, size.field_count));
    *data = buffer;
    return 0;
}

uint32_t parcel_free_indirections(void *record, const parcel_schema_t *schema)
{
    if (record == nullptr || !is_known(schema)) {
        return EINVAL;
    }
    for (const parcel_field &field : std::span(schema->fields, schema->field_count)) {
        if (field.kind == text) {
            uint8_t *const place = static_cast<uint8_t *>(record) + field.offset;
            free(parcel_load<char *>(place));
            memset(place, 0, sizeof(char *));
        }
    }
    return 0;
}
