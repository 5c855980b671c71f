// SPDX-License-Identifier: Apache-2.0

// The client without l2fibd: what it prints for each kind of item, and how it exits on each kind of answer.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <deque>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "base/visible.h"
#include "cli/commands.h"
#include "cli/failure.h"
#include "cli/output/bridge_form.h"
#include "cli/output/printer.h"

namespace l2fibctl {
namespace {

using nlohmann::json;
using strings = std::vector<std::string>;

// A parsed value lives as long as its document and its text, so both are kept until the process ends.
json_value parsed(const std::string &text)
{
    static std::deque<json_document> documents;
    static std::deque<std::string> texts;
    return documents.emplace_back().parse(texts.emplace_back(text));
}

std::string repeated(const std::string &text, int count)
{
    std::string made;
    for (int i = 0; i < count; i++) {
        made += text;
    }
    return made;
}

// Names that differ: {"1":0,"2":0}
std::string object_of(size_t names)
{
    std::string made = "{";
    for (size_t i = 1; i <= names; i++) {
        made += (i == 1 ? "\"" : ",\"") + std::to_string(i) + "\":0";
    }
    return made + "}";
}

TEST(Json, IsReadStrictlyAndWrittenInPlainAscii)
{
    const std::string deep = repeated("[", 100) + "1" + repeated("]", 100);
    const std::string not_json = "not JSON";
    const struct {
        std::string text;
        std::string expected = {}; // empty: the same as the text
    } rows[] = {
        {R"({"a\"b":1})"},
        {R"({"a"b":1})", not_json},
        {R"({"a":[],"b":{},"c":[1,{"d":"e"}],"f":[true,false,null],"a":"again"})"},
        {" { \"a\" : [ 1 , 2 ] }\n", R"({"a":[1,2]})"},
        {R"("eight by eight, \u0022quoted\u0022 \\")", R"("eight by eight, \"quoted\" \\")"},
        {"\"\x7f stra\xc3\x9f"
         "e\"",
         R"("\u007f stra\u00dfe")"},
        {R"({"\u00e9\"":"\ud83c\udf10"})", R"({"\u00e9\"":"\ud83c\udf10"})"},
        {"[0,9999999999999999999,18446744073709551615,-5,1.50,1e2,-0]",
         "[0,9999999999999999999,18446744073709551615,-5,1.5,100,0]"},
        {deep},
        {object_of(json_names::max_names)},
        {object_of(json_names::max_names + 1), not_json},
        {repeated("[", 2000) + repeated("]", 2000), not_json},
        {"18446744073709551616", not_json},
        {"1e999", not_json},
        {"01", not_json},
        {"\"\x01\"", not_json},
        {"\"\xc0\x80\"", not_json},
        {"\"\xed\xa0\x80\"", not_json},
        {R"("\ud800")", not_json},
        {"\xef\xbb\xbf{}", not_json},
        {std::string("{}\0x", 4), not_json},
        {R"({"a":1,})", not_json},
        {R"({"a" 1})", not_json},
        {R"({1:2})", not_json},
        {"{}{}", not_json},
        {"[1", not_json},
        {"tru", not_json},
        {"", not_json},
    };
    json_document document; // one for all texts, as for all pages
    for (const auto &row : rows) {
        const json_value value = document.parse(row.text);
        text_buffer shown;
        value ? put_value(shown, value) : shown.put(not_json);
        EXPECT_EQ(shown.text(), row.expected.empty() ? row.text : row.expected) << row.text.substr(0, 100);
    }
}

TEST(Visible, EscapesOnlyHarmfulCharacters)
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
        EXPECT_EQ(base::visible(row.text), row.shown);
    }
    EXPECT_EQ(base::width_of("a\xc3\x9f\xf0\x9f\x8c\x90"), 3u);
}

std::string print(form shown_as, const resource &printed, const std::vector<json> &items, const look &wanted = {})
{
    testing::internal::CaptureStdout();
    progress line;
    output out(line, false, "");
    item_printer printer(shown_as, printed, wanted, out);
    for (const json &item : items) {
        printer.item(parsed(item.dump()));
    }
    printer.end();
    return testing::internal::GetCapturedStdout();
}

