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

#include "tests/support/host/decoded_record.h"

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

// The records of MAC entries are tested with their handlers in tests/module/handlers_test.cpp.
TEST(Parcel, EncodesRecordsCompactly)
{
    const l2fib_vtep_info_t vtep{23, 256, {10, 0, 0, 1}};
    const std::string expected = "\xa3\x69seg_info1\x17\x69seg_info2\x19\x01\x00\x69vtep_addr\x44\x0a\x00\x00\x01"s;
    EXPECT_EQ(encode(&vtep, &l2fib_vtep_info_parcel), bytes(expected.begin(), expected.end()));

    const l2fib_mac_count_info_t count{1, 24, 256, 65536, UINT32_MAX};
    const bytes data = encode(&count, &l2fib_bridge_hw_mac_count_info_parcel);
    EXPECT_EQ(test::record_text(data),
              "mac_cnt_sum=1 mac_cnt_plain=24 mac_cnt_f2=256 mac_cnt_f4=65536 mac_cnt_f60=4294967295");
}

TEST(Parcel, CarriesTextsOfAnyLengthAndFreesThem)
{
    for (const uint32_t length : {0u, 23u, 24u, 255u, 256u, 70000u}) {
        l2fib_mac_info_t record{};
        record.bd_name = strdup(std::string(length, 'x').c_str());
        const std::string all = test::record_text(encode(&record, schema));
        EXPECT_NE(all.find("bd_name='" + std::string(length, 'x') + "' "), std::string::npos) << length;
        for (uint32_t time = 0; time < 2; time++) {
            EXPECT_EQ(parcel_free_indirections(&record, schema), 0u);
            EXPECT_EQ(record.bd_name, nullptr);
        }
    }
}

TEST(Parcel, LeavesOutWhatTheKindsOfARecordDoNotHave)
{
    l2fib_mac_info_t record{};
    record.seg_type = record.bmac_valid = UINT32_MAX;
    record.aux_kind = 32;
    record.age = UINT64_MAX;
    const std::string all = test::record_text(encode(&record, schema));
    EXPECT_NE(all.find("seg_type=4294967295 bmac_valid=4294967295 node_id=0 age=18446744073709551615 aux_kind=32"),
              std::string::npos)
        << all;
}

TEST(Parcel, RefusesNullAndUnknownSchemas)
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
