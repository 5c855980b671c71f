// SPDX-License-Identifier: Apache-2.0

#include "platform/parcel.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <span>
#include <string_view>

#include <cbor.h>

#include "host/database/parcel_host.h"
#include "host/out_of_memory.h"

namespace host {

// A field is there when the 32-bit number at offset `selector` has one of the values whose bits are set in `values`.
struct parcel_condition {
    uint16_t selector;
    uint32_t values;
};

// A field's name as it is encoded, in a piece of fixed size: copied whole, then cut to its length. A page of records is
// encoded under the table lock, and the names make up most of the calls.
struct parcel_key {
    static constexpr uint8_t text_string = 0x60; // the first byte of a text of less than 24 bytes, plus their number

    char encoded[16] = {};
    uint8_t length = 1;

    template <size_t Size>
    consteval parcel_key(const char (&name)[Size])
    {
        static_assert(Size <= sizeof(encoded));
        encoded[0] = static_cast<char>(text_string + Size - 1);
        for (; length < Size; length++) {
            encoded[length] = name[length - 1];
        }
    }

    constexpr std::string_view name() const { return {encoded + 1, size_t{length} - 1}; }
};

struct parcel_field {
    parcel_key key;
    parcel_kind kind;
    uint16_t offset;
    uint16_t width; // of a text: that of its pointer
    parcel_condition when;
};

} // namespace host

// The fields are in the order in which they are encoded, each behind the one that its condition looks at, which is
// always there.
struct parcel_schema {
    const host::parcel_field *fields;
    uint32_t field_count;
    uint32_t record_size;
};