const json learned = json::parse(R"({"domain":"h:br0","mac-address":"02:00:00:00:00:01","bridge-id":1,"xcid":4,
    "port":"vxlan7","origin":"learned","flags":["timestamped"],"age":93784,"vni":7,"vtep":"192.0.2.1"})");
const json own = json::parse(R"({"domain":"h:a-name-that-is-too-long","mac-address":"02:00:00:00:00:02","bridge-id":1,
    "origin":"local","flags":["local","bridge-own"],"age":12})");

TEST(Printer, LaysTextOutFromTheFirstRow)
{
    const std::vector<json> items = {learned, own};
    const struct {
        look wanted;
        const char *expected;
    } rows[] = {
        {{}, R"(Domain            MAC Address        Port         Type          Age  VLAN       VNI  VTEP
h:br0             02:00:00:00:00:01  vxlan7       learned     1d02h     -         7  192.0.2.1
h:a-name-that-is-too-long  02:00:00:00:00:02  -            local    00:00:12     -         -  -
)"},
        {{.columns = {"age", "domain", "flags"}, .has_titles = false, .cuts_names = true},
         R"(   1d02h  h:br0             timestamped
00:00:12  h:a-name…oo-long  local, bridge-own
)"},
        {{.columns = {"origin", "age", "port"}, .has_titles = false, .has_colors = true},
         "\x1b[32mlearned\x1b[0m     \x1b[2m1d02h\x1b[0m  vxlan7\n"
         "\x1b[36mlocal\x1b[0m    00:00:12  -\n"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(print(form::text, mac_entries, items, row.wanted), row.expected);
    }
    const std::string wide = print(form::text, mac_entries, items, {.is_wide = true});
    for (const column &one : mac_entries.columns) {
        EXPECT_THAT(wide, testing::HasSubstr(std::string(one.title)));
    }
    EXPECT_EQ(print(form::text, mac_entries, {}), "");
}

TEST(Printer, FitsAHundredCharactersUnlessAskedForMore)
{
    for (const resource *shown :
         {&mac_entries, &aging_entries, &mac_counts, &domains, &ports, &vteps, &tunnel_entries}) {
        size_t width = 0;
        for (const shown_column &one : select_columns(*shown, form::text, {})) {
            width += one.width + 2;
        }
        EXPECT_LE(width, 102u) << shown->columns[0].title; // no gap behind the last column
    }
}

TEST(Printer, RefusesAColumnThatIsNotThere)
{
    try {
        print(form::json, vteps, {}, {.columns = {"port", "vlan"}});
        ADD_FAILURE();
    } catch (const failure &error) {
        testing::internal::GetCapturedStdout();
        EXPECT_EQ(error.status, exit_status::wrong_usage);
        EXPECT_STREQ(error.what(), "--columns: \"vlan\": expected names among address, port, xcid, domain, vni");
    }
}

TEST(Printer, AddsSumsBelowGroups)
{
    const std::vector<json> groups = {{{"vlan", 10}, {"entries", 3}, {"learned", 2}}, {{"entries", "4"}, {"local", 1}}};
    EXPECT_EQ(print(form::text, mac_groups, groups, {.columns = {"vlan", "entries", "local"}}),
              " VLAN    Entries      Local\n"
              "   10          3          -\n"
              "    -          4          1\n"
              "  Sum          7          1\n"
                  + std::string(mac_groups.note) + "\n");
    EXPECT_EQ(print(form::json, mac_groups, groups, {.columns = {"entries"}}),
              "[{\"entries\":3},\n{\"entries\":\"4\"}]\n");
}

TEST(CutMiddle, KeepsBothEndsOfAName)
{
    const struct {
        const char *name;
        size_t max_width;
        const char *expected;
    } rows[] = {
        {"compute-17:br-ex.100", 12, "comput\u2026x.100"},     {"abcdef", 6, "abcdef"}, {"abcdef", 5, "ab\u2026ef"},
        {"\u00e4\u00f6\u00fc\u00df", 3, "\u00e4\u2026\u00df"}, {"abcdef", 2, "abcdef"},
    };
    for (const auto &row : rows) {
        text_buffer cell;
        cell.put("| ");
        cell.put(row.name);
        cut_middle(cell, 2, base::width_of(row.name), row.max_width);
        EXPECT_EQ(cell.text(), std::string("| ") + row.expected);
    }
}

TEST(Printer, PrintsEveryMemberAsJson)
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

TEST(Printer, PrintsPartsOfARecordBelowIt)
{
    const json item = json::parse(R"({"plane":"kernel","overruns":"0","unmapped":[{"reason":"no bridge","count":"2"}],
        "refused":[],"notes":["br,0: shown as br_0","x"],"memory":{"bytes":"5","pool":[{"name":"MAC pool",
        "element-size":80,"in-use":"1","peak":"2","bytes":"98304","failures":"0","refused-frees":"3"}]}})");
    EXPECT_EQ(print(form::text, health, {item}),
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
              "    Pool                         Size     In Use       Peak       Bytes   Failures  Bad Frees\n"
              "    MAC pool                       80          1          2       98304          0          3\n");
    EXPECT_EQ(json::parse(print(form::json, health, {item})), item);
}

