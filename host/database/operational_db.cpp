// SPDX-License-Identifier: Apache-2.0

// Carries requests of the operational database from the requester to the handler and the answers back.
//
//   operational_open            thread of the data manager
//   ----------------            --------------------------
//   find the route
//   waiting ----- posted -----> call the handler with the list or the response
//      |                          |
//      |  time-out, cancel        v
//      '--> given up   <------  answered: the requester gets the page, or the database drops it
//
// If no data manager has registered, the request waits in its registration until one registers or the requester gives
// up.
//
// Locking. The database's lock guards the registrations, the requests in service and the state of every request. No
// thread calls a handler or posts an event while it holds the lock.

#include "platform/operational_db.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <utility>
#include <vector>

#include "base/mutex.h"
#include "host/database/operational_db_host.h"
#include "host/database/operational_routes.h"
#include "host/database/reply_list.h"
#include "host/event/event_manager.h"
#include "host/handle_table.h"
#include "host/never_destroyed.h"
#include "host/objects/l2fib_host.h"
#include "host/out_of_memory.h"
#include "host/status_text.h"

namespace {

using host::operational_page;
using host::operational_request;
using host::request_kind;

using steady_clock = std::chrono::steady_clock;

// ---- Records ----

struct query;

// The requester and the thread of the data manager share a query.
using query_ptr = std::shared_ptr<query>;

// A data manager. A null event manager means that none has registered.
struct registration {
    event_manager_t *evm = nullptr;
    std::string prefix;
    std::vector<query_ptr> waiting; // queries that no registered data manager serves yet
};

struct database {
    base::mutex lock;
    registration data_manager L2FIB_GUARDED_BY(lock);
    registration action_manager L2FIB_GUARDED_BY(lock);
    host::handle_table<query_ptr> in_service L2FIB_GUARDED_BY(lock); // queries that a handler is answering
};

database &the_database()
{
    static host::never_destroyed<database> the_only_one;
    return the_only_one.object;
}

steady_clock::time_point seconds_from_now(uint32_t seconds)
{
    return steady_clock::now() + std::chrono::seconds(seconds);
}

// given_up: the requester wants no answer any more, because it timed out, cancelled, or has taken its page.
enum class progress : uint8_t { waiting, answered, given_up };

// One request and its page. The lock guards what is written after the query became shared.
struct query {
    const operational_request request;
    const host::operational_route *route = nullptr; // null: the request is wrong, and the query is never posted

    progress state L2FIB_GUARDED_BY(the_database().lock) = progress::waiting;
    bool is_posted L2FIB_GUARDED_BY(the_database().lock) = false; // to the data manager's thread
    steady_clock::time_point deadline L2FIB_GUARDED_BY(the_database().lock);
    operational_page page L2FIB_GUARDED_BY(the_database().lock) = {};
    std::condition_variable_any changed;

