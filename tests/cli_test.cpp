// The client's parts that need no daemon: cutting an answer into items, and showing items.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "cli/bridge_form.h"
#include "cli/commands.h"
#include "cli/failure.h"
#include "cli/http.h"
#include "cli/printer.h"
#include "cli/splitter.h"
#include "daemon/visible.h"

namespace l2fibctl {
namespace {

using nlohmann::json;
using strings = std::vector<std::string>;

struct cut_answer {
    strings items; // "member item"
    bool wanted;
    bool complete;
};

// Fed in pieces of `step` bytes.
cut_answer cut(std::string_view answer, size_t step)
{
    cut_answer result{{}, true, false};
    splitter items([&](std::string_view member, std::string_view item) {
        result.items.push_back(std::string(member) + " " + std::string(item));
        return item != "stop";
    });
    for (size_t at = 0; at < answer.size() && result.wanted; at += step) {
        result.wanted = items.feed(answer.substr(at, step));
    }
    result.complete = items.complete();
    return result;
}

TEST(Splitter, CutsAnAnswerHoweverItArrives)
{
    const struct {
        std::string answer;
        strings items;
        bool wanted;
        bool complete;
    } rows[] = {
        {R"({"a":[{"x":1},{"y":[2,{"z":{}}]}],"c":"next"})",
         {R"(a {"x":1})", R"(a {"y":[2,{"z":{}}]})", R"(c "next")"},
         true,
         true},
        {"\n{ \"a\" : [ ] , \"b\" :\t{ } }\n", {"b { }"}, true, true},
        {R"({"a":[{"x":"}],\"\\"},{"]":"["}]})", {R"(a {"x":"}],\"\\"})", R"(a {"]":"["})"}, true, true},
        {R"({"a":12,"b":[1,null, true]})", {"a 12", "b 1", "b null", "b true"}, true, true},
        {R"({"a":{}})", {"a {}"}, true, true},
        {R"({"a":[[1,2],[]]})", {"a [1,2]", "a []"}, true, true},
        {R"({"a":[1,stop,2]})", {"a 1", "a stop"}, false, false},
        {R"({"a":[{"x":1},{"y")", {R"(a {"x":1})"}, true, false}, // cut
        {R"({"a":[{"x":1}])", {R"(a {"x":1})"}, true, false},
        {"", {}, true, false},
        {"<html>", {}, false, false},
        {R"([{"x":1}])", {}, false, false},
        {R"({"a"}])", {}, false, false},
        {R"({"a":})", {}, false, false},
        {R"({"a":1}{)", {"a 1"}, false, false},
    };
    for (const auto &row : rows) {
        for (const size_t step : {size_t(1), size_t(2), size_t(7), row.answer.size() + 1}) {
            SCOPED_TRACE(row.answer + " by " + std::to_string(step));
            const cut_answer found = cut(row.answer, step);
            EXPECT_EQ(found.items, row.items);
            EXPECT_EQ(found.wanted, row.wanted);
            EXPECT_EQ(found.complete, row.complete);
        }
    }
}

TEST(Splitter, HoldsNoMoreThanAnItem)
{
    const std::string longest = '"' + std::string(splitter::longest_item - 2, 'x') + '"';
    EXPECT_TRUE(cut(R"({"a":[)" + longest + "," + longest + "]}", 4096).complete);
    EXPECT_FALSE(cut(R"({"a":[)" + longest.substr(1, 1) + longest, 4096).wanted);
}

TEST(Visible, KeepsTextAndEscapesTheRest)
{
    const struct {
        std::string text;
        std::string shown;
    } rows[] = {
        {"br0.10", "br0.10"},
        {"stra\xc3\x9f"
         "e \xe4\xba\xac \xf0\x9f\x8c\x90",
         "stra\xc3\x9f"
         "e \xe4\xba\xac \xf0\x9f\x8c\x90"},
        {"\x1b[2J\r\n\x7f", "\\x1b[2J\\x0d\\x0a\\x7f"},
        {"\xc2\x9b"
         "A\xff\xc3",
         "\\x9bA\\xff\\xc3"},
        {"a\xe2\x80\xa8"
         "b\xe2\x80\x8f",
         "a\\u2028b\\u200f"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(l2fibd::visible(row.text), row.shown);
    }
    EXPECT_EQ(l2fibd::width_of("a\xc3\x9f\xf0\x9f\x8c\x90"), 3u);
}

std::string print(form shown_as, const resource &what, const std::vector<json> &items)
{
    testing::internal::CaptureStdout();
    progress line;
    output out(line);
    printer to(shown_as, what, out);
    for (const json &item : items) {
        to.item(item);
    }
    to.end();
    return testing::internal::GetCapturedStdout();
}

const json learned = json::parse(R"({"domain":"h:br0","mac-address":"02:00:00:00:00:01","bridge-id":1,"xcid":4,
    "port":"vxlan7","origin":"learned","flags":["timestamped"],"age":93784,"vni":7,"vtep":"192.0.2.1"})");
