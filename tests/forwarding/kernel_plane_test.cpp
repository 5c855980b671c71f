// SPDX-License-Identifier: Apache-2.0

// The kernel's plane on real bridges and VXLAN devices, in network namespaces of the test's own. Its reports are
// compared with the output of the system's own tool.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <map>
#include <net/if.h>
#include <sched.h>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "forwarding/kernel/kernel_plane.h"
#include "forwarding/kernel/netlink/kernel_privileges.h"
#include "forwarding/kernel/netlink/kernel_request.h"
#include "forwarding/kernel/netlink/kernel_socket.h"
#include "tests/support/host/event_loop.h"

namespace {

using namespace forwarding;
using std::chrono::steady_clock;

// Keeps the reports in the plainest way.
struct naive_shadow_table final : sink {
    std::map<uint32_t, link_record> links;
    std::map<fdb_key, fdb_record> entries;
    std::set<uint32_t> links_reported;
    std::set<fdb_key> entries_reported;
    std::vector<bool> completions;
    uint64_t lost = 0;

    void link_changed(const link_record &record) override
    {
        links[record.ifindex] = record;
        links_reported.insert(record.ifindex);
    }
    void link_gone(uint32_t ifindex) override
    {
        links.erase(ifindex);
        std::erase_if(entries, [ifindex](const auto &entry) {
            return entry.second.ifindex == ifindex || entry.second.master == ifindex;
        });
    }
    void fdb_changed(const fdb_record &record) override
    {
        EXPECT_TRUE(links.contains(record.ifindex)) << "an entry before its link";
        entries[key_of(record)] = record;
        entries_reported.insert(key_of(record));
    }
    void fdb_gone(const fdb_record &record) override
    {
        const auto found = entries.find(key_of(record));
        if (found != entries.end() && found->second.ifindex == record.ifindex) {
            entries.erase(found);
        }
    }
    void next_hop_gone(uint32_t id) override
    {
        std::erase_if(entries, [id](const auto &entry) { return entry.second.destination.next_hop == id; });
    }
    void changes_lost(uint64_t count) override { lost += count; }
    void full_dump_begun() override
    {
        links_reported.clear();
        entries_reported.clear();
    }
    void full_dump_ended(bool clean) override
    {
        completions.push_back(clean);
        if (clean) {
            std::erase_if(links, [this](const auto &link) { return !links_reported.contains(link.first); });
            std::erase_if(entries, [this](const auto &entry) { return !entries_reported.contains(entry.first); });
        }
    }
};

int status_of(const std::string &command, std::string &result)
{
    FILE *const pipe = popen(command.c_str(), "r"); // NOLINT(cert-env33-c)
    for (char line[4096]; std::fgets(line, sizeof(line), pipe) != nullptr;) {
        result += line;
    }
    return pclose(pipe);
}

std::string output_of(const std::string &command)
{
    std::string result;
    EXPECT_EQ(status_of(command, result), 0) << command << ": " << result;
    return result;
}

// Lines for `ip` ("link ...", "nexthop ...") and for `bridge` ("fdb ...", "vni ..."), each run in one process. A port
// takes dynamic entries only once the kernel has noticed that it is up, which may take it a second.
void run(const std::string &lines)
{
    std::istringstream rest(lines);
    for (std::string line; std::getline(rest, line);) {
        const bool for_ip = line.starts_with("link") || line.starts_with("nexthop");
        const std::string command = (for_ip ? "ip " : "bridge ") + line + " 2>&1";
        std::string result;
        for (int tries = 0; status_of(command, result) != 0; tries++) {
            ASSERT_TRUE(line.find("dynamic") != std::string::npos && tries < 100) << command << ": " << result;
            usleep(100'000);
            result.clear();
        }
    }
}

void run_fdb(const char *verb, int first, int last)
{
    FILE *const pipe = popen("bridge -batch -", "w"); // NOLINT(cert-env33-c)
    for (int number = first; number < last; number++) {
        std::fprintf(pipe, "fdb %s 02:00:01:00:%02x:%02x dev p0 master static\n", verb, number / 256, number % 256);
    }
    EXPECT_EQ(pclose(pipe), 0);
}

std::string text_of(const mac_address &mac)
{
    char text[18];
    std::snprintf(text, sizeof(text), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    return text;
}

using words = std::multiset<std::string>;

words words_of(const naive_shadow_table &copy, const fdb_record &record)
{
    words result{text_of(record.mac), "dev", copy.links.at(record.ifindex).name};
    const auto add = [&result](bool present, std::initializer_list<std::string> more) {
        if (present) {
            result.insert(more);
        }
    };
    const auto &to = record.destination.address;
    add(record.self, {"self"});
    add(record.master != 0, {"master", copy.links.contains(record.master) ? copy.links.at(record.master).name : "?"});
    char address[16];
    std::snprintf(address, sizeof(address), "%d.%d.%d.%d", to[0], to[1], to[2], to[3]);
    add(record.destination.kind == destination_kind::ipv4, {"dst", address});
    add(record.destination.kind == destination_kind::next_hop, {"nhid", std::to_string(record.destination.next_hop)});
    add(record.destination.vni != 0, {"vni", std::to_string(record.destination.vni)});
    add(record.destination.port != 0, {"port", std::to_string(record.destination.port)});
    add(record.source_vni != 0, {"src_vni", std::to_string(record.source_vni)});
    add((record.state & fdb_permanent) != 0, {"permanent"});
    add((record.state & (fdb_permanent | fdb_noarp)) == fdb_noarp, {"static"});
    add((record.flags & fdb_sticky) != 0, {"sticky"});
    add((record.flags & fdb_extern_learn) != 0, {"extern_learn"});
    return result;
}

std::multiset<words> reported(const naive_shadow_table &copy)
{
    std::multiset<words> result;
    for (const auto &[key, record] : copy.entries) {
        result.insert(words_of(copy, record));
    }
    return result;
}

// What `bridge fdb show` prints, but for receive filters.
std::multiset<words> truth(const naive_shadow_table &copy)
{
    std::set<std::string> devices;
    for (const auto &[ifindex, link] : copy.links) {
        if (link.kind == link_kind::vxlan) {
            devices.insert(link.name);
        }
    }
    std::multiset<words> result;
    std::istringstream output(output_of("bridge -d fdb show"));
    for (std::string line; std::getline(output, line);) {
        std::istringstream split(line);
        words all;
        for (std::string word; split >> word;) {
            if (word == "link-netnsid") {
                split >> word; // of another namespace; not reported
            } else {
                all.insert(word);
            }
        }
        const bool of_device =
            std::any_of(all.begin(), all.end(), [&](const auto &word) { return devices.contains(word); });
        if (!all.contains("self") || of_device) {
            result.insert(all);
        }
    }
    return result;
}

// A plane on this thread's event manager, which the test serves by hand.
struct running_plane {
    naive_shadow_table copy;
    event_manager_t *evm = nullptr;
    uint32_t tick = 0;
    std::unique_ptr<plane> kernel;
    std::string error;

    explicit running_plane(const kernel_options &options = {.full_dump_interval_ms = 20})
        : kernel(make_kernel_plane(options))
    {
        host::event_manager_forget_ended();
        static std::atomic<int> count = 0;
        evm = test::create_manager(("/test/kernel/" + std::to_string(++count)).c_str());
        host::event_timer_attach(
            evm, 0, 20'000'000, [](void *) {}, nullptr, &tick); // so that a wait can end
        error = kernel->start(evm, copy).text;
    }
    running_plane(const running_plane &) = delete;
    running_plane &operator=(const running_plane &) = delete;
    ~running_plane()
    {
        kernel->stop();
        host::event_manager_stop(evm);
    }

    template <typename Condition>
    testing::AssertionResult serve_until(Condition condition) const
    {
        const auto deadline = steady_clock::now() + std::chrono::seconds(100);
        while (!condition()) {
            if (steady_clock::now() > deadline || test::serve_one(evm) != 0) {
                return testing::AssertionFailure() << "it did not come";
            }
        }
        return testing::AssertionSuccess();
    }

    testing::AssertionResult serve_until_clean() const
    {
        return serve_until([this] { return !copy.completions.empty() && kernel->health().clean; });
    }

    uint32_t index(const std::string &name) const
    {
        for (const auto &[ifindex, link] : copy.links) {
            if (link.name == name) {
                return ifindex;
            }
        }
        return 0;
    }
};

bool new_namespace()
{
    return unshare(CLONE_NEWNET) == 0;
}

class own_namespace : public testing::Test {
protected:
    void SetUp() override
    {
        if (!new_namespace()) {
            GTEST_SKIP() << "network namespaces take CAP_SYS_ADMIN: run as root";
        }
        std::ofstream("/proc/sys/net/ipv6/conf/default/disable_ipv6") << 1; // so that nobody sends by itself
        run("link add br0 type bridge\n"
            "link add p0 up type veth peer name q0\n"
            "link set p0 master br0\n"
            "link set q0 up\n"
            "link set br0 up");
    }
};

// Changes of every kind that the kernel reports. Each step is a list of lines for run().
constexpr const char *steps[] = {
    "fdb add 02:00:00:00:00:01 dev p0 master static\n"
    "fdb add 02:00:00:00:00:02 dev p0 master dynamic\n"
    "fdb add 02:00:00:00:00:03 dev p0 master static sticky\n"
    "fdb add 02:00:00:00:00:04 dev p0 master dynamic extern_learn\n"
    "fdb add 02:00:00:00:00:05 dev br0 self local",
    "link add br1 address 02:00:00:00:01:00 type bridge\n" // its own entry is notified before it
    "link add p1 up master br0 type veth peer name q1\n"
    "link set q1 up\n"
    "fdb replace 02:00:00:00:00:02 dev p1 master dynamic", // moves
    "link add vx0 up master br0 type vxlan id 10 dstport 4789\n"
    "fdb add 02:00:00:00:00:06 dev vx0 master dynamic\n"
    "fdb add 02:00:00:00:00:06 dev vx0 self dst 10.0.0.1 dynamic\n"
    "fdb append 00:00:00:00:00:00 dev vx0 dst 10.0.0.1\n"
    "fdb append 00:00:00:00:00:00 dev vx0 dst 10.0.0.2 vni 11\n"
    "fdb append 00:00:00:00:00:00 dev vx0 dst 10.0.0.2 port 4000\n"
    "fdb append 00:00:00:00:00:00 dev vx0 dst 10.0.0.3",
    "link add vxe type vxlan dstport 4790 external vnifilter\n"
    "link set vxe up\n"
    "vni add vni 500 dev vxe\n"
    "vni add vni 501 dev vxe\n"
    "fdb add 02:00:00:00:00:07 dev vxe dst 10.0.0.4 src_vni 500 vni 600\n"
    "fdb add 02:00:00:00:00:07 dev vxe dst 10.0.0.5 src_vni 501",
    "fdb del 00:00:00:00:00:00 dev vx0 dst 10.0.0.2 vni 11\n"
    "fdb replace 02:00:00:00:00:06 dev vx0 self dst 10.0.0.9 dynamic\n"
    "fdb append 01:00:5e:00:00:01 dev vx0 dst 10.0.0.1\n"
    "fdb append 01:00:5e:00:00:01 dev vx0 dst 10.0.0.2\n"
    "fdb del 01:00:5e:00:00:01 dev vx0 dst 10.0.0.2\n" // the other one stays
    "fdb del 02:00:00:00:00:01 dev p0 master",
    "nexthop add id 1 via 10.0.0.1 fdb\n"
    "nexthop add id 2 via 10.0.0.2 fdb\n"
    "nexthop add id 3 dev q0\n"
    "nexthop add id 10 group 1/2 fdb\n"
    "nexthop add id 11 group 2 fdb\n"
    "nexthop add id 12 group 1 fdb\n"
    "nexthop add id 13 group 1 fdb\n"
    "fdb add 02:00:00:00:00:0a dev vx0 nhid 10 self\n"
    "fdb add 02:00:00:00:00:0b dev vx0 nhid 11 self\n"
    "fdb add 02:00:00:00:00:0c dev vx0 nhid 12 self\n"
    "fdb add 02:00:00:00:00:0d dev vx0 nhid 13 self",
    "nexthop replace id 10 group 1 fdb\nnexthop del id 2", // empties 11
    "nexthop replace id 12 group 3\nnexthop del id 12",    // had become one of routes
    "nexthop del id 13\nnexthop add id 13 group 1 fdb\nfdb add 02:00:00:00:00:0e dev vx0 nhid 13 self",
    "nexthop flush",
    "link set vxe master br1",
    "fdb flush dev br0\nfdb add 02:00:00:00:00:02 dev p1 master dynamic",
    "link set p1 name p9\nlink set br0 name br9",
    "link set br9 address 02:00:00:00:00:aa\nlink set p9 address 02:00:00:00:00:bb", // the bridge had a port's
    "link set p0 address 02:00:00:00:00:bb",
    "link set p9 address 02:00:00:00:00:cc", // the entry passes to p0
    "link set p0 address 02:00:00:00:00:aa\nlink set br9 address 02:00:00:00:00:dd",
    "link set br9 address 02:00:00:00:00:aa",
    "link set p0 nomaster\nlink del vx0", // the entry passes to the bridge
    "link set p0 master br1\nlink del p9",
    "link del br9",
    "link del vxe\nlink del br1",
    "link add br2 up type bridge\nlink set p0 master br2", // takes its port's address
    "link set p0 nomaster",
};

// Each step is seen both as it happens and by a plane that starts after it.
TEST_F(own_namespace, ReportsWhatTheSystemLists)
{
    running_plane live;
    ASSERT_TRUE(live.serve_until_clean()) << live.error;
    for (const char *step : steps) {
        SCOPED_TRACE(step);
        run(step);
        live.kernel->drain();
        EXPECT_EQ(reported(live.copy), truth(live.copy));
        std::thread([] {
            const running_plane cold;
            ASSERT_TRUE(cold.serve_until_clean());
            EXPECT_EQ(reported(cold.copy), truth(cold.copy));
        }).join();
    }
    EXPECT_EQ(live.kernel->health().full_dumps, 1U);
    EXPECT_EQ(live.kernel->health().refused, 0U);
}

TEST_F(own_namespace, LinksCarryWhatTheirKindNeeds)
{
    run("link add vx0 up type vxlan id 10 dstport 4789\n"
        "link add vxe type vxlan dstport 4790 external vnifilter\n"
        "link set p0 address 02:00:00:00:00:aa");
    const running_plane live;
    ASSERT_TRUE(live.serve_until_clean());
    const auto link = [&live](const char *name) { return live.copy.links.at(live.index(name)); };
    EXPECT_EQ(link("br0").kind, link_kind::bridge);
    EXPECT_TRUE(link("br0").up);
    EXPECT_EQ(link("br0").ageing_ms, 300'000U);
    EXPECT_EQ(link("p0").ageing_ms, 0U);
    EXPECT_EQ(link("p0").kind, link_kind::other);
    EXPECT_EQ(link("p0").master, live.index("br0"));
    EXPECT_EQ(text_of(link("p0").address), "02:00:00:00:00:aa");
    EXPECT_FALSE(link("vxe").up);
    EXPECT_EQ(link("vx0").kind, link_kind::vxlan);
    EXPECT_EQ(link("vx0").vni, 10U);
    EXPECT_FALSE(link("vx0").external);
    EXPECT_TRUE(link("vxe").external);
    run("link set br0 type bridge ageing_time 1000");
    live.kernel->drain();
    EXPECT_EQ(link("br0").ageing_ms, 10'000U);
}

// None that lives may be missed, and what the dump's bytes say of one that was deleted meanwhile must not count.
TEST_F(own_namespace, RepeatsADumpThatDeletionsDisturbed)
{
    constexpr int entries = 8000;
    run_fdb("add", 0, entries);
    running_plane live;
    ASSERT_TRUE(live.serve_until([&live] { return live.copy.entries.size() > 1000; }));
    ASSERT_TRUE(live.copy.completions.empty());
    run_fdb("del", entries - 3000, entries); // the newest stand first; some are in bytes on their way
    live.kernel->drain();
    ASSERT_TRUE(live.serve_until([&live] { return !live.copy.completions.empty(); }));
    EXPECT_TRUE(live.copy.completions[0]);
    EXPECT_GE(live.kernel->health().dumps_unclean, 1U);
    EXPECT_EQ(reported(live.copy), truth(live.copy));
}

TEST_F(own_namespace, AnOverrunBeginsANewGeneration)
{
    run_fdb("add", 0, 500);
    run("link add br5 type bridge");
    running_plane live({.receive_buffer = 4096, .full_dump_interval_ms = 20});
    ASSERT_TRUE(live.serve_until_clean());
    run_fdb("add", 500, 5500);
    run_fdb("del", 0, 300);
    run("link del br5");
    live.kernel->drain();
    EXPECT_FALSE(live.kernel->health().clean);
    EXPECT_EQ(live.kernel->health().overruns, 1U);
    EXPECT_LT(live.copy.entries.size(), 5000U); // the notifications told no more
    const plane_health degraded = live.kernel->health();
    EXPECT_NEAR(static_cast<double>(degraded.lost), 5300, 100); // some fit, and links have notifications, too
    EXPECT_EQ(degraded.lost, live.copy.lost);
    EXPECT_NEAR(static_cast<double>(degraded.last_overrun_time), static_cast<double>(std::time(nullptr)), 60);
    ASSERT_TRUE(live.serve_until_clean());
    EXPECT_GE(live.kernel->health().full_dumps, 2U);
    EXPECT_EQ(reported(live.copy), truth(live.copy));
}

// Of this thread.
double processor_seconds()
{
    timespec used{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

TEST_F(own_namespace, OverrunsDuringChurnTakeLittleTimeAndEndWithIt)
{
    run_fdb("add", 0, 500);
    running_plane live({.receive_buffer = 4096, .full_dump_interval_ms = 20});
    std::atomic<bool> ends = false;
    std::thread churn([&ends] {
        while (!ends) {
            run_fdb("add", 500, 2000);
            run_fdb("del", 500, 2000);
        }
    });
    const auto end = steady_clock::now() + std::chrono::seconds(2);
    [[maybe_unused]] const double before = processor_seconds();
    EXPECT_TRUE(live.serve_until([end] { return steady_clock::now() > end; }));
#ifndef __SANITIZE_THREAD__ // which makes this work several times as long, more so on a busy machine
    EXPECT_LT(processor_seconds() - before, 1.0);
#endif
    ends = true;
    churn.join();
    EXPECT_GT(live.kernel->health().overruns, 10U);
    live.kernel->drain();
    ASSERT_TRUE(live.serve_until_clean());
    EXPECT_EQ(live.kernel->health().lost, live.copy.lost);
    EXPECT_EQ(reported(live.copy), truth(live.copy));
}

// Also when it fails, because links come and go during each dump of all links.
TEST_F(own_namespace, AProofListsEverythingAndLeavesThePlaneClean)
{
    for (int pair = 0; pair < 200; pair++) {
        run("link add type veth");
    }
    running_plane live({.full_dump_interval_ms = 20, .proof_interval_ms = 20});
    ASSERT_TRUE(live.serve_until_clean());
    live.copy.entries.clear();
    const auto seen_degraded = [&live] { return !live.kernel->health().clean; };
    ASSERT_TRUE(live.serve_until([&] { return seen_degraded() || live.copy.completions.size() == 2; }));
    EXPECT_EQ(reported(live.copy), truth(live.copy));
    ASSERT_TRUE(live.serve_until([&] {
        run("link add x0 type veth\nlink del x0");
        return seen_degraded() || !live.copy.completions.back();
    }));
    EXPECT_FALSE(seen_degraded());
}

TEST_F(own_namespace, AListingOnDemandBeginsAfterTheDemand)
{
    run_fdb("add", 0, 8000);
    running_plane live({.full_dump_interval_ms = 200, .proof_interval_ms = 20});
    live.kernel->request_full_dump(); // the first one is on its way and counts
    ASSERT_TRUE(live.serve_until_clean());
    EXPECT_EQ(live.kernel->health().full_dumps, 1U);
    const auto lists = [&live] { return live.kernel->health().full_dumps > live.copy.completions.size(); };
    ASSERT_TRUE(live.serve_until(lists));
    live.kernel->request_full_dump(); // a proof is on its way and does not count
    EXPECT_FALSE(live.kernel->health().clean);
    ASSERT_TRUE(live.serve_until([&lists] { return !lists(); }));
    EXPECT_FALSE(live.kernel->health().clean);
    const auto ended = steady_clock::now();
    ASSERT_TRUE(live.serve_until(lists));
    EXPECT_GT(steady_clock::now() - ended, std::chrono::milliseconds(150));
    ASSERT_TRUE(live.serve_until_clean());
    EXPECT_EQ(live.kernel->health().full_dumps, 3U);
}

TEST_F(own_namespace, AnswersForSingleEntries)
{
    run("link add vx0 master br0 type vxlan id 10 dstport 4789\n"
        "fdb append 00:00:00:00:00:00 dev vx0 dst 10.0.0.1\n"
        "fdb append 00:00:00:00:00:00 dev vx0 dst 10.0.0.2\n"
        "link add vxe type vxlan dstport 4790 external vnifilter\n"
        "link set vxe up\nvni add vni 500 dev vxe\n"
        "fdb add 02:00:00:00:00:07 dev vxe dst 10.0.0.4 src_vni 500 vni 600");
    run_fdb("add", 0, 700);
    const auto began = steady_clock::now();
    running_plane live;
    ASSERT_TRUE(live.serve_until_clean());

    std::vector<fdb_key> keys;
    std::vector<fdb_presence> expected;
    for (const auto &[key, record] : live.copy.entries) {
        const bool second = key.destination.address[3] == 2; // of the flood list
        keys.push_back(key);
        expected.push_back(second ? fdb_presence::unknown : fdb_presence::present);
        keys.push_back(key);
        keys.back().mac[5] = 0xfe;
        keys.back().mac[1] = 1;
        expected.push_back(fdb_presence::absent);
    }
    keys.push_back({.holder = 9999, .self = true, .mac = {2, 0, 0, 0, 0, 7}});
    expected.push_back(fdb_presence::absent);
    std::vector<fdb_answer> answers(keys.size());
    live.kernel->query(keys, answers);
    // An age is as old as its message when the plane reads it, and the kernel counts in ticks of 10 ms.
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now() - began);
    const auto allowed_ms = static_cast<double>(took.count() + 20);
    for (size_t place = 0; place < keys.size(); place++) {
        EXPECT_EQ(answers[place].presence, expected[place]) << place << " " << text_of(keys[place].mac);
        if (expected[place] == fdb_presence::present) {
            fdb_record known = live.copy.entries.at(keys[place]);
            EXPECT_NEAR(static_cast<double>(answers[place].record.updated_ms), static_cast<double>(known.updated_ms),
                        allowed_ms);
            known.updated_ms = answers[place].record.updated_ms;
            EXPECT_EQ(answers[place].record, known);
        }
    }
    live.kernel->stop();
    live.kernel->query({keys.data(), 1}, {answers.data(), 1});
    EXPECT_EQ(answers[0].presence, fdb_presence::unknown);
}

TEST_F(own_namespace, AgesOfAWholeBridgeAreNeverOlderThanTheirReader)
{
    run("link add br1 type bridge\nlink add p1 type veth peer name q1\nlink set p1 master br1\n"
        "fdb add 02:00:02:00:00:01 dev p1 master static");
    run_fdb("add", 0, 2000);
    running_plane live;
    ASSERT_TRUE(live.serve_until_clean());
    std::vector<fdb_key> keys;
    for (const auto &[key, record] : live.copy.entries) {
        keys.push_back(key);
    }
    ASSERT_GT(keys.size(), 2000U);
    std::vector<fdb_answer> ages(keys.size());
    const auto ask = [&] { live.kernel->query_ages(keys, ages); };
    const auto count = [&ages](fdb_presence presence) {
        return std::ranges::count(ages, presence, &fdb_answer::presence);
    };
    const auto before = steady_clock::now();
    // The first round asks about the entries or dumps them, the second one has the ages.
    for (int round = 0; round < 2; round++) {
        live.kernel->begin_ages();
        ask();
        ask();
        ASSERT_EQ(count(fdb_presence::present), std::ssize(keys));
    }
    std::vector<fdb_answer> single(keys.size());
    live.kernel->query(keys, single);
    // An age is as old as its message when the plane reads it, and the kernel counts in ticks of 10 ms.
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now() - before);
    for (size_t at = 0; at < keys.size(); at++) {
        const bool is_permanent = (single[at].record.state & fdb_permanent) != 0;
        EXPECT_TRUE(is_permanent
                    || std::abs(ages[at].record.updated_ms - single[at].record.updated_ms) <= took.count() + 20)
            << text_of(keys[at].mac);
    }

    const auto changed = steady_clock::now();
    run_fdb("del", 0, 500);
    run_fdb("replace", 500, 600); // seen again
    run("link del br1");
    live.kernel->begin_ages();
    ask();
    for (size_t at = 0; at < keys.size(); at++) {
        const int number = keys[at].mac[2] == 1 ? keys[at].mac[4] * 256 + keys[at].mac[5] : -1;
        if (keys[at].holder == live.index("br1")) { // gone, so the kernel may refuse the question
            EXPECT_NE(ages[at].presence, fdb_presence::present) << text_of(keys[at].mac);
            continue;
        }
        const bool is_gone = number >= 0 && number < 500;
        EXPECT_EQ(ages[at].presence, is_gone ? fdb_presence::absent : fdb_presence::present) << text_of(keys[at].mac);
        if (number >= 500 && number < 600) {
            const auto seen = steady_clock::time_point(std::chrono::milliseconds(ages[at].record.updated_ms));
            EXPECT_GT(seen, changed - std::chrono::milliseconds(20)) << text_of(keys[at].mac);
        }
    }
    live.kernel->stop();
    ask();
    EXPECT_EQ(count(fdb_presence::unknown), std::ssize(keys));
}

TEST_F(own_namespace, LooksIntoTheNamespaceItIsGiven)
{
    const int there = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    ASSERT_TRUE(new_namespace());
    {
        const running_plane live({.netns = "/proc/self/fd/" + std::to_string(there)});
        ASSERT_TRUE(live.serve_until_clean()) << live.error;
        EXPECT_NE(live.index("br0"), 0U);
    }
    close(there);
    const running_plane nowhere({.netns = "no-such-namespace"});
    EXPECT_NE(nowhere.error.find("/run/netns/no-such-namespace: No such file"), std::string::npos) << nowhere.error;
}

TEST_F(own_namespace, ReadsWithoutCapabilities)
{
    std::thread([] {
        EXPECT_TRUE(kernel_give_up_capabilities().ok());
        EXPECT_FALSE(new_namespace());
        running_plane live;
        ASSERT_TRUE(live.serve_until_clean()) << live.error;
        EXPECT_EQ(reported(live.copy), truth(live.copy));
    }).join();
}

TEST_F(own_namespace, SocketsRefuseStrangersAndWhatIsCutOff)
{
    kernel_socket receiver;
    kernel_socket sender;
    ASSERT_TRUE(kernel_socket_open(receiver).ok());
    ASSERT_TRUE(kernel_socket_open(sender).ok());
    alignas(4) std::byte request[kernel_request_size];
    const size_t length = kernel_put_dump(request, 1, kernel_scope::links, 0);
    sockaddr_nl to{AF_NETLINK, 0, mnl_socket_get_portid(receiver.handle), 0};
    ASSERT_EQ(sendto(kernel_socket_fd(sender), request, length, 0, reinterpret_cast<sockaddr *>(&to), sizeof(to)),
              static_cast<ssize_t>(length));
    std::byte buffer[200];
    std::span<const std::byte> datagram;
    EXPECT_EQ(kernel_socket_read(receiver, buffer, datagram), kernel_read::refused);
    EXPECT_EQ(kernel_socket_read(receiver, buffer, datagram), kernel_read::empty);
    ASSERT_TRUE(kernel_socket_send(receiver, std::span(request).first(length)));
    EXPECT_EQ(kernel_socket_read(receiver, buffer, datagram), kernel_read::truncated);
}

TEST_F(own_namespace, WhatWasNotifiedBeforeItsLinkDoesNotComeBack)
{
    running_plane live;
    run("fdb add 02:00:00:00:00:01 dev p0 master static");
    live.kernel->drain(); // before the links are read
    ASSERT_TRUE(live.serve_until_clean());
    EXPECT_EQ(reported(live.copy), truth(live.copy));
    run("fdb del 02:00:00:00:00:01 dev p0 master\nlink set p0 down\nlink set p0 up");
    live.kernel->drain();
    EXPECT_EQ(reported(live.copy), truth(live.copy));
}

void add_bridge_that_floods(const std::string &number)
{
    run("link add br" + number + " type bridge\nlink add vx" + number + " up master br" + number
        + " type vxlan dstport 4789 id " + number + "\nfdb append 00:00:00:00:00:00 dev vx" + number + " dst 10.0.0.1");
}

// A VXLAN device whose entries were to be dumped with those of its bridge.
TEST_F(own_namespace, ABridgeThatGoesBeforeItsDumpTakesNothingAlong)
{
    for (const char *number : {"1", "2", "3"}) {
        add_bridge_that_floods(number);
    }
    run("link add br9 type bridge\nlink set p0 master br9"); // the newest comes first
    run_fdb("add", 0, 8000);
    running_plane live;
    ASSERT_TRUE(live.serve_until([&live] { return live.copy.entries.size() > 1000; }));
    ASSERT_TRUE(live.copy.completions.empty());
    run("link del br1\nlink del br2\nlink del br3");
    ASSERT_TRUE(live.serve_until([&live] { return !live.copy.completions.empty(); }));
    EXPECT_TRUE(live.copy.completions[0]);
    EXPECT_EQ(live.kernel->health().dumps_unclean, 0U); // they were no ports of br9
    EXPECT_EQ(reported(live.copy), truth(live.copy));
}

TEST_F(own_namespace, ADeviceFromAnotherNamespaceBringsItsEntriesAlong)
{
    const std::string here = "/proc/" + std::to_string(getpid()) + "/task/" + std::to_string(gettid()) + "/ns/net";
    running_plane live;
    ASSERT_TRUE(live.serve_until_clean());
    int there = -1; // keeps the other namespace: when it ends, the kernel deletes its VXLAN devices wherever they are
    std::thread([&here, &there] {
        ASSERT_TRUE(new_namespace());
        there = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
        run("link add vx0 type vxlan id 10 dstport 4789 remote 10.0.0.1\n"
            "fdb append 00:00:00:00:00:00 dev vx0 dst 10.0.0.2\nlink set vx0 netns "
            + here);
    }).join();
    const auto counted = live.kernel->health().dumps_clean;
    live.kernel->drain();
    ASSERT_TRUE(live.serve_until([&] { return live.kernel->health().dumps_clean > counted; }));
    EXPECT_EQ(reported(live.copy), truth(live.copy));
    EXPECT_EQ(live.kernel->health().full_dumps, 1U);
    close(there);
    ASSERT_TRUE(live.serve_until([&] { return live.index("vx0") == 0; }));
    EXPECT_EQ(reported(live.copy), truth(live.copy));
}

} // namespace
