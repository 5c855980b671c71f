// SPDX-License-Identifier: Apache-2.0

// How the daemon has the table brought up to date before it reads it: by requests to the operational database, each of
// which makes the module ask the forwarding plane for a resync and waits for its end. The statuses of the database
// become errors of the API here.
//
// Threads: any. A request may take the whole resync wait time, and can be given up when the daemon ends.
#pragma once

#include <cstdint>
#include <string_view>

namespace l2fibd {

// Gives up the requests that are under way, and all later ones: they end with ECANCELED.
void give_up_requests();
bool requests_given_up();

// Bring a scope up to date. Throw api_error when that failed.
void resync_all();
void resync_domain(std::string_view domain);
void resync_port(uint32_t xcid, std::string_view domain);

} // namespace l2fibd