namespace {

using host::parcel_condition;
using host::parcel_field;
using host::parcel_kind;
using host::parcel_value;

using mac_info = l2fib_mac_info_t;
using mac_count = l2fib_mac_count_info_t;
using vtep_info = l2fib_vtep_info_t;

// ---- The three records ----

constexpr uint16_t no_selector = 0xffff;
constexpr parcel_condition always{no_selector, 0};

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
    {"aux_value", number, AT(mac_info, aux_value.value16), aux(1)},
    {"aux_value", number, AT(mac_info, aux_value.value32), aux(2)},
    {"aux_value_alt", number, AT(mac_info, aux_value_alt), aux(3)},
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

constexpr size_t max_fields = 32;

constexpr bool is_selector(const parcel_field &field, size_t offset)
{
    return field.offset == offset && field.width == sizeof(uint32_t) && field.when.selector == no_selector;
}

template <size_t Count>
constexpr bool is_sound(const parcel_field (&fields)[Count], size_t record_size)
{
    for (size_t i = 0; i < Count; i++) {
        bool selected = fields[i].when.selector == no_selector;
        for (size_t j = 0; j < i && !selected; j++) {
            selected = is_selector(fields[j], fields[i].when.selector);
        }
        if (!selected || fields[i].offset + size_t{fields[i].width} > record_size) {
            return false;
        }
    }
    return Count <= max_fields;
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

// ---- Access to a record's fields ----

const uint8_t *place_of(const void *record, const parcel_field &field)
{
    return static_cast<const uint8_t *>(record) + field.offset;
}

uint8_t *place_of(void *record, const parcel_field &field)
{
    return static_cast<uint8_t *>(record) + field.offset;
}

template <typename Type>
Type load(const uint8_t *place)
{
    Type value;
    memcpy(&value, place, sizeof(value));
    return value;
}

uint64_t number_at(const uint8_t *place, uint16_t width)
{
    switch (width) {
    case 1: return *place;
    case 2: return load<uint16_t>(place);
    case 4: return load<uint32_t>(place);
    default: return load<uint64_t>(place);
    }
}

void store_number(uint8_t *place, uint16_t width, uint64_t value)
{
    memcpy(place, &value, width); // the host is little-endian
}

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__);

bool fits(uint64_t value, uint16_t width)
{
    return width >= sizeof(value) || value >> (8 * width) == 0;
}

// Whether the record's values ask for this field; what its condition looks at has been filled before.
bool is_expected(const void *record, const parcel_field &field)
{
    if (field.when.selector == no_selector) {
        return true;
    }
    const auto value = load<uint32_t>(static_cast<const uint8_t *>(record) + field.when.selector);
    return value < 32 && (field.when.values >> value & 1) != 0;
}

// ---- Encoding ----

// A field that the record has, and how many bytes its text or address takes.
struct present_field {
    const parcel_field *field;
    size_t length;
};

struct present_fields {
    std::array<present_field, max_fields> fields;
    size_t count;
    size_t most_bytes; // that their encoding can take
};

constexpr size_t head_size = 9; // the most that the head of an item takes

void find_present(present_fields &present, const void *record, const parcel_schema &schema)
{
    present.count = 0;
    present.most_bytes = head_size;
    for (const parcel_field &field : std::span(schema.fields, schema.field_count)) {
        if (!is_expected(record, field)) {
            continue;
        }
        size_t length = field.width;
        if (field.kind == text) {
            const char *source = load<const char *>(place_of(record, field));
            if (source == nullptr) {
                continue;
            }
            length = strlen(source);
        }
        present.fields[present.count++] = {&field, length};
        present.most_bytes += sizeof(field.key.encoded) + head_size + length;
    }
}

uint8_t *append(uint8_t *end, const void *source, size_t length)
{
    memcpy(end, source, length);
    return end + length;
}

uint8_t *append_field(uint8_t *end, const void *record, const present_field &present)
{
    const parcel_field &field = *present.field;
    memcpy(end, field.key.encoded, sizeof(field.key.encoded));
    end += field.key.length;
    const uint8_t *place = place_of(record, field);
    switch (field.kind) {
    case parcel_kind::number: return end + cbor_encode_uint(number_at(place, field.width), end, head_size);
    case parcel_kind::bytes:
        end += cbor_encode_bytestring_start(present.length, end, head_size);
        return append(end, place, present.length);
    default:
        end += cbor_encode_string_start(present.length, end, head_size);
        return append(end, load<const char *>(place), present.length);
    }
}

// Encodes the fields into a buffer that has room for `most_bytes`, and returns how many bytes they take.
size_t encode_into(uint8_t *buffer, const void *record, const present_fields &present)
{
    uint8_t *end = buffer + cbor_encode_map_start(present.count, buffer, head_size);
    for (const present_field &field : std::span(present.fields.data(), present.count)) {
        end = append_field(end, record, field);
    }
    return static_cast<size_t>(end - buffer);
}

// ---- Decoding ----

enum class item_kind : uint8_t { other, unsigned_number, byte_string, text_string, map };

struct item {
    item_kind kind;
    uint64_t number; // of a map: its pairs
    std::string_view text;
};

template <typename Number>
void take_number(void *context, Number value)
{
    *static_cast<item *>(context) = {item_kind::unsigned_number, value, {}};
}

template <item_kind Kind>
void take_text(void *context, cbor_data source, size_t length)
{
    *static_cast<item *>(context) = {Kind, 0, {reinterpret_cast<const char *>(source), length}};
}

void take_map(void *context, size_t pairs)
{
    *static_cast<item *>(context) = {item_kind::map, pairs, {}};
}

cbor_callbacks callbacks_of_items()
{
    cbor_callbacks callbacks = cbor_empty_callbacks;
    callbacks.uint8 = take_number<uint8_t>;
    callbacks.uint16 = take_number<uint16_t>;
    callbacks.uint32 = take_number<uint32_t>;
    callbacks.uint64 = take_number<uint64_t>;
    callbacks.string = take_text<item_kind::text_string>;
    callbacks.byte_string = take_text<item_kind::byte_string>;
    callbacks.map_start = take_map;
    return callbacks;
}

// Takes the next item off the input; of kind `other` when there is none, or none that a record is made of.
item take_item(std::span<const uint8_t> &input)
{
    static const cbor_callbacks callbacks = callbacks_of_items();
    item taken{item_kind::other, 0, {}};
    const cbor_decoder_result result = cbor_stream_decode(input.data(), input.size(), &callbacks, &taken);
    if (result.status != CBOR_DECODER_FINISHED) {
        return {item_kind::other, 0, {}};
    }
    input = input.subspan(result.read);
    return taken;
}

bool take_field(std::span<const uint8_t> &input, parcel_value &value)
{
    const item name = take_item(input);
    const item content = take_item(input);
    if (name.kind != item_kind::text_string) {
        return false;
    }
    value = {name.text, number, content.number, content.text};
    switch (content.kind) {
    case item_kind::unsigned_number: return true;
    case item_kind::byte_string: value.kind = bytes; return true;
    case item_kind::text_string: value.kind = text; return true;
    default: return false;
    }
}

// Calls `take` with each field of the input, as long as it returns true. False when it did not, or the input is not
// one whole map of fields.
template <typename Take>
bool read_fields(std::span<const uint8_t> input, Take take)
{
    const item map = take_item(input);
    if (map.kind != item_kind::map) {
        return false;
    }
    for (uint64_t left = map.number; left > 0; left--) {
        parcel_value value;
        if (!take_field(input, value) || !take(value)) {
            return false;
        }
    }
    return input.empty();
}

bool store_text(uint8_t *place, std::string_view source)
{
    if (source.find('\0') != std::string_view::npos) {
        return false;
    }
    auto *copy = static_cast<char *>(malloc(source.size() + 1));
    if (copy == nullptr) {
        throw std::bad_alloc();
    }
    copy[source.copy(copy, source.size())] = '\0';
    memcpy(place, &copy, sizeof(copy));
    return true;
}

bool store_field(void *record, const parcel_field &field, const parcel_value &value)
{
    if (value.kind != field.kind) {
        return false;
    }
    uint8_t *place = place_of(record, field);
    if (field.kind == text) {
        return store_text(place, value.text);
    }
    if (field.kind == bytes) {
        if (value.text.size() != field.width) {
            return false;
        }
        memcpy(place, value.text.data(), field.width);
        return true;
    }
    if (!fits(value.number, field.width)) {
        return false;
    }
    store_number(place, field.width, value.number);
    return true;
}

// The first field from `from` on that the record expects; texts that are not the named one count as absent.
uint32_t next_field(const parcel_schema &schema, const void *record, uint32_t from, std::string_view name)
{
    while (from < schema.field_count) {
        const parcel_field &field = schema.fields[from];
        if (is_expected(record, field) && (field.kind != text || field.key.name() == name)) {
            break;
        }
        from++;
    }
    return from;
}

bool decode_into(void *record, const parcel_schema &schema, std::span<const uint8_t> data)
{
    uint32_t next = 0;
    const auto take = [&](const parcel_value &value) {
        next = next_field(schema, record, next, value.name);
        return next < schema.field_count && schema.fields[next].key.name() == value.name
               && store_field(record, schema.fields[next++], value);
    };
    return read_fields(data, take) && next_field(schema, record, next, {}) == schema.field_count;
}

} // namespace