    explicit query(const operational_request &wanted);
    ~query();
    query(const query &) = delete;
    query &operator=(const query &) = delete;
};

query::query(const operational_request &wanted)
    : request(wanted)
    , deadline(seconds_from_now(wanted.timeout_seconds))
{
    host::counters.live_requests++;
}

query::~query()
{
    host::counters.live_requests--;
}

// ---- Failures ----

constexpr size_t max_shown_request = 256; // characters: a wrong request may hold a text of any length

// Makes a page that says what failed. Without memory for the text, the status alone says it.
operational_page failure(uint32_t status, const query &asked, std::string_view text) noexcept
{
    operational_page page;
    page.status = status;
    try {
        page.text = host::operational_request_text(asked.request);
        page.text.resize(std::min(page.text.size(), max_shown_request));
        page.text.append(": ").append(text);
    } catch (const std::bad_alloc &) {
        page.text.clear();
    }
    return page;
}

operational_page handler_failure(const query &asked, uint32_t status) noexcept
{
    try {
        return failure(status, asked, host::operational_status_text(status));
    } catch (const std::bad_alloc &) {
        return failure(status, asked, {});
    }
}

operational_page broken_contract(const query &asked)
{
    return failure(EPROTO, asked, "the handler did not hand back what the request asks for");
}

operational_page cancelled(const query &asked)
{
    return failure(ECANCELED, asked, "cancelled");
}

// ---- Serving, on the data manager's thread ----

bool is_list(request_kind kind)
{
    return kind == request_kind::list || kind == request_kind::datalist;
}

operational_page page_of(std::shared_ptr<optree_list> list)
{
    operational_page page;
    page.items = list->items;
    page.more = list->more;
    page.content = std::move(list);
    return page;
}

operational_page serve_list(const query &asked, optree_request_t *handle)
{
    const auto list = std::make_shared<optree_list>(asked.request.kind == request_kind::datalist);
    edm_list_req_t context{};
    context.start_key = asked.request.start_key ? asked.request.start_key->c_str() : nullptr;
    context.flags = asked.request.start_key ? EDM_LIST_KEY_GIVEN : 0;
    context.count = asked.request.count;
    context.request = handle;
    host::reply_list_offer(*list);
    const uint32_t status =
        host::operational_route_list(*asked.route, asked.request.keys, host::edm_handlers(), context, list.get());
    const bool is_kept = host::reply_list_withdraw();
    const bool can_continue = !list->more || !list->items.empty();
    if (status == 0 && is_kept && context.reply_list == list.get() && can_continue) {
        host::counters.lists_answered++;
        return page_of(list);
    }
    if (is_kept) {
        host::counters.lists_abandoned++;
    }
    return status == 0 ? broken_contract(asked) : handler_failure(asked, status);
}

// The answer to a get: the encoded record, which the handler allocated.
struct got_record {
    struct release {
        void operator()(void *bytes) const { free(bytes); }
    };
    std::unique_ptr<void, release> data;
    host::operational_item item;
};

operational_page serve_get(const query &asked, optree_request_t *handle)
{
    const auto record = std::make_shared<got_record>();
    edm_get_rsp_t context{};
    context.request = handle;
    const uint32_t status =
        host::operational_route_get(*asked.route, asked.request.keys, host::edm_handlers(), context);
    if (status != 0) {
        return handler_failure(asked, status);
    }
    record->data.reset(context.data);
    if (context.data == nullptr || context.data_type != EDM_DATA_TYPE_PARCEL) {
        return broken_contract(asked);
    }
    const auto *bytes = static_cast<const uint8_t *>(record->data.get());
    record->item = {{}, {bytes, context.length}};
    operational_page page;
    page.items = {&record->item, 1};
    page.content = record;
    return page;
}

operational_page serve_action(const query &asked, optree_request_t *handle)
{
    const uint32_t status = host::operational_route_act(*asked.route, host::edm_actions(), handle);
    return status == 0 ? operational_page() : handler_failure(asked, status);
}

operational_page answer_of(const query &asked, optree_request_t *handle)
{
    switch (asked.request.kind) {
    case request_kind::get: return serve_get(asked, handle);
    case request_kind::action: return serve_action(asked, handle);
    default: return serve_list(asked, handle);
    }
}

// A query's place among the queries in service. The handle is 0 if the requester gave up before.
struct service {
    uint32_t handle = 0;

