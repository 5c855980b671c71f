// SPDX-License-Identifier: Apache-2.0

// Requests of the operational database, from the requester to the handler and back.
//
//   operational_next            thread of the data manager
//   ----------------            --------------------------
//   parse the path
//   waiting ----- posted -----> call the handler with the list or the response
//      |                          |
//      |  time-out, cancel        v
//      '--> given up   <------  answered: the page goes to the requester, or is dropped
//
// A request that finds no data manager lies in its registration until one registers or the requester gives up.

#include "platform/operational_db.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <utility>

#include "host/database/operational_db_host.h"
#include "host/database/operational_paths.h"
#include "host/database/reply_list.h"
#include "host/database/round_watch.h"
#include "host/event/event_manager.h"
#include "host/handle_table.h"
#include "host/never_destroyed.h"
#include "host/objects/l2fib_host.h"
#include "host/out_of_memory.h"
#include "host/status_text.h"

namespace {

using host::operational_page;
using host::operational_path;
using host::operational_request;
using host::operational_session;
using host::request_kind;

using steady_clock = std::chrono::steady_clock;

// ---- Records ----

enum class progress : uint8_t { waiting, answered, given_up };

// One request for one page. The first group is written before it is shared; the database's lock guards the second.
struct query {
    operational_request request;
    operational_path path;

    progress state = progress::waiting;
    bool is_posted = false; // to the data manager's thread
    steady_clock::time_point deadline;
    operational_page page = {};
    std::condition_variable changed;