uint32_t parcel_encode(void **data, uint32_t *length, const void *record, const parcel_schema_t *schema)
{
    if (data == nullptr || length == nullptr || record == nullptr || !is_known(schema)) {
        return EINVAL;
    }
    present_fields present;
    find_present(present, record, *schema);
    if (present.most_bytes > std::numeric_limits<uint32_t>::max()) {
        return EOVERFLOW;
    }
    uint8_t at_hand[1024]; // enough for texts of ordinary length; the buffer then has the exact size
    const bool is_at_hand = present.most_bytes <= sizeof(at_hand);
    const size_t at_hand_length = is_at_hand ? encode_into(at_hand, record, present) : 0;
    auto *buffer = static_cast<uint8_t *>(malloc(is_at_hand ? at_hand_length : present.most_bytes));
    if (buffer == nullptr) {
        return ENOMEM;
    }
    if (is_at_hand) {
        memcpy(buffer, at_hand, at_hand_length);
    }
    *length = static_cast<uint32_t>(is_at_hand ? at_hand_length : encode_into(buffer, record, present));
    *data = buffer;
    return 0;
}

uint32_t parcel_free_indirections(void *record, const parcel_schema_t *schema)
{
    if (record == nullptr || !is_known(schema)) {
        return EINVAL;
    }
    for (const parcel_field &field : std::span(schema->fields, schema->field_count)) {
        if (field.kind != text) {
            continue;
        }
        uint8_t *place = place_of(record, field);
        free(load<char *>(place));
        memset(place, 0, sizeof(char *));
    }
    return 0;
}

uint32_t host::parcel_read(std::span<const uint8_t> data, std::vector<parcel_value> &values)
{
    values.clear();
    const auto take = [&values](const parcel_value &value) {
        values.push_back(value);
        return true;
    };
    const uint32_t status = or_out_of_memory([&]() -> uint32_t { return read_fields(data, take) ? 0 : EBADMSG; });
    if (status != 0) {
        values.clear();
    }
    return status;
}

uint32_t host::parcel_decode(std::span<const uint8_t> data, void *record, const parcel_schema_t *schema)
{
    if (record == nullptr || !is_known(schema)) {
        return EINVAL;
    }
    memset(record, 0, schema->record_size);
    const uint32_t status =
        or_out_of_memory([&]() -> uint32_t { return decode_into(record, *schema, data) ? 0 : EBADMSG; });
    if (status != 0) {
        parcel_free_indirections(record, schema);
        memset(record, 0, schema->record_size);
    }
    return status;
}
