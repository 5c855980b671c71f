#include "daemon/database.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <mutex>
#include <set>

#include "daemon/text.h"
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

// A list's first page is asked for after its scope was brought up to date: one name of it is enough.
void resync_by_list(const std::string &path)
{
    const host::operational_page page = ask({.path = path, .kind = host::request_kind::list, .count = 1});
    if (page.status != 0 && !says_nothing_there(page)) {
        throw error_of(page);
    }
}

} // namespace

host::operational_page ask(const host::operational_request &request)
{
    const host::operational_session_ptr session = host::operational_open(request);
    const live_place place(session.get());
    host::operational_page page;
    host::operational_next(*session, page);
    return page;
}

void give_up_requests()
{
    const std::lock_guard guard(live.lock);
    live.given_up = true;
    for (host::operational_session *session : live.sessions) {
        operational_cancel(*session);
    }
}

bool says_nothing_there(const host::operational_page &page)
{
    return page.status == EDM_ERR_NO_ITEM;
}

api_error error_of(const host::operational_page &page)
{
    return {http_status_of(page.status), "operation-failed", page.text};
}

host::operational_page get_record(const std::string &path, const api_error &missing)
{
    host::operational_page page = ask({.path = path, .kind = host::request_kind::get});
    if (page.status == 0 && !page.items.empty()) {
        return page;
    }
    throw http_status_of(page.status) == missing.status ? missing : error_of(page);
}

void resync_all()
{
    get_record("mac-count", not_found("mac-count"));
}

void resync_domain(std::string_view domain)
{
    resync_by_list(domain_path(domain));
}

void resync_port(uint32_t xcid, std::string_view domain)
{
    resync_by_list(port_path(xcid, domain));
}

std::string domain_path(std::string_view domain)
{
    return "mac-table/domain/" + percent_encode(domain);
}

std::string port_path(uint32_t xcid, std::string_view domain)
{
    return "mac-table/port/" + std::to_string(xcid) + "/domain/" + percent_encode(domain);
}

} // namespace l2fibd
