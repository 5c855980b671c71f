// SPDX-License-Identifier: Apache-2.0

// The refusal of a request. The function that finds the cause throws an api_error; the server catches it in one place
// (http_server.cpp) and answers with it:
//
//      throw unexpected("limit", "abc", "a number from 1 to 1000000");
//
//      HTTP/1.1 400
//      {"ietf-restconf:errors": {"error": [{"error-type": "protocol", "error-tag": "invalid-value",
//       "error-message": "limit \"abc\": expected a number from 1 to 1000000"}]}, ...}
//
// A message has three parts: what failed, on what, and what was expected or what to do.
//
// Threads: an error belongs to the thread that throws it.
#pragma once

#include <exception>
#include <string>
#include <utility>

#include "daemon/api/json/json_writer.h"

namespace l2fibd {

enum class http_status : unsigned {
    ok = 200,
    no_content = 204,  // a resync that succeeded
    bad_request = 400, // a key, parameter or body does not parse
    not_found = 404,   // no such resource or object
    method_not_allowed = 405,
    gone = 410, // a cursor of a daemon that has ended
    content_too_large = 413,
    internal_error = 500, // a fault of the daemon
    unavailable = 503,    // a limit is reached, or a part of the daemon has not started or has ended
    timed_out = 504,      // the forwarding plane did not answer in time
};

// From here on the cause is the server, not the client.
inline constexpr http_status first_server_error = http_status::internal_error;

// The API's error tags (RFC 8040, section 7).
namespace error_tag {
inline constexpr const char *data_missing = "data-missing";
inline constexpr const char *invalid_value = "invalid-value";
inline constexpr const char *malformed_message = "malformed-message";
inline constexpr const char *operation_failed = "operation-failed";
inline constexpr const char *operation_not_supported = "operation-not-supported";
inline constexpr const char *resource_denied = "resource-denied";
inline constexpr const char *too_big = "too-big";
inline constexpr const char *unknown_element = "unknown-element";
} // namespace error_tag

struct api_error : std::exception {
    http_status status;
    const char *tag; // of error_tag
    std::string message;
    std::string allow; // with method_not_allowed: the methods that the resource has

    api_error(http_status answered, const char *tag_of_error, std::string text, std::string allowed_methods = {})
        : status(answered)
        , tag(tag_of_error)
        , message(std::move(text))
        , allow(std::move(allowed_methods))
    {}

    const char *what() const noexcept override { return message.c_str(); }
};

inline api_error invalid(std::string message)
{
    return {http_status::bad_request, error_tag::invalid_value, std::move(message)};
}

inline api_error not_found(std::string message)
{
    return {http_status::not_found, error_tag::invalid_value, std::move(message)};
}

inline api_error unavailable(std::string message)
{
    return {http_status::unavailable, error_tag::operation_failed, std::move(message)};
}

// The daemon stops while a request is under way.
inline api_error daemon_ends(const std::string &subject)
{
    return unavailable(subject + ": the daemon is stopping; try again when it has restarted");
}

// The message reads: SUBJECT "VALUE": expected EXPECTED.
inline api_error unexpected(const std::string &subject, const std::string &value, const std::string &expected)
{
    return invalid(subject + " \"" + value + "\": expected " + expected);
}

inline api_error no_domain(const std::string &name)
{
    return not_found("domain \"" + name + "\": there is no such bridge domain; l2fib-mac:domains/domain lists them");
}

inline api_error no_port(const std::string &port)
{
    return not_found("port \"" + port + "\": there is no such bridge port; l2fib-mac:ports/port lists them");
}

// The body of an error's answer.
std::string error_body(const api_error &error);

// Writes the member "ietf-restconf:errors".
void write_errors(json_writer &json, const api_error &error);

} // namespace l2fibd