    query(operational_request wanted, const operational_path &parsed);
    ~query();
    query(const query &) = delete;
    query &operator=(const query &) = delete;
};

using query_ptr = std::shared_ptr<query>;

// A data manager. Its null event manager means that none has registered.
struct registration {
    event_manager_t *evm = nullptr;
    std::string prefix;
    std::vector<query_ptr> waiting; // for a data manager to register
};

struct database {
    std::mutex lock; // guards what follows and the queries; nobody is called with it held
    registration data_manager;
    registration action_manager;
    host::handle_table<query_ptr> in_service; // the queries that a handler has in hand
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

query::query(operational_request wanted, const operational_path &parsed)
    : request(std::move(wanted))
    , path(parsed)
    , deadline(seconds_from_now(request.timeout_seconds))
{
    host::counters.live_requests++;
}

query::~query()
{
    host::counters.live_requests--;
}

// ---- Failures ----

constexpr size_t max_shown_path = 256;

// A page that says what is wrong; without memory it says it by its status alone.
operational_page failure(uint32_t status, std::string_view path, std::string_view text) noexcept
{
    operational_page page;
    page.status = status;
    try {
        page.text.append(path.substr(0, max_shown_path)).append(path.size() > max_shown_path ? "..." : "");
        page.text.append(path.empty() ? "" : ": ").append(text);
    } catch (const std::bad_alloc &) {
        page.text.clear();
    }
    return page;
}

operational_page handler_failure(const query &asked, uint32_t status) noexcept
{
    try {
        return failure(status, asked.request.path, host::operational_status_text(status));
    } catch (const std::bad_alloc &) {
        return failure(status, {}, {});
    }
}

operational_page broken_contract(const query &asked)
{
    return failure(EPROTO, asked.request.path, "the handler has not handed back what it was asked for");
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
    const uint32_t status = host::operational_path_list(asked.path, host::edm_handlers(), context, list.get());
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

// What a get has answered: the encoded record, which the handler has allocated.
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
    const uint32_t status = host::operational_path_get(asked.path, host::edm_handlers(), context);
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
    const uint32_t status = host::operational_path_act(asked.path, host::edm_actions(), handle);
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

// A query's place among those in service, unless its requester has given it up.
struct service {
    uint32_t handle = 0;

    explicit service(const query_ptr &asked)
    {
        const std::lock_guard guard(the_database().lock);
        if (asked->state == progress::waiting) {
            handle = the_database().in_service.insert(asked);
        }
    }
    ~service()
    {
        const std::lock_guard guard(the_database().lock);
        the_database().in_service.erase(handle);
    }
    service(const service &) = delete;
    service &operator=(const service &) = delete;
};

// Nothing when the requester has given up before.
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

// Gives the requester its page. It has given up: the page is dropped here, without the lock.
void complete(query &asked, operational_page page)
{
    const std::lock_guard guard(the_database().lock);
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
    complete(asked, failure(ESHUTDOWN, asked.request.path, "the data manager's thread has ended"));
}

// The two ends of a post: its cookie is a query_ptr of its own.
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

// A query that cannot be posted is answered with the reason.
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

registration &registration_for(database &db, request_kind kind)
{
    return kind == request_kind::action ? db.action_manager : db.data_manager;
}

bool serves(const registration &manager, const query &asked)
{
    return manager.evm != nullptr && asked.request.path.starts_with(manager.prefix);
}

// Whom to post a query to; null when it is left in the registration until there is somebody. The lock is held.
event_manager_t *find_manager(database &db, const query_ptr &asked)
{
    registration &manager = registration_for(db, asked->request.kind);
    asked->is_posted = serves(manager, *asked);
    if (!asked->is_posted) {
        manager.waiting.push_back(asked);
        return nullptr;
    }
    return manager.evm;
}

// Lets a data manager take over from any before, and posts what has been waiting for it.
void register_manager(registration &manager, event_manager_t *evm, std::string prefix)
{
    std::vector<query_ptr> found;
    {
        const std::lock_guard guard(the_database().lock);
        found.reserve(manager.waiting.size());
        manager.evm = evm;
        manager.prefix = std::move(prefix);
        std::erase_if(manager.waiting, [&](const query_ptr &asked) {
            asked->is_posted = serves(manager, *asked);
            if (asked->is_posted) {
                found.push_back(asked);
            }
            return asked->is_posted;
        });
    }
    for (const query_ptr &asked : found) {
        post(evm, asked);
    }
}

// ---- The requester's end of a query; the lock is held ----

void give_up(database &db, query &asked)
{
    asked.state = progress::given_up;
    if (!asked.is_posted) {
        std::erase_if(registration_for(db, asked.request.kind).waiting,
                      [&asked](const query_ptr &other) { return other.get() == &asked; });
    }
    asked.changed.notify_all();
}

operational_page timed_out(const query &asked)
{
    return failure(ETIMEDOUT, asked.request.path,
                   asked.is_posted ? "not answered in time" : "no data manager has registered in time");
}

operational_page cancelled(const std::string &path)
{
    return failure(ECANCELED, path, "cancelled");
}

// Waits until the query has been answered or given up, by its deadline at the latest, which may move meanwhile.
operational_page wait(query &asked)
{
    database &db = the_database();
    std::unique_lock guard(db.lock);
    while (asked.state == progress::waiting) {
        const steady_clock::time_point deadline = asked.deadline;
        if (asked.changed.wait_until(guard, deadline) == std::cv_status::timeout && asked.state == progress::waiting
            && steady_clock::now() >= asked.deadline) {
            give_up(db, asked);
            return timed_out(asked);
        }
    }
    return asked.state == progress::answered ? std::move(asked.page) : cancelled(asked.request.path);
}

} // namespace

// ---- Sessions ----

// The requester's thread alone uses the first group; the database's lock guards the second.
struct host::operational_session {
    operational_request rest; // what is still to be asked for
    operational_path path = {};
    operational_page refusal = {}; // of a request that cannot be made, or of going on with one that goes round
    host::round_watch rounds = {};
    bool is_finished = false;

