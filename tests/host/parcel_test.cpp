// SPDX-License-Identifier: Apache-2.0

// Records to bytes.

#include "platform/parcel.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/decoded_record.h"
#include "tests/support/words.h"

namespace {

using namespace std::string_literals;

const parcel_schema_t *const schema = &l2fib_bridge_mac_info_parcel;

using bytes = std::vector<uint8_t>;

bytes encode(const void *record, const parcel_schema_t *described_by)
{
    void *data = nullptr;
    uint32_t length = 0;
    EXPECT_EQ(parcel_encode(&data, &length, record, described_by), 0u);
    const std::unique_ptr<void, decltype(&free)> owner(data, free);
    const auto *start = static_cast<const uint8_t *>(data);
    return {start, start + length};
}

// The fields of an encoded record, each as "name=value", numbers in decimal, bytes in hexadecimal.
std::string listed(const bytes &data)
{
    const test::cbor_ptr map = test::load_cbor(data);
    std::string text;
    for (const cbor_pair &pair : std::span(cbor_map_handle(map.get()), cbor_map_size(map.get()))) {
        const cbor_item_t *const value = pair.value;
        text += std::string(text.empty() ? "" : " ") + std::string(test::text_of(pair.key)) + "=";
        text += cbor_isa_uint(value)     ? std::to_string(cbor_get_int(value))
                : cbor_isa_string(value) ? "'" + std::string(test::text_of(value)) + "'"
                                         : test::hex(cbor_bytestring_handle(value), cbor_bytestring_length(value));
    }
    return text;
}

// A MAC info record with something in every field that any record can have, and the kinds given.
struct mac_record {
    l2fib_mac_info_t info;

    mac_record(uint32_t seg_type, uint32_t bmac_valid, uint32_t aux_kind)
    {
        memset(static_cast<void *>(&info), 0, sizeof(info));
        info.mac_flags = 0xffffffff;
        info.hw_valid = 1;
        info.seg_type = seg_type;
        info.seg.seg_id_wide = 0x0102030405060708;
        info.seg_attr = 3;
        info.seg_attr_kind = 2;
        info.node_id = 23;
        info.time_str = strdup("");
        info.age = UINT64_MAX;
        info.bd_name = strdup("g:b");
        info.bridge_id = 24;
        info.xcid = 256;
        info.next_mac = strdup("N/A");
        info.bmac_valid = bmac_valid;
        memcpy(info.bmac, "\1\2\3\4\5\6", 6);
        info.ext_attr = 65535;
        info.aux_kind = aux_kind;
        info.aux_value.value32 = 0x00020001;
        info.aux_value_alt = 9;
        memcpy(info.vtep_addr, "\300\0\2\7", 4);
        info.mac_flags2 = 5;
        info.vtep_seg_info = 6;
    }
    ~mac_record() { parcel_free_indirections(&info, schema); }
    mac_record(const mac_record &) = delete;
    mac_record &operator=(const mac_record &) = delete;
};

TEST(parcel, a_mac_record_carries_the_fields_of_its_kinds)
{
    const std::string common = "mac_flags=4294967295 mac_flags2=5 hw_valid=1 ext_attr=65535 bridge_id=24 "
                               "bd_name='g:b' xcid=256 ";
    const std::string rest = " node_id=23 time_str='' age=18446744073709551615 next_mac='N/A' ";
    const struct {
        uint32_t seg_type, bmac_valid, aux_kind;
        const char *segment, *aux;
    } cases[] = {
        {0, 0, 0, "seg_type=0 bmac_valid=0", "aux_kind=0"},
        {2, 1, 1, "seg_type=2 seg_id=84281096 seg_sub_id=772 bmac_valid=1 bmac=010203040506", "aux_kind=1 aux_value=1"},
        {2, 0, 2, "seg_type=2 seg_id=84281096 seg_sub_id=772 bmac_valid=0", "aux_kind=2 aux_value=131073"},
        {4, 0, 3, "seg_type=4 seg_id=72623859790382856 seg_attr=3 seg_attr_kind=2 bmac_valid=0",
         "aux_kind=3 aux_value_alt=9"},
        {5, 1, 4, "seg_type=5 seg_id=84281096 bmac_valid=1 bmac=010203040506", "aux_kind=4"},
        {6, 0, 0, "seg_type=6 seg_id=84281096 seg_sub_id=16909060 bmac_valid=0 vtep_addr=c0000207 vtep_seg_info=6",
         "aux_kind=0"},
        {20, 0, 32, "seg_type=20 seg_id=84281096 bmac_valid=0", "aux_kind=32"},
        {0xffffffff, 2, 0, "seg_type=4294967295 bmac_valid=2", "aux_kind=0"},
    };
    for (const auto &[seg_type, bmac_valid, aux_kind, segment, aux] : cases) {
        mac_record record(seg_type, bmac_valid, aux_kind);
        EXPECT_EQ(listed(encode(&record.info, schema)), std::string(common).append(segment).append(rest).append(aux));
        for (uint32_t time = 0; time < 2; time++) {
            EXPECT_EQ(parcel_free_indirections(&record.info, schema), 0u);
            EXPECT_EQ(record.info.bd_name, nullptr);
        }
    }
}

TEST(parcel, the_other_records_have_a_compact_known_form)
{
    const l2fib_vtep_info_t vtep{23, 256, {10, 0, 0, 1}};
    const std::string expected = "\xa3\x69seg_info1\x17\x69seg_info2\x19\x01\x00\x69vtep_addr\x44\x0a\x00\x00\x01"s;
    EXPECT_EQ(encode(&vtep, &l2fib_vtep_info_parcel), bytes(expected.begin(), expected.end()));

    const l2fib_mac_count_info_t count{1, 24, 256, 65536, UINT32_MAX};
    const bytes data = encode(&count, &l2fib_bridge_hw_mac_count_info_parcel);
    EXPECT_EQ(listed(data), "mac_cnt_sum=1 mac_cnt_plain=24 mac_cnt_f2=256 mac_cnt_f4=65536 mac_cnt_f60=4294967295");
}

TEST(parcel, texts_of_any_length_are_carried)
{
    for (const uint32_t length : {0u, 23u, 24u, 255u, 256u, 500u, 700u, 70000u}) {
        mac_record record(2, 0, 0);
        record.info.prev_mac = strdup(std::string(length, 'x').c_str());
        const std::string all = listed(encode(&record.info, schema));
        EXPECT_NE(all.find("prev_mac='" + std::string(record.info.prev_mac) + "' "), std::string::npos) << length;
    }
}

TEST(parcel, wrong_arguments_are_refused)
{
    void *data = nullptr;
    uint32_t length = 0;
    l2fib_vtep_info_t record{};
    const auto *unknown = reinterpret_cast<const parcel_schema_t *>(&record);
    const parcel_schema_t *known = &l2fib_vtep_info_parcel;
    const uint32_t statuses[] = {
        parcel_encode(nullptr, &length, &record, known), parcel_encode(&data, nullptr, &record, known),
        parcel_encode(&data, &length, nullptr, known),   parcel_encode(&data, &length, &record, nullptr),
        parcel_encode(&data, &length, &record, unknown), parcel_free_indirections(nullptr, known),
        parcel_free_indirections(&record, nullptr),      parcel_free_indirections(&record, unknown),
    };
    for (const uint32_t status : statuses) {
        EXPECT_EQ(status, uint32_t{EINVAL});
    }
    EXPECT_EQ(data, nullptr);
}

} // namespace
