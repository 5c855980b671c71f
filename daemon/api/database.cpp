// SPDX-License-Identifier: Apache-2.0

#include "daemon/api/database.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <iterator>
#include <string>

#include "daemon/api/json/api_error.h"
#include "l2fib_mac_edm.h"

namespace l2fibd {

namespace {

struct status_meaning {
    uint32_t status;
    http_status answered;
};

constexpr status_meaning meanings[] = {
    {EINVAL, http_status::bad_request},
    {ENOENT, http_status::not_found},
    {EDM_ERR_NOT_FOUND, http_status::not_found},
    {EDM_ERR_NO_ITEM, http_status::not_found},
    {ECANCELED, http_status::unavailable},
    {ENOMEM, http_status::unavailable},
    {ENOSYS, http_status::unavailable},
    {ESHUTDOWN, http_status::unavailable},
    {EDM_ERR_INVALID_ARGS, http_status::unavailable}, // the module has not started, or has ended
    {EDM_ERR_RESYNC, http_status::unavailable},
    {ETIMEDOUT, http_status::timed_out},
};

http_status http_status_of(uint32_t status)
{
    const auto *known = std::ranges::find(meanings, status, &status_meaning::status);
    if (known != std::end(meanings)) {
        return known->answered;
    }
    const bool is_send_error = (status & EDM_RESYNC_SEND_ERROR) == EDM_RESYNC_SEND_ERROR;
    return is_send_error ? http_status::unavailable : http_status::internal_error;
}

// The module brings the scope of a list up to date before it answers, so a list of one name is enough.
host::operational_request list_of(host::operational_keys keys)
{
    return {.object = host::operational_object::mac_table,
            .kind = host::request_kind::list,
            .keys = std::move(keys),
            .count = 1};
}

} // namespace

// A session's place among those that give_up() cancels.
class resync_requester::registration {
public:
    registration(resync_requester &requester, host::operational_session *session)
        : requester_(requester)
        , session_(session)
    {
        requester_.insert(session_);
    }
    ~registration() { requester_.erase(session_); }
    registration(const registration &) = delete;
    registration &operator=(const registration &) = delete;

private:
    resync_requester &requester_;
    host::operational_session *session_;
};

void resync_requester::insert(host::operational_session *session)
{
    const base::scoped_lock hold(lock_);
    sessions_.insert(session);
    if (is_given_up_) {
        operational_cancel(*session);
    }
}

void resync_requester::erase(host::operational_session *session)
{
    const base::scoped_lock hold(lock_);
    sessions_.erase(session);
}

// The module also answers EDM_ERR_NO_ITEM, for an empty scope, after the resync.
void resync_requester::request(const host::operational_request &wanted)
{
    const host::operational_session_ptr session = host::operational_open(wanted);
    const registration registered(*this, session.get());
    const auto began = std::chrono::steady_clock::now();
    const host::operational_page page = host::operational_wait(*session);
    durations_.add(std::chrono::steady_clock::now() - began);
    if (page.status != 0 && page.status != EDM_ERR_NO_ITEM) {
        throw api_error{http_status_of(page.status), error_tag::operation_failed, page.text};
    }
    last_resync_ = std::time(nullptr);
}

void resync_requester::resync_all()
{
    request({.object = host::operational_object::mac_count, .kind = host::request_kind::get});
}

void resync_requester::resync_domain(std::string_view domain)
{
    request(list_of({.domain = std::string(domain)}));
}

void resync_requester::resync_port(uint32_t xcid, std::string_view domain)
{
    request(list_of({.domain = std::string(domain), .port = xcid}));
}

void resync_requester::give_up()
{
    const base::scoped_lock hold(lock_);
    is_given_up_ = true;
    for (host::operational_session *session : sessions_) {
        operational_cancel(*session);
    }
}

bool resync_requester::is_given_up() const
{
    const base::scoped_lock hold(lock_);
    return is_given_up_;
}

} // namespace l2fibd
