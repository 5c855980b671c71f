// SPDX-License-Identifier: Apache-2.0

// The paths of the operational database that the MAC data manager serves: what they look like, and which handler each
// of them calls with which keys. docs/operational-paths.md is the list for the reader.
//
// A path is an object and then its keys, in any order and each at most once; a key is followed by its value, a flag
// stands alone. Which keys an object takes depends on the kind of the request. Values are percent-decoded, so that a
// name may hold a '/'.
//
// Threads: parsing is for any thread, calling a handler for the one that serves the data manager.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "host/database/operational_db_host.h"
#include "platform/l2fib.h"

namespace host {

// The values of a path's keys; what was not given is zero.
struct operational_keys {
    uint32_t given;                                  // one bit a key, private to the parser
    std::array<char, L2FIB_NAME_BUFFER_SIZE> domain; // full name
    std::array<uint8_t, 6> mac_addr;
    uint32_t vtep_addr; // the four bytes in network byte order as they lie in memory
    uint32_t xcid;
    uint32_t seg_info1;
    uint32_t seg_info2;
};

struct operational_route;

struct operational_path {
    const operational_route *route;
    operational_keys keys;
};

// Parses a path for a request of one kind. When it does not parse, returns false and says in `error` which element is
// wrong and what was expected in its place.
bool operational_path_parse(std::string_view path, request_kind kind, operational_path &parsed, std::string &error);

// Call the handler of a parsed path: the first that of a list or datalist, the others that of a get and of an action.
// Each returns the handler's status, or ENOSYS when the table has none.
uint32_t operational_path_list(const operational_path &path, const l2fib_hw_edm_handler_table_t &handlers,
                               edm_list_req_t &request, optree_list_t *list);
uint32_t operational_path_get(const operational_path &path, const l2fib_hw_edm_handler_table_t &handlers,
                              edm_get_rsp_t &response);
uint32_t operational_path_act(const operational_path &path, const l2fib_action_table_t &actions,
                              optree_request_t *request);

} // namespace host
