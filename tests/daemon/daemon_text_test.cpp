// SPDX-License-Identifier: Apache-2.0

// Texts of URIs, item names and JSON. An interface's name may hold any bytes: they survive, or are made visible.

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <ctime>
#include <iomanip>
#include <sstream>

#include "base/text.h"
#include "daemon/api/json/api_error.h"
#include "daemon/api/json/json_writer.h"
#include "daemon/http/target.h"

namespace {

using namespace l2fibd;

std::string all_bytes()
{
    std::string text;
    for (int code = 1; code < 256; code++) {
        text += static_cast<char>(code);
    }
    return text;
}

TEST(Text, SurvivesBothEncodings)
{
    for (const std::string &text :
         {std::string(), std::string("a"), std::string("ab"), std::string("abc"), all_bytes()}) {
        EXPECT_EQ(base::percent_decode(base::percent_encode(text)), text);
        EXPECT_EQ(base::base64url_decode(base::base64url_encode(text)), text);
    }
    for (const char *wrong : {"%", "%1", "%g0", "%+1", "a%00"}) {
        EXPECT_EQ(base::percent_decode(wrong), std::nullopt) << wrong;
    }
}

TEST(Text, ReadsAddressesInBothFormsOnly)
{
    constexpr std::array<uint8_t, 6> address = {0x02, 0, 0, 0xab, 0xcd, 0xef};
    for (const char *right : {"02:00:00:ab:cd:ef", "02:00:00:AB:CD:EF", "0200.00ab.cdef"}) {
        EXPECT_EQ(base::parse_mac(right), address) << right;
    }
    for (const char *wrong : {"", "2:0:0:ab:cd:ef", "02:00:00:ab:cd", "02:00:00:ab:cd:ef:", "02-00-00-ab-cd-ef",
                              "0200.00ab", "0200.00ab.cdeg", "02:00:00:ab:cd:-f"}) {
        EXPECT_EQ(base::parse_mac(wrong), std::nullopt) << wrong;
    }
}

TEST(Text, ReadsPrefixesOfAddresses)
{
    const struct {
        const char *text;
        uint64_t first, last;
    } right[] = {
        {"0", 0, 0x0fffffffffff},
        {"02005E", 0x02005e000000, 0x02005effffff},
        {"02:00:5e", 0x02005e000000, 0x02005effffff},
        {"2-0-5e", 0x02005e000000, 0x02005effffff},
        {"0200.5", 0x020050000000, 0x02005fffffff},
        {"0200.5e0", 0x02005e000000, 0x02005e0fffff},
        {"02:00:00:00:00:ff", 0x0200000000ff, 0x0200000000ff},
        {"ffffffffffff", 0xffffffffffff, 0xffffffffffff},
    };
    for (const auto &each : right) {
        EXPECT_EQ(base::parse_mac_prefix(each.text), (base::mac_range{each.first, each.last})) << each.text;
    }
    for (const char *wrong : {"", ":", "02:", "02::5e", "020:00", "02:00-5e", "02005e0000000", "02.00", "0200.", "0x2",
                              "-1", "02:00:00:00:00:00:0", "0200.0000.0000.0"}) {
        EXPECT_EQ(base::parse_mac_prefix(wrong), std::nullopt) << wrong;
    }
}

TEST(Text, ReadsDurations)
{
    const std::pair<const char *, std::optional<uint32_t>> cases[] = {
        {"0", 0},
        {"90", 90},
        {"90s", 90},
        {"15m", 900},
        {"2h", 7'200},
        {"1d", 86'400},
        {"", {}},
        {"m", {}},
        {"1w", {}},
        {"1.5h", {}},
        {"4294967296", {}},
        {"49711d", {}},
        {"-1", {}},
        {"1 m", {}},
        {"4294967295", UINT32_MAX},
        {"49710d", 4'294'944'000},
    };
    for (const auto &[text, expected] : cases) {
        EXPECT_EQ(base::parse_duration(text), expected) << text;
    }
}

TEST(Text, OrdersNumbersInNamesByTheirValue)
{
    const char *ordered[] = {"",        "7",    "10",    "eth1", "eth1.2",
                             "eth1.10", "eth2", "eth10", "ethx", "p",
                             "p01",     "p1",   "p2a10", "p10",  "p99999999999999999999",
                             "q"};
    for (const char *const &left : ordered) {
        for (const char *const &right : ordered) {
            EXPECT_EQ(base::comes_first(left, right), &left < &right) << left << " " << right;
        }
    }
}

TEST(Text, WritesTimesAndAddressesAsTheCLibraryDoes)
{
    constexpr int64_t year_0 = -62'167'219'200;
    constexpr int64_t last_of_year_9999 = 253'402'300'799;
    for (const int64_t seconds : {year_0, int64_t{-1}, int64_t{0}, int64_t{951'782'399}, int64_t{951'868'799},
                                  int64_t{1'764'000'000}, int64_t{4'107'542'399}, last_of_year_9999}) {
        const time_t time = seconds;
        tm parts{};
        std::ostringstream expected;
        expected << std::put_time(gmtime_r(&time, &parts), "-%m-%dT%H:%M:%SZ");
        EXPECT_EQ(base::utc_text(seconds).substr(4), expected.str());
        EXPECT_EQ(std::stoi(base::utc_text(seconds)), parts.tm_year + 1900);
    }
    for (const char *address : {"0.0.0.0", "10.254.9.100", "255.255.255.255", "fd00::2"}) {
        std::array<uint8_t, 16> bytes{};
        const bool is_ipv4 =
            inet_pton(AF_INET, address, bytes.data()) == 1 || inet_pton(AF_INET6, address, &bytes) != 1;
        EXPECT_EQ(base::ip_text(std::span(bytes).first(is_ipv4 ? base::ipv4_bytes : bytes.size())), address);
    }
}

TEST(JsonWriter, WritesValidTextFromAnyBytes)
{
    const struct {
        std::string text;
        const char *written;
    } cases[] = {
        {"plain", R"("plain")"},
        {"q\"b\\n\n", R"("q\"b\\n\u000a")"},
        {"\x7f", "\"\\u007f\""},
        {"\xc3\xa4 \xe2\x82\xac \xf0\x9f\x98\x80", "\"\xc3\xa4 \xe2\x82\xac \xf0\x9f\x98\x80\""},
        {"a\xff"
         "b",
         "\"a\xef\xbf\xbd"
         "b\""},
        {"\xc0\xaf", "\"\xef\xbf\xbd\xef\xbf\xbd\""},                 // a longer form of "/"
        {"\xed\xa0\x80", "\"\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\""}, // a surrogate
        {"cut \xe2\x82", "\"cut \xef\xbf\xbd\xef\xbf\xbd\""},
    };
    for (const auto &one : cases) {
        json_writer json;
        json.text(one.text);
        EXPECT_EQ(json.take(), one.written);
    }
}

TEST(JsonWriter, SeparatesMembersAndItems)
{
    json_writer json;
    json.begin_object();
    json.begin_array("a");
    json.number(1);
    json.begin_object();
    json.end_object();
    json.end_array();
    json.member64("b", UINT64_MAX);
    json.end_object();
    EXPECT_EQ(json.take(), R"({"a":[1,{}],"b":"18446744073709551615"})");
}

TEST(Target, SplitsElementsBeforeDecoding)
{
    const target to = parse_target("/a:b/c=x%2Fy%3D%3F=z/d?e=f%26g&h=");
    EXPECT_EQ(shape_of(to), "a:b/c=*/d");
    EXPECT_EQ(shape_of(parse_target("//a%2Fb/c%3D%2A")), "/a%2Fb/c%3D%2A");
    EXPECT_EQ(to.path[1].key, "x/y=?=z");
    ASSERT_EQ(to.parameters.size(), 2u);
    EXPECT_EQ(to.parameters[0].value, "f&g");
    EXPECT_EQ(to.parameters[1].value, "");
    for (const char *wrong : {"", "x", "/a=", "/a%", "/a?", "/a?b", "/a?=b", "/a?b=c&"}) {
        EXPECT_THROW(parse_target(wrong), api_error) << wrong;
    }
}

} // namespace
