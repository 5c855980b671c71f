// SPDX-License-Identifier: Apache-2.0

#include "daemon/api/json/api_error.h"

#include "daemon/api/lists/list.h"
#include "forwarding/forwarding.h"

namespace l2fibd {

void write_errors(json_writer &json, const api_error &error)
{
    json.begin_object("ietf-restconf:errors");
    json.begin_array("error");
    json.begin_object();
    json.member("error-type", error.status < first_server_error ? "protocol" : "application");
    json.member("error-tag", error.tag);
    json.member("error-message", error.message);
    json.end_object();
    json.end_array();
    json.end_object();
}

std::string error_body(const api_error &error)
{
    json_writer json;
    json.begin_object();
    write_errors(json, error);
    write_completeness(json, forwarding::completeness_watch());
    json.end_object();
    return json.take();
}

} // namespace l2fibd