const json own = json::parse(R"({"domain":"h:a-name-that-is-too-long","mac-address":"02:00:00:00:00:02","bridge-id":1,
    "origin":"local","flags":["local","bridge-own"],"age":12})");

TEST(Printer, TextLinesUpFromTheFirstRowOn)
{
    EXPECT_EQ(
        print(form::text, mac_entries, {learned, own}),
        "Domain                  MAC Address        Port             Type            Age   VLAN       VNI  VTEP"
        "             Flags\n"
        "h:br0                   02:00:00:00:00:01  vxlan7           learned       1d02h      -         7  192.0.2.1"
        "        timestamped\n"
        "h:a-name-that-is-too-long  02:00:00:00:00:02  -                local      00:00:12      -         -  -"
        "                local, bridge-own\n");
    EXPECT_EQ(print(form::text, mac_entries, {}), "");
}

TEST(Printer, JsonHasEveryMemberOfAnItem)
{
    const std::vector<json> items = {learned, own};
    EXPECT_EQ(json::parse(print(form::json, mac_entries, items)), json(items));
    const std::string lines = print(form::json_lines, mac_entries, items);
    EXPECT_EQ(json::parse(lines.substr(0, lines.find('\n'))), learned);
    EXPECT_EQ(json::parse(lines.substr(lines.find('\n'))), own);
    EXPECT_EQ(print(form::json, mac_entries, {}), "[]\n");
    EXPECT_EQ(print(form::json_lines, domains, {{{"name", "\x1b\xc3\x9f\x7f"}}}),
              "{\"name\":\"\\u001b\\u00df\\u007f\"}\n");
}

TEST(Printer, RecordsShowTheirPartsBelow)
{
    const json item = json::parse(R"({"plane":"kernel","overruns":"0","unmapped":[{"reason":"no bridge","count":"2"}],
        "refused":[],"notes":["br,0: shown as br_0","x"],"memory":{"bytes":"5","pool":[{"name":"MAC pool",
        "element-size":80,"in-use":"1","peak":"2","limit":"18446744073709551615","bytes":"98304","failures":"0","refused-frees":"3"}]}})");
    EXPECT_EQ(
        print(form::text, health, {item}),
        "Forwarding plane:         kernel\n"
        "Overruns:                 0\n"
        "Unmapped:\n"
        "      Count  Reason\n"
        "          2  no bridge\n"
        "Refused:                  -\n"
        "Notes:                    br,0: shown as br_0, x\n"
        "Memory:\n"
        "  Bytes:                  5\n"
        "  Pools:\n"
        "    Pool                         Size     In Use       Peak      Limit       Bytes   Failures  Bad Frees\n"
        "    MAC pool                       80          1          2       none       98304          0          3\n");
    EXPECT_EQ(json::parse(print(form::json, health, {item})), item);
}

TEST(BridgeForm, GivesWhatTheKernelHolds)
{
    const bridge_names bridges = {{1, "br0"}};
    const auto of_bridge = [&](const json &item) { return bridge_entry_of(item, bridges); };
    const struct {
        std::function<json(const json &)> form;
        const char *entry;
        const char *expected;
    } rows[] = {
        {of_bridge,
         R"({"mac-address":"m","bridge-id":1,"xcid":3,"port":"eth1","origin":"learned","flags":[],"vlan":10})",
         R"({"mac":"m","ifname":"eth1","vlan":10,"flags":[],"master":"br0","state":""})"},
        {of_bridge, R"({"mac-address":"m","bridge-id":1,"origin":"local","flags":["local","bridge-own"]})",
         R"({"mac":"m","ifname":"br0","flags":[],"master":"br0","state":"permanent"})"},
        {of_bridge, R"({"mac-address":"m","bridge-id":1,"port":"vx","origin":"static","flags":["static","sticky"]})",
         R"({"mac":"m","ifname":"vx","flags":["sticky"],"master":"br0","state":"static"})"},
        {of_bridge, R"({"mac-address":"00:00:00:00:00:00","bridge-id":1,"port":"vx","vtep":"192.0.2.1"})", "null"},
        {device_entry_of, R"({"mac-address":"m","port":"vx","destination":"192.0.2.1","vni":8,"source-vni":9,
             "flags":["stale","extern-learned"]})",
         R"({"mac":"m","ifname":"vx","dst":"192.0.2.1","vni":8,"src_vni":9,"flags":["self","extern_learn"],
             "state":"stale"})"},
        {device_entry_of, R"({"mac-address":"m","port":"vx","next-hop-id":5,"flags":["permanent"]})",
         R"({"mac":"m","ifname":"vx","nhid":5,"flags":["self"],"state":"permanent"})"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(row.form(json::parse(row.entry)), json::parse(row.expected)) << row.entry;
    }
}

