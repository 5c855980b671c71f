// The daemon's way to the operational database: requests that can be given up when the daemon ends, and what their
// statuses mean for the API.
//
// Threads: any. A request waits for its answer, which may take the whole resync wait time.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "daemon/api_error.h"
#include "host/operational_db_host.h"

namespace l2fibd {

// Makes one request and waits for its page.
host::operational_page ask(const host::operational_request &request);

// Gives up the requests that are under way, and all later ones: they end with ECANCELED.
void give_up_requests();

// Whether a page says that its item, or what it continues, is not there.
bool says_nothing_there(const host::operational_page &page);

// The error for a page that failed.
api_error error_of(const host::operational_page &page);

// One record; throws api_error when there is none: `missing` when it is not there.
host::operational_page get_record(const std::string &path, const api_error &missing);

// Bring a scope up to date. Throw api_error when that failed.
void resync_all();
void resync_domain(std::string_view domain);
void resync_port(uint32_t xcid, std::string_view domain);

std::string domain_path(std::string_view domain);
std::string port_path(uint32_t xcid, std::string_view domain);

} // namespace l2fibd