    explicit service(const query_ptr &asked)
    {
        const base::scoped_lock hold(the_database().lock);
        if (asked->state == progress::waiting) {
            handle = the_database().in_service.insert(asked);
        }
    }
    ~service()
    {
        const base::scoped_lock hold(the_database().lock);
        the_database().in_service.erase(handle);
    }
    service(const service &) = delete;
    service &operator=(const service &) = delete;
};

// Answers a query. Returns nothing if the requester gave up before.
std::optional<operational_page> serve(const query_ptr &asked) noexcept
{
    try {
        const service place(asked);
        if (place.handle == 0) {
            return std::nullopt;
        }
        return answer_of(*asked, host::pointer_of<optree_request_t>(place.handle));
    } catch (const std::bad_alloc &) {
        return handler_failure(*asked, ENOMEM);
    }
}

// Gives the requester its page. If the requester gave up, the page is destroyed after the lock is released.
void complete(query &asked, operational_page page) L2FIB_EXCLUDES(the_database().lock)
{
    const base::scoped_lock hold(the_database().lock);
    if (asked.state != progress::waiting) {
        host::counters.answers_dropped++;
        return;
    }
    std::swap(asked.page, page);
    asked.state = progress::answered;
    asked.changed.notify_all();
}

void manager_has_ended(query &asked)
{
    complete(asked, failure(ESHUTDOWN, asked, "the data manager's thread has ended"));
}

// The event manager calls one of these two for a post. The cookie is a query_ptr that belongs to the post.
void run_post(void *cookie)
{
    const std::unique_ptr<query_ptr> asked(static_cast<query_ptr *>(cookie));
    std::optional<operational_page> page = serve(*asked);
    if (page) {
        complete(**asked, *std::move(page));
    }
}

void drop_post(void *cookie)
{
    const std::unique_ptr<query_ptr> asked(static_cast<query_ptr *>(cookie));
    manager_has_ended(**asked);
}

// ---- On the way to the data manager ----

// Posts a query to the data manager. If that fails, the query is answered with the reason.
void post(event_manager_t *evm, const query_ptr &asked)
{
    const uint32_t status = host::or_out_of_memory([&] {
        auto cookie = std::make_unique<query_ptr>(asked);
        const uint32_t posted = host::event_post(evm, run_post, drop_post, cookie.get());
        if (posted == 0) {
            static_cast<void>(cookie.release()); // NOLINT(bugprone-unused-return-value)
        }
        return posted;
    });
    if (status == ESHUTDOWN) {
        manager_has_ended(*asked);
    } else if (status != 0) {
        complete(*asked, handler_failure(*asked, status));
    }
}

registration &registration_for(request_kind kind) L2FIB_REQUIRES(the_database().lock)
{
    return kind == request_kind::action ? the_database().action_manager : the_database().data_manager;
}

bool serves(const registration &manager, const query &asked)
{
    return manager.evm != nullptr && host::operational_object_name(asked.request.object).starts_with(manager.prefix);
}

// Returns the data manager to post a query to. Returns null if there is none yet: the query then waits for one.
event_manager_t *find_manager(const query_ptr &asked) L2FIB_REQUIRES(the_database().lock)
{
    registration &manager = registration_for(asked->request.kind);
    asked->is_posted = serves(manager, *asked);
    if (!asked->is_posted) {
        manager.waiting.push_back(asked);
        return nullptr;
    }
    return manager.evm;
}

// Moves the waiting queries that a data manager serves to `served`, which has room for them, and marks them as posted.
void take_served(registration &manager, std::vector<query_ptr> &served) L2FIB_REQUIRES(the_database().lock)
{
    for (const query_ptr &asked : manager.waiting) {
        if (serves(manager, *asked)) {
            asked->is_posted = true;
            served.push_back(asked);
        }
    }
    std::erase_if(manager.waiting, [&manager](const query_ptr &asked) { return serves(manager, *asked); });
}

// Registers a data manager in place of any earlier one, and posts the queries that waited for it.
void register_manager(request_kind kind, event_manager_t *evm, std::string prefix)
{
    std::vector<query_ptr> served;
    {
        const base::scoped_lock hold(the_database().lock);
        registration &manager = registration_for(kind);
        served.reserve(manager.waiting.size());
        manager.evm = evm;
        manager.prefix = std::move(prefix);
        take_served(manager, served);
    }
    for (const query_ptr &asked : served) {
        post(evm, asked);
    }
}

// ---- The requester's end of a query ----

void give_up(query &asked) L2FIB_REQUIRES(the_database().lock)
{
    asked.state = progress::given_up;
    if (!asked.is_posted) {
        std::erase_if(registration_for(asked.request.kind).waiting,
                      [&asked](const query_ptr &other) { return other.get() == &asked; });
    }
    asked.changed.notify_all();
}

// Waits until the query is no longer waiting, or until its deadline, which a handler may move meanwhile.
void wait_for_change(query &asked) L2FIB_REQUIRES(the_database().lock)
{
    while (asked.state == progress::waiting && steady_clock::now() < asked.deadline) {
        const steady_clock::time_point deadline = asked.deadline;
        asked.changed.wait_until(the_database().lock, deadline);
    }
}

operational_page take_page(query &asked) L2FIB_REQUIRES(the_database().lock)
{
    switch (std::exchange(asked.state, progress::given_up)) {
    case progress::answered: return std::exchange(asked.page, {});
    case progress::given_up: return cancelled(asked);
    case progress::waiting: break;
    }
    give_up(asked);
    return failure(ETIMEDOUT, asked, asked.is_posted ? "no answer in time" : "no data manager registered in time");
}

// Returns what is wrong with a request, or an empty text.
std::string check(query &asked)
{
    const operational_request &request = asked.request;
    if (request.start_key && !is_list(request.kind)) {
        return "only a list or datalist has a start key";
    }
    if (request.start_key && request.start_key->find('\0') != std::string::npos) {
        return "the start key holds a zero byte";
    }
    std::string error;
    asked.route = host::operational_route_find(request, error);
    return error;
}

void start(const query_ptr &asked)
{
    event_manager_t *evm = nullptr;
    {
        const base::scoped_lock hold(the_database().lock);
        evm = find_manager(asked);
    }
    if (evm != nullptr) {
        post(evm, asked);
    }
}

} // namespace