TEST(BridgeForm, EqualsTheKernelsEntries)
{
    const bridge_names bridges = {{1, "br0"}};
    const auto of_bridge = [&](json_value item) { return bridge_entry_of(item, bridges); };
    const struct {
        std::function<std::string(json_value)> form;
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
        const std::string made = row.form(parsed(row.entry));
        EXPECT_EQ(json::parse(made.empty() ? "null" : made), json::parse(row.expected)) << row.entry;
    }
}

// Serves one request after another on its own socket, and answers each with the next prepared answer.
class canned_daemon {
public:
    struct step {
        std::string answer;   // empty: no answer
        bool hangs_up = true; // closes the connection after the answer
    };

    explicit canned_daemon(std::vector<step> steps)
        : steps_(std::move(steps))
    {
        std::snprintf(address_.sun_path, sizeof(address_.sun_path), "/tmp/cli_test.%d.sock", getpid());
        unlink(address_.sun_path);
        EXPECT_EQ(bind(listener_, reinterpret_cast<const sockaddr *>(&address_), sizeof(address_)), 0);
        EXPECT_EQ(listen(listener_, 1), 0);
        server_ = std::thread([this] { serve(); });
    }
    ~canned_daemon() { stop(); }
    canned_daemon(const canned_daemon &) = delete;
    canned_daemon &operator=(const canned_daemon &) = delete;

    std::string path() const { return address_.sun_path; }

    // Ends the server. Returns the first line, the header Last-Event-ID and the body of each request.
    strings stop()
    {
        if (server_.joinable()) {
            shutdown(listener_, SHUT_RDWR);
            server_.join();
            close(listener_);
            unlink(address_.sun_path);
        }
        return requests_;
    }

private:
    void serve()
    {
        int client = -1;
        for (const step &one : steps_) {
            client = client < 0 ? accept(listener_, nullptr, nullptr) : client;
            char request[4096];
            const ssize_t length = read(client, request, sizeof(request));
            if (length <= 0) {
                break;
            }
            const std::string text(request, static_cast<size_t>(length));
            const size_t end = text.find("\r\n\r\n");
            const size_t last_event = text.find("\r\nLast-Event-ID");
            requests_.push_back(text.substr(0, text.find(" HTTP"))
                                + (last_event < end ? text.substr(last_event, end - last_event) : "")
                                + text.substr(end + 4));
            EXPECT_EQ(send(client, one.answer.data(), one.answer.size(), MSG_NOSIGNAL), one.answer.size());
            if (one.hangs_up) {
                close(std::exchange(client, -1));
            }
        }
        char rest = 0;
        while (client >= 0 && read(client, &rest, 1) > 0) {}
        close(client);
    }

    std::vector<step> steps_;
    strings requests_;
    sockaddr_un address_ = {.sun_family = AF_UNIX, .sun_path = {}};
    int listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::thread server_;
};

struct outcome {
    exit_status status = exit_status::done;
    std::string message = {};
    std::string shown = {};
};

outcome outcome_of(const client_options &options)
{
    outcome result;
    testing::internal::CaptureStdout();
    try {
        run(options);
    } catch (const failure &error) {
        result = {error.status, error.what()};
        EXPECT_FALSE(result.message.empty());
    }
    result.shown = testing::internal::GetCapturedStdout();
    return result;
}

