// SPDX-License-Identifier: Apache-2.0

// Makes the HTTP library's response from an answer of the API. The response of a list or of an event stream makes its
// parts while the library sends them, so that only one part is in memory.
//
// Threads: a response belongs to the thread of its connection.
#pragma once

#include <memory>

#include <microhttpd.h>

#include "daemon/api/resources.h"

namespace l2fibd {

struct response_deleter {
    void operator()(MHD_Response *response) const { MHD_destroy_response(response); }
};

using response_ptr = std::unique_ptr<MHD_Response, response_deleter>;

// Null if the library has no memory for it.
response_ptr make_response(answer &&from);

} // namespace l2fibd
