// SPDX-License-Identifier: Apache-2.0

#include "forwarding/forwarding.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <future>
#include <memory>
#include <unistd.h>

#include "base/mutex.h"
#include "forwarding/feeder/answers/asking.h"
#include "forwarding/feeder/cache/table_hold.h"
#include "forwarding/feeder/feeder.h"
#include "forwarding/generated/generate.h"
#include "forwarding/kernel/kernel_plane.h"
#include "forwarding/kernel/netlink/kernel_privileges.h"
#include "forwarding/recorded/replay.h"
#include "forwarding/running.h"
#include "host/database/operational_db_host.h"
#include "host/event/event_host.h"
#include "host/objects/l2fib_host.h"
#include "l2fm_edm_table.h"
#include "platform/event.h"

namespace forwarding {
namespace {

constexpr const char *process_path = "/dev/l2fibd";
constexpr uint32_t thread_wait_seconds = 60;

// A started module with its plane and feeder.
struct running_module {
    std::unique_ptr<plane> source;
    std::unique_ptr<feeder> feed;
    event_manager_t *process_evm = nullptr;
    uint16_t wait_seconds = 0;
    base::result plane_started; // written by the cache thread before it serves
};

// What runs, for other threads: they hold the mutex shared while they use it. Start and stop hold it alone.
base::shared_mutex running_mutex;
std::unique_ptr<running_module> running L2FIB_GUARDED_BY(running_mutex);

// What the module calls back. The module passes no cookie to its callbacks, so a process can run only one. Start sets
// it before the module's threads exist, and stop clears it after they have ended, so they need no lock.
running_module *called_back = nullptr;

// The MAC limit. Static, because the module reads this cell for each entry that it creates, until the process ends.
uint32_t mac_limit_cell;

// ---- Callbacks of the module ----

void resync(uint32_t type, uint32_t arg)
{
    try {
        called_back->feed->resync({type, arg});
    } catch (const std::bad_alloc &) {
        l2fib_mac_edm_resync_complete(EDM_RESYNC_STATUS_FAILED);
    }
}

void attach_plane(event_manager_t *evm)
{
    try {
        called_back->plane_started = called_back->feed->start(evm);
    } catch (const std::bad_alloc &) {
        called_back->plane_started = base::system_failure(ENOMEM, "the forwarding plane");
    }
}

void act()
{
    try {
        called_back->feed->refresh_everything();
    } catch (const std::bad_alloc &) {
        // Out of memory: the next resync brings the cache up to date.
    }
}

l2fib_mac_edm_pd_cb_t callbacks()
{
    l2fib_mac_edm_pd_cb_t table = {};
    table.resync_all_cb = [] { resync(EDM_RESYNC_ALL, 0); };
    table.resync_bd_cb = [](uint16_t bridge_id) { resync(EDM_RESYNC_BD, bridge_id); };
    table.resync_bp_cb = [](uint32_t xcid) { resync(EDM_RESYNC_BP, xcid); };
    table.action_cb = act;
    table.cb4 = table.cb6 = [] {};
    table.bd_mac_count_cb = [](uint16_t bridge_id, edm_mac_counters_t *counters) {
        return called_back->feed->count(bridge_id, *counters);
    };
    table.cache_evm_cb = attach_plane;
    table.capabilities_cb = [](uint16_t *wait_time) {
        *wait_time = called_back->wait_seconds;
        return uint32_t{0};
    };
    return table;
}

// Answers the module's question about the state of one address: sets L2FIB_MAC_QUERY_F2 if the plane holds it as
// static. If the plane cannot answer, the cached state stays.
uint32_t answer_query(void *cookie, uint32_t bridge_id, const uint8_t *mac_addr, uint8_t *state)
{
    mac_address mac;
    std::memcpy(mac.data(), mac_addr, mac.size());
    fdb_record record;
    if (static_cast<feeder *>(cookie)->ask(bridge_id, mac, record) && (record.state & fdb_noarp) != 0) {
        *state = static_cast<uint8_t>(*state | L2FIB_MAC_QUERY_F2);
    }
    return 0;
}

// ---- Start ----

base::result make_generated(const options &options, std::unique_ptr<plane> &made)
{
    fabric_options fabric;
    if (const base::result parsed = parse_fabric(options.fabric, fabric); !parsed.ok()) {
        return base::failure(parsed.code, "the fabric: " + parsed.text);
    }
    made = make_generated_plane(fabric);
    return base::success();
}

base::result make_kernel(const options &options, std::unique_ptr<plane> &made)
{
    made = make_kernel_plane({.receive_buffer = options.receive_buffer, .netns = options.netns});
    return kernel_give_up_capabilities();
}

base::result make_plane(const options &options, std::unique_ptr<plane> &made)
{
    switch (options.plane) {
    case plane_choice::kernel: return make_kernel(options, made);
    case plane_choice::recorded: return load_recorded_plane(options.recorded_directory, made);
    default: return make_generated(options, made);
    }
}

base::result check_options(const options &options)
{
    if (options.mac_limit == 0) {
        return base::failure(EINVAL, "the MAC limit is 0, expected at least 1");
    }
    if (options.domain_limit == 0 || options.port_limit == 0) {
        return base::failure(EINVAL, "the limit of bridge domains or ports is 0, expected at least 1");
    }
    if (options.event_limit == 0) {
        return base::failure(EINVAL, "the limit of events is 0, expected at least 1");
    }
    if (options.resync_wait_seconds == 0) {
        return base::failure(EINVAL, "the resync wait time is 0, expected at least 1 second");
    }
    return options.group.empty() ? base::success() : check_group(options.group);
}

std::unique_ptr<running_module> make_module(std::unique_ptr<plane> source, const options &options)
{
    auto made = std::make_unique<running_module>();
    const std::string group = options.group.empty() ? default_group() : options.group;
    made->feed =
        std::make_unique<feeder>(*source, feeder_settings{group, options.resync_wait_seconds, options.mac_limit,
                                                          options.proof_rate, options.domain_limit, options.port_limit,
                                                          options.event_limit, options.move_limit, options.report});
    made->source = std::move(source);
    made->wait_seconds = options.resync_wait_seconds;
    return made;
}

base::result start_module(running_module &starting, uint32_t mac_limit)
{
    host::event_manager_forget_ended();
    starting.process_evm = event_manager_create(0, process_path, EVENT_MANAGER_DEPTH, 0);
    if (starting.process_evm == nullptr) {
        return base::failure(ENOMEM, "the process's event manager cannot be created");
    }
    host::mac_query_set(answer_query, starting.feed.get());
    l2fib_mac_edm_defn_init(&mac_limit_cell, mac_limit);
    const l2fib_mac_edm_pd_cb_t table = callbacks();
    const uint32_t status =
        l2fib_mac_edm_init(starting.process_evm, &starting, evm_get_chan(starting.process_evm), &table);
    return status == 0
               ? base::success()
               : base::failure(EIO, std::string("the module does not start: ") + host::operational_status_text(status));
}

base::result wait_until_served(const running_module &started)
{
    for (const char *path : {EDM_CACHE_THREAD_PATH, EDM_REQUEST_THREAD_PATH}) {
        if (host::event_manager_wait(path, thread_wait_seconds) != host::event_manager_state::serving) {
            return base::failure(ETIMEDOUT, std::string("the module's thread of ") + path + " does not serve");
        }
    }
    return started.plane_started;
}

// ---- Stop ----

bool end_thread(const char *path)
{
    event_manager_t *evm = host::event_manager_find(path);
    return evm == nullptr || (host::event_manager_stop(evm), host::event_manager_join(evm, thread_wait_seconds) == 0);
}

void count_released(release_report &report)
{
    const table_hold hold;
    const l2fm_edm_mac_pool_t &pool = *l2fm_edm_table_mac_get_pool();
    report.mac_entries = pool.mac_cnt_total;
    report.bridge_domains = pool.bd_cnt;
    report.bridge_ports = pool.bp_cnt;
    report.vteps = pool.vtep_cnt;
}

void release_table()
{
    const table_hold hold;
    for (const l2fm_edm_bd_t *bd = l2fm_edm_table_bd_get_first_by_bridgeid(); bd != nullptr;
         bd = l2fm_edm_table_bd_get_first_by_bridgeid()) {
        l2fm_edm_table_bd_destroy(bd->bridge_id);
    }
    l2fm_edm_table_deinit();
}

bool table_is_empty()
{
    const table_hold hold;
    const l2fm_edm_mac_pool_t &pool = *l2fm_edm_table_mac_get_pool();
    return pool.mac_cnt_total == 0 && pool.bd_cnt == 0 && pool.bp_cnt == 0 && pool.vtep_cnt == 0
           && host::operational_get_statistics().live_lists == 0;
}

std::string text_of(const release_report &report)
{
    const auto amount = [](uint32_t count, const char *what) { return std::to_string(count) + " " + what; };
    return (report.orderly ? "ended; released " : "did not end in order; released ")
           + amount(report.mac_entries, "MAC entries, ") + amount(report.bridge_domains, "bridge domains, ")
           + amount(report.bridge_ports, "ports, ") + amount(report.vteps, "VTEPs");
}

// Ends the cache thread first, because its end wakes the requesters that wait for it.
release_report end_module(running_module &ending)
{
    release_report report;
    const bool cache_ended = end_thread(EDM_CACHE_THREAD_PATH);
    const bool edm_ended = end_thread(EDM_REQUEST_THREAD_PATH);
    ending.source->stop();
    host::event_manager_stop(ending.process_evm);
    host::mac_query_set(nullptr, nullptr);
    if (cache_ended && edm_ended) {
        count_released(report);
        release_table();
        report.orderly = table_is_empty();
    }
    host::objects_clear();
    report.text = text_of(report);
    return report;
}

} // namespace

std::string default_group()
{
    char name[256] = {};
    if (gethostname(name, sizeof(name) - 1) != 0 || name[0] == 0) {
        return "host";
    }
    std::string group(name, std::min(std::strlen(name), max_group_name));
    std::replace_if(
        group.begin(), group.end(), [](char each) { return !name_can_carry(each); }, '_');
    return group;
}

base::result check_group(std::string_view group)
{
    const std::string quoted = "the group name \"" + std::string(group) + "\" ";
    if (group.empty() || group.size() > max_group_name) {
        return base::failure(EINVAL, quoted + "has " + std::to_string(group.size()) + " characters, expected 1 to "
                                         + std::to_string(max_group_name));
    }
    return std::all_of(group.begin(), group.end(), name_can_carry)
               ? base::success()
               : base::failure(
                   EINVAL, quoted + "holds a comma, colon, white space or control character, expected none of them");
}

base::result start(const options &options)
{
    if (base::result checked = check_options(options); !checked.ok()) {
        return checked;
    }
    std::unique_ptr<plane> source;
    base::result made = make_plane(options, source);
    return made.ok() ? start_on(std::move(source), options) : made;
}

base::result start_on(std::unique_ptr<plane> source, const options &options)
{
    if (called_back != nullptr) {
        return base::failure(EBUSY, "the module runs already");
    }
    std::unique_ptr<running_module> made = make_module(std::move(source), options);
    called_back = made.get();
    {
        const base::exclusive_lock hold(running_mutex);
        running = std::move(made);
    }
    base::result started = start_module(*called_back, options.mac_limit);
    if (started.ok()) {
        started = wait_until_served(*called_back);
    }
    if (!started.ok()) {
        stop();
    }
    return started;
}

release_report stop()
{
    if (called_back == nullptr) {
        return {};
    }
    release_report report = end_module(*called_back);
    const base::exclusive_lock hold(running_mutex);
    called_back = nullptr;
    if (report.orderly) {
        running.reset();
    } else {
        // Leaked on purpose, because a thread that did not end may still use it.
        static_cast<void>(running.release());
    }
    return report;
}

// ---- Reaching the feeder ----

bool with_feeder(const std::function<void(feeder &feed)> &work)
{
    const base::shared_lock hold(running_mutex);
    if (running == nullptr) {
        return false;
    }
    work(*running->feed);
    return true;
}

namespace {

struct question {
    const std::function<void(feeder &feed)> &work;
    feeder &feed;
    std::promise<bool> is_done;
};

void answer_question(void *cookie)
{
    auto *asked = static_cast<question *>(cookie);
    try {
        asked->work(asked->feed);
        asked->is_done.set_value(true);
    } catch (...) {
        asked->is_done.set_exception(std::current_exception());
    }
}

void drop_question(void *cookie)
{
    static_cast<question *>(cookie)->is_done.set_value(false);
}

} // namespace

bool on_cache_thread(const std::function<void(feeder &feed)> &work)
{
    bool is_done = false;
    with_feeder([&](feeder &feed) {
        question asked{work, feed, {}};
        auto done = asked.is_done.get_future();
        event_manager_t *evm = host::event_manager_find(EDM_CACHE_THREAD_PATH);
        is_done = host::event_post(evm, answer_question, drop_question, &asked) == 0 && done.get();
    });
    return is_done;
}

// ---- Completeness ----

namespace {

struct worth {
    completeness state = completeness::degraded; // holds while nothing runs, because nothing proves the table then
    uint64_t degradations = 0;
    uint64_t limitations = 0;
    uint64_t old_ages = 0;
};

worth worth_now()
{
    worth now;
    with_feeder([&](feeder &feed) { now = {feed.state(), feed.degradations(), feed.limitations(), feed.old_ages()}; });
    return now;
}

} // namespace

const char *text_of(completeness state)
{
    constexpr const char *texts[] = {"whole", "limited", "degraded"};
    return texts[static_cast<size_t>(state)];
}

completeness_watch::completeness_watch()
{
    const worth now = worth_now();
    at_first_ = now.state;
    degradations_ = now.degradations;
    limitations_ = now.limitations;
    old_ages_ = now.old_ages;
}

completeness completeness_watch::worst() const
{
    const worth now = worth_now();
    if (now.degradations != degradations_ || now.old_ages != old_ages_) {
        return completeness::degraded;
    }
    const completeness meanwhile = now.limitations != limitations_ ? completeness::limited : completeness::whole;
    return std::max({at_first_, now.state, meanwhile});
}

std::string completeness_watch::reason() const
{
    std::string now = "the forwarding plane has ended";
    with_feeder([&](feeder &feed) { now = feed.reason(); });
    if (!now.empty() || worst() != completeness::degraded) {
        return now.empty() && worst() == completeness::limited ? "the table lacked entries while the answer was made"
                                                               : now;
    }
    if (at_first_ != completeness::degraded && worth_now().degradations == degradations_) {
        return "the forwarding plane did not confirm all ages: some addresses may have been seen later than shown; ask "
               "again";
    }
    return "changes of the forwarding plane were lost while the answer was made; a full dump has proven the table "
           "since";
}

uint16_t wait_seconds()
{
    const base::shared_lock hold(running_mutex);
    return running != nullptr ? running->wait_seconds : uint16_t{0};
}

void hasten_proof()
{
    on_cache_thread([](feeder &feed) { feed.hasten_proof(); });
}

// ---- Views ----

std::shared_ptr<const object_views> objects()
{
    std::shared_ptr<const object_views> found;
    with_feeder([&](feeder &feed) { found = feed.objects(); });
    return found;
}

health_view health()
{
    health_view view;
    with_feeder([&](feeder &feed) { view = feed.health(); });
    return view;
}

domain_counts count_domains()
{
    domain_counts found;
    with_feeder([&](feeder &feed) { found = feed.count_domains(); });
    return found;
}

std::vector<domain_view> domains()
{
    const auto found = objects();
    return found != nullptr ? std::vector<domain_view>(found->domains.begin(), found->domains.end())
                            : std::vector<domain_view>();
}

std::vector<port_view> ports()
{
    const auto found = objects();
    std::vector<port_view> by_xcid;
    if (found != nullptr) {
        by_xcid.assign(found->ports.begin(), found->ports.end());
    }
    std::ranges::sort(by_xcid, {}, &port_view::xcid);
    return by_xcid;
}

std::vector<tunnel_entry> tunnel_entries(uint32_t &cursor, size_t limit)
{
    std::vector<tunnel_entry> found;
    on_cache_thread([&](feeder &feed) { found = feed.tunnel_entries(cursor, limit); });
    return found;
}

} // namespace forwarding
