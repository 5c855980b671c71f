// SPDX-License-Identifier: Apache-2.0

// What a request is refused with. Thrown by whatever finds out, answered at one place (http_server.cpp).
#pragma once

#include <string>
#include <utility>

#include "daemon/api/json_writer.h"

namespace l2fibd {

struct api_error {
    unsigned status;
    const char *tag; // one of the API's error tags: a literal
    std::string message;
    std::string allow = {}; // the methods that are served; of status 405
};

inline api_error invalid(std::string message)
{
    return {400, "invalid-value", std::move(message)};
}

inline api_error not_found(std::string message)
{
    return {404, "invalid-value", std::move(message)};
}

// `what` "value": expected ...
inline api_error unexpected(const std::string &what, const std::string &value, const std::string &expected)
{
    return invalid(what + " \"" + value + "\": expected " + expected);
}

// The body of its answer, and the member that it consists of.
std::string error_body(const api_error &error);
void write_errors(json_writer &json, const api_error &error);

} // namespace l2fibd
