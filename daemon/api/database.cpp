// SPDX-License-Identifier: Apache-2.0

#include "daemon/api/database.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <mutex>
#include <set>

#include "daemon/api/api_error.h"
#include "host/database/operational_db_host.h"
#include "l2fib_mac_edm.h"

namespace l2fibd {

namespace {

struct live_requests {
    std::mutex lock;
    std::set<host::operational_session *> sessions;
    bool given_up = false;
};

live_requests live;

// A session's place among the live requests.
struct live_place {
    host::operational_session *session;

    explicit live_place(host::operational_session *of)
        : session(of)
    {
        const std::lock_guard guard(live.lock);
        live.sessions.insert(session);
        if (live.given_up) {
            operational_cancel(*session);
        }
    }
    ~live_place()
    {
        const std::lock_guard guard(live.lock);
        live.sessions.erase(session);
    }
    live_place(const live_place &) = delete;
    live_place &operator=(const live_place &) = delete;
};

struct status_meaning {
    uint32_t status;
    unsigned http_status;
};

constexpr status_meaning meanings[] = {{ETIMEDOUT, 504},      {EDM_ERR_INVALID_ARGS, 503},
                                       {EDM_ERR_RESYNC, 503}, {ESHUTDOWN, 503},
                                       {ECANCELED, 503},      {ENOMEM, 503},
                                       {ENOSYS, 503},         {EDM_ERR_NOT_FOUND, 404},
                                       {ENOENT, 404},         {EINVAL, 400},
                                       {EDM_ERR_NO_ITEM, 404}};

unsigned http_status_of(uint32_t status)
{
    const auto *known = std::ranges::find(meanings, status, &status_meaning::status);
    if (known != std::end(meanings)) {
        return known->http_status;
    }
    return (status & EDM_RESYNC_SEND_ERROR) == EDM_RESYNC_SEND_ERROR ? 503 : 500;
}

host::operational_page ask(const host::operational_request &request)
{
    const host::operational_session_ptr session = host::operational_open(request);
    const live_place place(session.get());
    return host::operational_wait(*session);
}

// An answer that says that nothing is there comes after the resync, too.
void resync_by(const host::operational_request &request)
{
    const host::operational_page page = ask(request);
    if (page.status != 0 && page.status != EDM_ERR_NO_ITEM) {
        throw api_error{http_status_of(page.status), "operation-failed", page.text};
    }
}

// The module brings the scope of a list up to date before it answers, so one name of the list is enough.
void resync_by_list(const host::operational_keys &keys)
{
    resync_by(
        {.object = host::operational_object::mac_table, .kind = host::request_kind::list, .keys = keys, .count = 1});
}

} // namespace

void give_up_requests()
{
    const std::lock_guard guard(live.lock);
    live.given_up = true;
    for (host::operational_session *session : live.sessions) {
        operational_cancel(*session);
    }
}

bool requests_given_up()
{
    const std::lock_guard guard(live.lock);
    return live.given_up;
}

void resync_all()
{
    resync_by({.object = host::operational_object::mac_count, .kind = host::request_kind::get});
}

void resync_domain(std::string_view domain)
{
    resync_by_list({.domain = std::string(domain)});
}

void resync_port(uint32_t xcid, std::string_view domain)
{
    resync_by_list({.domain = std::string(domain), .port = xcid});
}

} // namespace l2fibd