struct host::operational_session {
    query_ptr asked;
};

host::operational_session_ptr host::operational_open(const operational_request &request)
{
    operational_session_ptr session(new operational_session{std::make_shared<query>(request)});
    const query_ptr &asked = session->asked;
    const std::string error = check(*asked);
    if (error.empty()) {
        start(asked);
    } else {
        complete(*asked, failure(EINVAL, *asked, error));
    }
    return session;
}

host::operational_page host::operational_wait(operational_session &session)
{
    query &asked = *session.asked;
    const base::scoped_lock hold(the_database().lock);
    if (asked.state == progress::waiting && is_own_manager(registration_for(asked.request.kind).evm)) {
        give_up(asked);
        return failure(EDEADLK, asked, "the data manager's thread cannot wait for itself");
    }
    wait_for_change(asked);
    return take_page(asked);
}

void host::operational_cancel(operational_session &session)
{
    const base::scoped_lock hold(the_database().lock);
    if (session.asked->state == progress::waiting) {
        give_up(*session.asked);
    }
}

void host::operational_session_closer::operator()(operational_session *session) const
{
    operational_cancel(*session);
    delete session;
}

std::string host::operational_status_text(uint32_t status)
{
    if (is_send_error(status)) {
        return "the table was not brought up to date: " + operational_status_text(send_error_number(status));
    }
    const char *text = status_meaning(status);
    char number[sizeof(" (0x01234567)")];
    snprintf(number, sizeof(number), " (0x%08x)", status);
    return std::string(text == nullptr ? "failed" : text).append(number);
}

host::operational_statistics host::operational_get_statistics()
{
    return {
        .lists_created = counters.lists_created,
        .lists_answered = counters.lists_answered,
        .lists_freed = counters.lists_freed,
        .lists_abandoned = counters.lists_abandoned,
        .list_refusals = counters.list_refusals,
        .answers_dropped = counters.answers_dropped,
        .live_lists = counters.live_lists,
        .live_requests = counters.live_requests,
    };
}

// ---- The data manager's side ----

uint32_t l2fib_show_mac_edm_optree_init(event_manager_t *evm, const char *prefix)
{
    if (evm == nullptr || prefix == nullptr || *prefix == '\0') {
        return EINVAL;
    }
    return host::or_out_of_memory([&]() -> uint32_t {
        register_manager(request_kind::list, evm, prefix);
        return 0;
    });
}

uint32_t l2fib_action_mac_edm_init(event_manager_t *evm)
{
    if (evm == nullptr) {
        return EINVAL;
    }
    return host::or_out_of_memory([&]() -> uint32_t {
        register_manager(request_kind::action, evm, {});
        return 0;
    });
}

uint32_t optree_restart_timeout_edm(optree_request_t *request, uint32_t seconds)
{
    const uint32_t handle = host::handle_of(request);
    if (handle == 0) {
        return EINVAL;
    }
    const base::scoped_lock hold(the_database().lock);
    const query_ptr *const found = the_database().in_service.find(handle);
    if (found == nullptr || (*found)->state != progress::waiting) {
        return ESRCH;
    }
    query &asked = **found;
    asked.deadline = seconds_from_now(seconds != 0 ? seconds : asked.request.timeout_seconds);
    asked.changed.notify_all();
    return 0;
}
