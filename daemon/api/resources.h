// SPDX-License-Identifier: Apache-2.0

// The resources of the API: from a request to its answer. A constexpr table (resources.cpp) maps the shape of a path to
// the function that answers it; docs/api.md describes each resource.
//
//      resync_requester resyncs;
//      kept_selections selections;
//      request_durations durations;
//      const api_context context{resyncs, selections, [] { return server_health(); }, durations};
//      answer found = answer_request({.method = "GET", .uri = "/restconf/data/l2fib-mac:mac-count"}, context);
//
// Threads: any thread may call answer_request. It may wait as long as a resync. An answer belongs to its request.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "daemon/api/answer_stream.h"
#include "daemon/api/database.h"
#include "daemon/api/health.h"
#include "daemon/api/json/api_error.h"
#include "daemon/api/lists/kept_selections.h"
#include "daemon/api/lists/list.h"
#include "daemon/api/metrics/metrics.h"

namespace l2fibd {

inline constexpr std::string_view health_path = "/restconf/data/l2fib-mac:health";
inline constexpr std::string_view events_path = "/events";
inline constexpr std::string_view metrics_path = "/metrics";

// What the resources use of the rest of the daemon. It outlives all answers.
struct api_context {
    resync_requester &resyncs;
    kept_selections &selections;
    std::function<server_health()> server;
    request_durations &durations;
};

struct request {
    std::string_view method;
    std::string_view uri; // as the client sent it: path and parameters, percent-encoded
    std::string_view body = {};
    const char *last_event_id = nullptr; // the header of that name; null: none
    const char *accept = nullptr;        // likewise
    std::function<bool()> has_client_left = [] { return false; };
    size_t *resource = nullptr; // gets the number of the resource as soon as it is known; may be null
};

struct answer {
    http_status status = http_status::ok;
    std::string body = {};
    std::unique_ptr<answer_stream> rest = nullptr; // what follows `body`. Null if the body is complete
    forwarding::completeness worth = forwarding::completeness::whole;
    bool is_stream = false;             // of events, as text/event-stream
    const char *content_type = nullptr; // null: JSON, or the type of the stream
};

// Whether the method reads a resource and changes nothing.
bool is_read_method(std::string_view method);

// Whether the request is for the stream of events, which may last as long as the daemon.
bool is_stream_request(std::string_view uri);

// Throws api_error. The first page of a list is fetched here, so that its errors get their status.
answer answer_request(const request &asked, const api_context &context);

} // namespace l2fibd
