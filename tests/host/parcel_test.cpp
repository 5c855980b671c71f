// SPDX-License-Identifier: Apache-2.0

// Records to bytes and back.

#include "host/database/parcel_host.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>

#include <gtest/gtest.h>

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
    std::vector<host::parcel_value> values;
    EXPECT_EQ(host::parcel_read(data, values), 0u);
    std::string text;
    for (const host::parcel_value &value : values) {
        text += std::string(text.empty() ? "" : " ") + std::string(value.name) + "=";
        if (value.kind == host::parcel_kind::number) {
            text += std::to_string(value.number);
        } else if (value.kind == host::parcel_kind::text) {
            text += "'" + std::string(value.text) + "'";
        } else {
            for (const char byte : value.text) {
                char hex[3];
                snprintf(hex, sizeof(hex), "%02x", static_cast<uint8_t>(byte));
                text += hex;
            }
        }
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
        const mac_record record(seg_type, bmac_valid, aux_kind);
        const bytes data = encode(&record.info, schema);
        EXPECT_EQ(listed(data), std::string(common).append(segment).append(rest).append(aux));
        l2fib_mac_info_t decoded;
        ASSERT_EQ(host::parcel_decode(data, &decoded, schema), 0u);
        EXPECT_STREQ(decoded.bd_name, "g:b");
        EXPECT_STREQ(decoded.time_str, "");
        EXPECT_EQ(decoded.prev_mac, nullptr);
        EXPECT_EQ(encode(&decoded, schema), data);
        EXPECT_EQ(parcel_free_indirections(&decoded, schema), 0u);
        EXPECT_EQ(decoded.bd_name, nullptr);
        EXPECT_EQ(parcel_free_indirections(&decoded, schema), 0u);
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
    l2fib_mac_count_info_t decoded;
    ASSERT_EQ(host::parcel_decode(data, &decoded, &l2fib_bridge_hw_mac_count_info_parcel), 0u);
    EXPECT_EQ(memcmp(&decoded, &count, sizeof(count)), 0);
}

TEST(parcel, texts_of_any_length_are_carried)
{
    for (const uint32_t length : {0u, 23u, 24u, 255u, 256u, 500u, 700u, 70000u}) {
        mac_record record(2, 0, 0);
        record.info.prev_mac = strdup(std::string(length, 'x').c_str());
        l2fib_mac_info_t decoded;
        ASSERT_EQ(host::parcel_decode(encode(&record.info, schema), &decoded, schema), 0u) << length;
        EXPECT_STREQ(decoded.prev_mac, record.info.prev_mac);
        parcel_free_indirections(&decoded, schema);
    }
}

TEST(parcel, what_is_not_one_whole_record_is_refused)
{
    const std::string good = "\xa3\x69seg_info1\x01\x69seg_info2\x02\x69vtep_addr\x44\x0a\x01\x01\x01";
    const auto with = [&good](std::string_view part, std::string_view instead) {
        std::string changed = good;
        return changed.replace(changed.find(part), part.size(), instead);
    };
    const struct {
        const char *what;
        std::string data;
        bool is_readable; // as a list of fields, without a schema
    } cases[] = {
        {"nothing", "", false},
        {"no map", "\x01", false},
        {"a map without end", "\xbf\x69seg_info1\x01\xff", false},
        {"an empty map", "\xa0", true},
        {"a byte behind", good + "\x01", false},
        {"a field too few", with("\xa3", "\xa2"), false},
        {"a field too many", with("\xa3", "\xa4"), false},
        {"more fields than bytes", "\xbb\xff\xff\xff\xff\xff\xff\xff\xff" + good.substr(1), false},
        {"an unknown name", with("seg_info2", "seg_info3"), true},
        {"a name twice", with("seg_info2", "seg_info1"), true},
        {"a name that is a number", with("\x69seg_info2", "\x02"), false},
        {"a name too long for the bytes", with("\x69vtep_addr", "\x79\xff\xffvtep_addr"), false},
        {"a number too large", with("\x02", "\x1b\x01\x01\x01\x01\x01\x01\x01\x01"), true},
        {"a negative number", with("\x02", "\x21"), false},
        {"a text for a number", with("\x02", "\x61\x41"), true},
        {"an address too short", with("\x44\x0a\x01\x01\x01", "\x43\x01\x01\x01"), true},
        {"a text for an address", with("\x44\x0a", "\x64\x0a"), true},
        {"an array for an address", with("\x44\x0a", "\x84\x0a"), false},
    };
    const auto status_of = [](const std::string &data, l2fib_vtep_info_t &record) {
        return host::parcel_decode(bytes(data.begin(), data.end()), &record, &l2fib_vtep_info_parcel);
    };
    l2fib_vtep_info_t record;
    ASSERT_EQ(status_of(good, record), 0u);
    EXPECT_EQ(record.seg_info2, 2u);
    for (const auto &[what, data, is_readable] : cases) {
        EXPECT_EQ(status_of(data, record), uint32_t{EBADMSG}) << what;
        EXPECT_EQ(record.seg_info1, 0u) << what;
        std::vector<host::parcel_value> values(1);
        const uint32_t status = host::parcel_read(bytes(data.begin(), data.end()), values);
        EXPECT_EQ(status, is_readable ? 0u : uint32_t{EBADMSG}) << what;
        EXPECT_TRUE(is_readable || values.empty()) << what;
    }
}

// Whatever arrives, a decoder refuses it or takes exactly what encodes to the same fields, and leaks nothing.
TEST(parcel, changed_bytes_never_do_harm)
{
    std::mt19937 random(1);
    const mac_record record(6, 1, 1);
    const bytes whole = encode(&record.info, schema);
    uint32_t accepted = 0;
    for (uint32_t round = 0; round < 50000; round++) {
        bytes data = whole;
        if (round % 4 == 0) {
            data.resize(random() % data.size());
        }
        for (uint32_t changes = random() % 4; changes > 0 && !data.empty(); changes--) {
            data[random() % data.size()] = static_cast<uint8_t>(random());
        }
        l2fib_mac_info_t decoded;
        if (host::parcel_decode(data, &decoded, schema) == 0) {
            accepted++;
            EXPECT_EQ(listed(encode(&decoded, schema)), listed(data));
        }
        EXPECT_EQ(parcel_free_indirections(&decoded, schema), 0u);
    }
    EXPECT_GT(accepted, 5000u);
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
        host::parcel_decode({}, nullptr, known),         host::parcel_decode({}, &record, unknown),
    };
    for (const uint32_t status : statuses) {
        EXPECT_EQ(status, uint32_t{EINVAL});
    }
    EXPECT_EQ(data, nullptr);
}

} // namespace
