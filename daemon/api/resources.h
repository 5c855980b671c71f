// SPDX-License-Identifier: Apache-2.0

// The API's resources: from a request to its answer.
//
// Threads: any; an answer belongs to its request.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "daemon/api/api_error.h"
#include "daemon/api/list.h"

namespace l2fibd {

struct request {
    std::string_view method;
    std::string_view uri; // as the client sent it: path and parameters, encoded
    std::string_view body;
};

struct answer {
    unsigned status = 200;
    std::string body;
    std::unique_ptr<list_stream> rest; // what the body goes on with; null when it is whole
    forwarding::completeness worth = forwarding::completeness::whole;
};

// Throws api_error. A list's first page has been fetched when this returns, so that its errors get their status.
answer answer_request(const request &asked);

} // namespace l2fibd
