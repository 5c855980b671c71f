// SPDX-License-Identifier: Apache-2.0

// The requests that the MAC data manager serves: which handler answers which object, kind and set of keys.
//
// A route is one row of the table in operational_routes.cpp. The database finds the route of a request once, and later
// calls the handler of the route on the data manager's thread.
//
// Threads: any thread may find a route. Only the thread that serves the data manager calls a handler.
#pragma once

#include <string>

#include "host/database/operational_db_host.h"
#include "platform/l2fib.h"

namespace host {

struct operational_route;

// Returns the route of a request. Returns null if there is none; `error` then names the wrong key and what was
// expected.
const operational_route *operational_route_find(const operational_request &request, std::string &error);

// Returns the object's name, such as "mac-table". A data manager registers for all objects with its prefix.
std::string_view operational_object_name(operational_object object);

// Describes a request for an operator: "mac-table port 7 domain campus:br0".
std::string operational_request_text(const operational_request &request);

// These call the handler of a route: of a list or datalist, of a get, of an action. Each returns the status of the
// handler, or ENOSYS if the handler table has no such handler.
uint32_t operational_route_list(const operational_route &route, const operational_keys &keys,
                                const l2fib_hw_edm_handler_table_t &handlers, edm_list_req_t &request,
                                optree_list_t *list);
uint32_t operational_route_get(const operational_route &route, const operational_keys &keys,
                               const l2fib_hw_edm_handler_table_t &handlers, edm_get_rsp_t &response);
uint32_t operational_route_act(const operational_route &route, const l2fib_action_table_t &actions,
                               optree_request_t *request);

} // namespace host