TEST(ErrorText, IsTheDaemonsMessageMadeVisible)
{
    EXPECT_EQ(error_text(400, R"({"ietf-restconf:errors":{"error":[{"error-message":"limit \"a\u001b\": no"},
        {"error-message":"more"}]}})"),
              "limit \"a\\x1b\": no\nmore");
    for (const char *body : {"", "no JSON", "[]", R"({"ietf-restconf:errors":{"error":[{"error-message":7},3]}})",
                             R"({"ietf-restconf:errors":7})"}) {
        EXPECT_EQ(error_text(431, body), "the daemon answered with the HTTP status 431") << body;
    }
}

// Serves one request on a socket of its own with an answer that is written beforehand, then hangs up; without an
// answer it waits until the client does.
class canned_daemon {
public:
    explicit canned_daemon(const char *with)
        : answer_(with)
    {
        std::snprintf(address_.sun_path, sizeof address_.sun_path, "/tmp/cli_test.%d.sock", getpid());
        unlink(address_.sun_path);
        EXPECT_EQ(bind(listener_, reinterpret_cast<const sockaddr *>(&address_), sizeof address_), 0);
        EXPECT_EQ(listen(listener_, 1), 0);
        server_ = std::thread([this] { serve(); });
    }
    ~canned_daemon()
    {
        server_.join();
        close(listener_);
        unlink(address_.sun_path);
    }
    canned_daemon(const canned_daemon &) = delete;
    canned_daemon &operator=(const canned_daemon &) = delete;

    std::string path() const { return address_.sun_path; }

private:
    void serve() const
    {
        const int client = accept(listener_, nullptr, nullptr);
        char request[4096];
        ssize_t length = read(client, request, sizeof request);
        EXPECT_EQ(write(client, answer_.data(), answer_.size()), static_cast<ssize_t>(answer_.size()));
        while (answer_.empty() && length > 0) {
            length = read(client, request, sizeof request);
        }
        close(client);
    }

    std::string answer_;
    sockaddr_un address_ = {.sun_family = AF_UNIX, .sun_path = {}};
    int listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::thread server_;
};

ending ending_of(const options &how)
{
    testing::internal::CaptureStdout();
    ending how_it_ended = ending::done;
    try {
        run(how);
    } catch (const failure &error) {
        how_it_ended = error.how;
        EXPECT_FALSE(error.message.empty());
    }
    testing::internal::GetCapturedStdout();
    return how_it_ended;
}

TEST(Endings, TellWhatBecameOfTheAnswer)
{
#define ERROR_BODY(tag) R"({"ietf-restconf:errors":{"error":[{"error-tag":")" tag R"(","error-message":"m"}]}})"
    const struct {
        const char *answer;
        ending expected;
    } rows[] = {
        {"HTTP/1.1 200 OK\r\n\r\n{\"l2fib-mac:domain\":[{\"name\":\"a\"}]}", ending::done},
        {"HTTP/1.1 200 OK\r\n\r\n{\"l2fib-mac:domain\":[]}", ending::nothing_found},
        {"HTTP/1.1 200 OK\r\n\r\n{\"l2fib-mac:domain\":[{\"name\":\"a\"}", ending::cut},
        {"HTTP/1.1 200 OK\r\n\r\n{\"l2fib-mac:domain\":[{\"name\":}]}", ending::cut},
        {"HTTP/1.1 200 OK\r\n\r\n{\"l2fib-mac:domain\":[7]}", ending::cut},
        {"HTTP/1.1 200 OK\r\n\r\n", ending::cut},
        {"HTTP/1.1 200 OK\r\nContent-Length: 99\r\n\r\n{\"l2fib-mac:domain\":[{\"name\":\"a\"}]}", ending::cut},
        {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n22\r\n{\"l2fib-mac:domain\":[{\"name\":\"a\"}]\r\n",
         ending::cut},
        {"HTTP/1.1 404 Not Found\r\n\r\n" ERROR_BODY("invalid-value"), ending::nothing_found},
        {"HTTP/1.1 404 Not Found\r\n\r\n" ERROR_BODY("unknown-element"), ending::refused},
        {"HTTP/1.1 503 Service Unavailable\r\n\r\n" ERROR_BODY("resource-denied"), ending::refused},
        {"HTTP/1.1 431 Too large\r\n\r\n<html>", ending::refused},
        {"no HTTP", ending::unreachable},
        {"", ending::unreachable}, // until the time-out
    };
#undef ERROR_BODY
    for (const auto &row : rows) {
        const canned_daemon daemon(row.answer);
        EXPECT_EQ(ending_of({.what = command::show_domain, .socket = daemon.path(), .timeout_seconds = 1}),
                  row.expected)
            << row.answer;
    }
    EXPECT_EQ(ending_of({.what = command::show_domain, .socket = "/tmp/no/such.sock"}), ending::unreachable);
}

} // namespace
} // namespace l2fibctl