    query_ptr current = nullptr;
    bool is_cancelled = false;
};

namespace {

// Fills the session's path. Returns what is wrong with the request, or an empty text.
std::string check(operational_session &session)
{
    const operational_request &request = session.rest;
    std::string error;
    if (request.kind > request_kind::action) {
        error = "there is no such kind of request";
    } else if (request.start_key && !is_list(request.kind)) {
        error = "only a list or datalist has a start key";
    } else if (request.start_key && request.start_key->find('\0') != std::string::npos) {
        error = "a start key holds no zero byte";
    } else {
        host::operational_path_parse(request.path, request.kind, session.path, error);
    }
    return error;
}

// Asks for the session's next page, unless the session has been cancelled.
query_ptr ask(operational_session &session)
{
    database &db = the_database();
    auto asked = std::make_shared<query>(session.rest, session.path);
    event_manager_t *evm = nullptr;
    {
        const std::lock_guard guard(db.lock);
        if (session.is_cancelled) {
            asked->state = progress::given_up;
        } else {
            evm = find_manager(db, asked);
        }
        session.current = asked;
    }
    if (evm != nullptr) {
        post(evm, asked);
    }
    return asked;
}

// Whether the calling thread is the one that would have to answer a request of this kind.
bool is_own_request(request_kind kind)
{
    database &db = the_database();
    const std::lock_guard guard(db.lock);
    return host::is_own_manager(registration_for(db, kind).evm);
}

operational_page gone_round(const operational_request &rest)
{
    return failure(ELOOP, rest.path,
                   "the answer is not whole: the list comes back to \"" + *rest.start_key
                       + "\" again and again, because an address stands on several ports of a bridge domain; ask for "
                         "each port's own list, mac-table/port/P/domain/D");
}

// Turns the session to what follows `page`. If nothing does, it is over.
void move_on(operational_session &session, const operational_page &page)
{
    operational_request &rest = session.rest;
    const bool is_limited = rest.count != 0 && rest.count != host::all_items;
    const bool is_complete = is_limited && page.items.size() >= rest.count;
    session.is_finished = page.status != 0 || !page.more || is_complete;
    if (session.is_finished) {
        return;
    }
    if (is_limited) {
        rest.count -= static_cast<uint32_t>(page.items.size());
    }
    rest.start_key = page.items.back().name;
    if (session.rounds.goes_round(*rest.start_key, page.items.size())) {
        session.refusal = gone_round(rest);
    }
}

operational_page take_page(operational_session &session)
{
    if (session.refusal.status != 0) {
        return std::move(session.refusal);
    }
    if (is_own_request(session.rest.kind)) {
        return failure(EDEADLK, session.rest.path, "the data manager's thread cannot wait for itself");
    }
    const query_ptr asked = session.current == nullptr ? ask(session) : session.current;
    operational_page page = wait(*asked);
    const std::lock_guard guard(the_database().lock);
    session.current = nullptr;
    return session.is_cancelled ? cancelled(session.rest.path) : std::move(page);
}

} // namespace

host::operational_session_ptr host::operational_open(const operational_request &request)
{
    operational_session_ptr session(new operational_session{request});
    const std::string error = check(*session);
    if (!error.empty()) {
        session->refusal = failure(EINVAL, request.path, error);
    } else {
        ask(*session);
    }
    return session;
}

bool host::operational_next(operational_session &session, operational_page &page)
{
    if (session.is_finished) {
        return false;
    }
    page = take_page(session);
    move_on(session, page);
    return true;
}

void host::operational_cancel(operational_session &session)
{
    database &db = the_database();
    const std::lock_guard guard(db.lock);
    session.is_cancelled = true;
    if (session.current != nullptr && session.current->state == progress::waiting) {
        give_up(db, *session.current);
    }
}

void host::operational_session_closer::operator()(operational_session *session) const
{
    operational_cancel(*session);
    delete session;
}

host::operational_page host::operational_query(const operational_request &request)
{
    operational_page page;
    operational_next(*operational_open(request), page);
    return page;
}

host::operational_outcome host::operational_read(const operational_request &request, const operational_visitor &visit)
{
    const operational_session_ptr session = operational_open(request);
    operational_outcome outcome{};
    operational_page page;
    while (operational_next(*session, page)) {
        outcome.status = page.status;
        outcome.text = page.text;
        outcome.item_count += page.items.size();
        if (page.status != 0 || !visit(page)) {
            break;
        }
    }
    return outcome;
}

std::string host::operational_status_text(uint32_t status)
{
    if (is_send_error(status)) {
        return "the table was not brought up to date: " + operational_status_text(send_error_number(status));
    }
    const char *text = status_meaning(status);
    char number[32];
    snprintf(number, sizeof(number), " (0x%08x)", status);
    return text == nullptr ? std::string("failed").append(number) : std::string(text).append(number);
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
        register_manager(the_database().data_manager, evm, prefix);
        return 0;
    });
}

uint32_t l2fib_action_mac_edm_init(event_manager_t *evm)
{
    if (evm == nullptr) {
        return EINVAL;
    }
    return host::or_out_of_memory([&]() -> uint32_t {
        register_manager(the_database().action_manager, evm, {});
        return 0;
    });
}

uint32_t optree_restart_timeout_edm(optree_request_t *request, uint32_t seconds)
{
    const uint32_t handle = host::handle_of(request);
    if (handle == 0) {
        return EINVAL;
    }
    database &db = the_database();
    const std::lock_guard guard(db.lock);
    const query_ptr *const asked = db.in_service.find(handle);
    if (asked == nullptr || (*asked)->state != progress::waiting) {
        return ESRCH;
    }
    (*asked)->deadline = seconds_from_now(seconds != 0 ? seconds : (*asked)->request.timeout_seconds);
    (*asked)->changed.notify_all();
    return 0;
}