#define ERROR_BODY(tag, message) \
    R"({"ietf-restconf:errors":{"error":[{"error-tag":")" tag R"(","error-message":")" message R"("}]}})"

TEST(ExitStatus, FollowsFromTheAnswer)
{
    const struct {
        const char *answer;
        exit_status expected;
        const char *message = "";
    } rows[] = {
        {"HTTP/1.1 200 OK\r\n\r\n{\"l2fib-mac:domain\":[{\"name\":\"a\"}]}", exit_status::done},
        {"HTTP/1.1 200 OK\r\n\r\n{\"l2fib-mac:domain\":[]}", exit_status::nothing_found},
        {"HTTP/1.1 200 OK\r\n\r\n{\"l2fib-mac:domain\":[{\"name\":\"a\"}", exit_status::cut, "damaged"},
        {"HTTP/1.1 200 OK\r\n\r\n{\"l2fib-mac:domain\":[7]}", exit_status::cut, "damaged"},
        {"HTTP/1.1 200 OK\r\n\r\n{\"l2fib-mac:port\":[]}", exit_status::cut, "damaged"},
        {"HTTP/1.1 200 OK\r\nContent-Length: 99\r\n\r\n{\"l2fib-mac:domain\":[{\"name\":\"a\"}]}", exit_status::cut,
         "cut: "},
        {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n22\r\n{\"l2fib-mac:domain\":[{\"name\":\"a\"}]\r\n",
         exit_status::cut, "cut: "},
        {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz", exit_status::cut, "not HTTP"},
        {"HTTP/1.1 404 Not Found\r\n\r\n" ERROR_BODY("invalid-value", "m"), exit_status::nothing_found, "m"},
        {"HTTP/1.1 404 Not Found\r\n\r\n" ERROR_BODY("unknown-element", "m"), exit_status::refused, "m"},
        {"HTTP/1.1 503 Service Unavailable\r\n\r\n" ERROR_BODY("resource-denied", "\\\"a\\u001b\\\""),
         exit_status::refused, "\"a\\x1b\""},
        {"HTTP/1.1 431 Too large\r\n\r\n{\"ietf-restconf:errors\":{\"error\":[{\"error-message\":7},3]}}",
         exit_status::refused, "HTTP status 431 and no message"},
        {"no HTTP", exit_status::unreachable, "not HTTP"},
        {"", exit_status::unreachable, "closed the connection"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.answer);
        const canned_daemon daemon({{row.answer}});
        const outcome found = outcome_of({.command = command_kind::show_domain, .socket = daemon.path()});
        EXPECT_EQ(found.status, row.expected);
        EXPECT_THAT(found.message, testing::HasSubstr(row.message));
    }
    EXPECT_EQ(outcome_of({.command = command_kind::show_domain, .socket = "/tmp/no/such.sock"}).status,
              exit_status::unreachable);
    const canned_daemon silent({{"", false}});
    EXPECT_THAT(
        outcome_of({.command = command_kind::show_domain, .socket = silent.path(), .timeout_seconds = 1}).message,
        testing::HasSubstr("nothing arrived for 1 seconds"));
}

// An answer on a connection that stays open. `mark` is the word of the completeness header.
canned_daemon::step answered(const std::string &body, const std::string &mark = "whole", const char *status = "200 OK")
{
    return {std::string("HTTP/1.1 ") + status + "\r\nl2fib-completeness: " + mark
                + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body,
            false};
}

canned_daemon::step domains_page(const std::string &items, const std::string &more_members = "",
                                 const std::string &mark = "whole")
{
    return answered(R"({"l2fib-mac:domain":[)" + items + "]" + more_members + "}", mark);
}

#define NEXT R"(,"l2fib-mac:next-cursor":"c")"
#define DEGRADED R"(,"l2fib-mac:completeness":"degraded","l2fib-mac:completeness-reason":"why\u001b")"
#define MAY_BE "the answer may be incomplete "

const std::string all_domains = "GET /restconf/data/l2fib-mac:domains/domain?limit=1000";
const std::string more_domains = "GET /restconf/data/l2fib-mac:domains/domain?limit=10000&cursor=c";
const std::string a = R"({"name":"a"})";
const std::string b = R"({"name":"b"})";
const std::string long_name = '"' + std::string(size_t(5) << 20, 'x') + '"';

struct exchange {
    std::vector<canned_daemon::step> steps;
    client_options options; // missing members mean: show domain --json-lines
    outcome expected;
    strings requests = {all_domains};
};

void expect_exchange(const exchange &row)
{
    canned_daemon daemon(row.steps);
    client_options options = row.options;
    options.command = options.command == command_kind::none ? command_kind::show_domain : options.command;
    options.shown_as =
        options.shown_as == form::text && options.sorted_by != last_seen_word ? form::json_lines : options.shown_as;
    options.socket = daemon.path();
    const outcome found = outcome_of(options);
    EXPECT_EQ(daemon.stop(), row.requests);
    EXPECT_EQ(found.status, row.expected.status) << row.requests.back();
    EXPECT_EQ(found.message, row.expected.message);
    EXPECT_TRUE(found.shown == row.expected.shown) << found.shown.substr(0, 1000);
}

TEST(Pages, AreRequestedOneAfterAnother)
{
    const exchange rows[] = {
        {{domains_page(a, NEXT), domains_page(b)},
         {},
         {exit_status::done, "", a + "\n" + b + "\n"},
         {all_domains, more_domains}},
        // The daemon closed the connection between two requests.
        {{domains_page(a, NEXT), {""}, domains_page(b)},
         {},
         {exit_status::done, "", a + "\n" + b + "\n"},
         {all_domains, more_domains, more_domains}},
        {{domains_page(a + "," + a, NEXT), domains_page(b, NEXT)},
         {.limit = 3},
         {exit_status::done, "", a + "\n" + a + "\n" + b + "\n"},
         {"GET /restconf/data/l2fib-mac:domains/domain?limit=3",
          "GET /restconf/data/l2fib-mac:domains/domain?limit=1&cursor=c"}},
        // Items of the first page are printed, so every error of the second page means a cut answer.
        {{domains_page(a, NEXT), answered(ERROR_BODY("resource-denied", "m"), "whole", "503 No")},
         {},
         {exit_status::cut, "the answer was cut: m", a + "\n"},
         {all_domains, more_domains}},
        {{{"HTTP/1.1 200 OK\r\nContent-Length: 999\r\n\r\n{\"l2fib-mac:domain\":[{\"name\":\"a\"}],"
           R"("ietf-restconf:errors":{"error":[{"error-message":"the plane ended"}]})"}},
         {},
         {exit_status::cut, "the answer was cut: the plane ended", a + "\n"}},
    };
    for (const exchange &row : rows) {
        expect_exchange(row);
    }
}

TEST(Completeness, FollowsTheWorstPage)
{
    const exchange rows[] = {
        {{domains_page(a, NEXT DEGRADED), domains_page(b, "", "limited")},
         {},
         {exit_status::incomplete, MAY_BE "(degraded): why\\x1b", a + "\n" + b + "\n"},
         {all_domains, more_domains}},
        {{domains_page(a, "", "limited")}, {.strict = true}, {exit_status::incomplete, MAY_BE "(limited)", ""}},
        {{answered(ERROR_BODY("invalid-value", "m"), "degraded", "404 No")},
         {.shown_as = form::json},
         {exit_status::incomplete, "m; " MAY_BE "(degraded)", "[]\n"}},
        {{domains_page(R"({"name":)" + long_name + "}")},
         {.strict = true},
         {exit_status::done, "", "{\"name\":" + long_name + "}\n"}},
        {{answered(R"({"l2fib-mac:health":{"status":"degraded"}})", "degraded")},
         {.command = command_kind::show_health, .strict = true},
         {exit_status::done, "", "{\"status\":\"degraded\"}\n"},
         {"GET /restconf/data/l2fib-mac:health"}},
    };
    for (const exchange &row : rows) {
        expect_exchange(row);
    }
}

TEST(Commands, SendTheirOptions)
{
    const std::string all = "GET /restconf/data/l2fib-mac:";
    const canned_daemon::step entry = answered(R"({"l2fib-mac:mac-entry":[{"vlan":7}]})");
    const canned_daemon::step count = answered(R"({"l2fib-mac:mac-count":[{"vlan":7}]})");
    const canned_daemon::step port = answered(R"({"l2fib-mac:port":[{"xcid":4,"name":"p","domain":"g:d"}]})");
    const std::string ask_port = all + "ports/port?port=p&limit=1000";
    const exchange rows[] = {
        {{entry},
         {.command = command_kind::show_mac, .limit = 1, .filters = {{"domain", "d"}, {"not-vlan", "1"}}},
         {},
         {all + "mac-table/mac-entry?domain=d&not-vlan=1&limit=1"}},
        {{entry},
         {.command = command_kind::show_mac, .address = "02:00:00:00:00:01"},
         {},
         {all + "mac-table/mac-entry?mac=02:00:00:00:00:01&limit=1000"}},
        {{entry},
         {.command = command_kind::show_mac, .address = "02:00:00:00:00:01", .sorted_by = created_word},
         {},
         {all + "mac-aging/mac-entry?sort=created&mac-prefix=020000000001&limit=1000"}},
        {{entry},
         {.command = command_kind::show_mac, .sorted_by = created_word, .reverse = true},
         {},
         {all + "mac-table/mac-entry?sort=created&reverse=true&limit=1000"}},
        {{entry},
         {.command = command_kind::show_mac, .columns = {"vlan", "since"}},
         {},
         {all + "mac-table/mac-entry?with-since=true&limit=1000"}},
        {{port, entry, port},
         {.command = command_kind::show_mac, .filters = {{"vlan", "7"}, {"port", "p"}}, .flagged = true},
         {},
         {ask_port, all + "ports/port=4/mac-entry?flagged=true&vlan=7&limit=1000", ask_port}},
        {{count},
         {.command = command_kind::show_count, .filters = {{"vlan", "7"}}},
         {},
         {all + "mac-counts/mac-count?by=domain&vlan=7&limit=1000"}},
    };
    for (exchange row : rows) {
        row.expected.shown = "{\"vlan\":7}\n";
        expect_exchange(row);
    }
    expect_exchange({{answered(R"({"l2fib-mac:domain":[{"name":"g:d"}]})"), count},
                     {.command = command_kind::show_count, .filters = {{"domain", "d"}}},
                     {exit_status::done, "", "{\"scope\":\"g:d\"}\n"},
                     {all + "domains/domain?domain=d&limit=1000", all + "domains/domain=g:d/mac-count"}});
    expect_exchange({{answered(R"({"l2fib-mac:mac-entry":[{"age":1,"time-left":3661}]})")},
                     {.command = command_kind::show_mac, .shown_as = form::text, .sorted_by = last_seen_word},
                     {exit_status::done, "",
                      R"(Domain            MAC Address        Port         Type          Age      Left  VLAN  VTEP
-                 -                  -            -        00:00:01  01:01:01     -  -
)"},
                     {all + "mac-aging/mac-entry?sort=last-seen&limit=1000"}});
    expect_exchange({{answered(ERROR_BODY("operation-failed", "no full dump"), "degraded", "504 No")},
                     {.command = command_kind::resync, .timeout_seconds = 9, .filters = {{"domain", "g:d"}}},
                     {exit_status::refused, "no full dump", ""},
                     {R"(POST /restconf/operations/l2fib-mac:resync{"l2fib-mac:input":{"domain":"g:d","wait":8}})"}});
    expect_exchange(
        {{answered("", "degraded", "204 No Content"), answered(R"({"l2fib-mac:health":{})" DEGRADED "}", "degraded")},
         {.command = command_kind::resync},
         {exit_status::incomplete, MAY_BE "(degraded): why\\x1b", ""},
         {R"(POST /restconf/operations/l2fib-mac:resync{"l2fib-mac:input":{"wait":59}})",
          "GET /restconf/data/l2fib-mac:health"}});
    // Without the daemon's health, or with another state by then, the word stands alone.
    expect_exchange(
        {{answered("", "limited", "204 No Content"), answered(R"({"l2fib-mac:health":{})" DEGRADED "}", "degraded")},
         {.command = command_kind::resync},
         {exit_status::incomplete, MAY_BE "(limited)", ""},
         {R"(POST /restconf/operations/l2fib-mac:resync{"l2fib-mac:input":{"wait":59}})",
          "GET /restconf/data/l2fib-mac:health"}});
}

TEST(Monitor, ContinuesBehindTheLatestEvent)
{
    const std::string head = "HTTP/1.1 200 OK\r\n\r\n";
    const std::string learned_event = R"({"id":"1-6","event":"learned","port":"p1"})";
    const std::string moved_event = R"({"id":"2-9","event":"moved","port":"p1","from-port":"p2"})";
    const std::string missed_event = R"({"id":"2-8","event":"missed","count":"3","reason":"why\u001b"})";
    const auto event = [](const std::string &type, const std::string &id, const std::string &data) {
        return "event: " + type + "\nid: " + id + "\ndata: " + data + "\n\n";
    };
    const std::string restarted =
        event("begin", "2-5", "{}") + event("missed", "2-8", missed_event) + event("moved", "2-9", moved_event);
    const std::vector<canned_daemon::step> steps = {
        {head + event("begin", "1-5", "{}") + event("learned", "1-6", learned_event) + "id: 1-7\n\nid: 1-8"},
        {""},
        {answered(ERROR_BODY("resource-denied", "m"), "whole", "503 Service Unavailable").answer},
        {head + restarted + event("moved", "2-10", moved_event), false}};
    const std::string first = "GET /events";
    const std::string again = first + "\r\nLast-Event-ID: 1-7";
    testing::internal::CaptureStderr();
    expect_exchange({steps,
                     {.command = command_kind::monitor, .limit = 2},
                     {exit_status::incomplete, "events are missing: a line \"missed\" stands in the place of them",
                      "{}\n" + learned_event + "\n{}\n" + missed_event + "\n" + moved_event + "\n"},
                     {first, again, again, again}});
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "l2fibctl: l2fibd ended the stream of events; trying again\n"
                                                      "l2fibctl: connected to l2fibd again\n");
    // The first connection has to succeed, and a stream that is damaged never continues.
    expect_exchange({{answered(ERROR_BODY("resource-denied", "m"), "whole", "503 Service Unavailable")},
                     {.command = command_kind::monitor, .since = "1-7"},
                     {exit_status::refused, "m", ""},
                     {again}});
    const canned_daemon damaged({{head + event("begin", "1-5", "{}") + event("moved", "1-6", "[]")}});
    EXPECT_THAT(outcome_of({.command = command_kind::monitor, .socket = damaged.path()}).message,
                testing::HasSubstr("damaged"));
}

TEST(Find, JoinsTheTableAndTheHistory)
{
    const std::string entries = "GET /restconf/data/l2fib-mac:mac-table/mac-entry?mac=m&domain=d&limit=1000";
    const std::string moved = "GET /restconf/data/l2fib-mac:moves/move?mac=m&domain=d&limit=1000";
    const client_options options = {.command = command_kind::find, .address = "m", .filters = {{"domain", "d"}}};
    const std::string place = R"({"domain":"d","port":"p1"})";
    const std::string move = R"({"event":"aged","from-port":"p2"})";
    const auto list = [](const std::string &name, const std::string &items, const std::string &mark = "") {
        const std::string since = name == "move" ? R"(,"l2fib-mac:history-since":"t")" : "";
        return answered(R"({"l2fib-mac:)" + name + R"(":[)" + items + "]" + since + mark + "}");
    };
    expect_exchange(
        {{list("mac-entry", place), list("move", move)},
         options,
         {exit_status::done, "",
          R"({"mac-address":"m","mac-entry":[)" + place + R"(],"move":[)" + move + R"(],"history-since":"t"})" + "\n"},
         {entries, moved}});
    const std::string nowhere =
        "nothing found: no bridge domain has m, and it has not moved since t, when the history begins";
    expect_exchange({{list("mac-entry", ""), list("move", "")},
                     options,
                     {exit_status::nothing_found, nowhere, ""},
                     {entries, moved}});
    expect_exchange({{list("mac-entry", "", DEGRADED), list("move", "")},
                     options,
                     {exit_status::incomplete, nowhere + "; " MAY_BE "(degraded): why\\x1b", ""},
                     {entries, moved}});
}

} // namespace
} // namespace l2fibctl
