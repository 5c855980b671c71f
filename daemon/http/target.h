// SPDX-License-Identifier: Apache-2.0

// The parts of a request's URI: path elements with their keys, and parameters. The URI is split before its parts are
// decoded, so a key may hold any character except the one with the code 0:
//
//      /restconf/data/l2fib-mac:domains/domain=lab%3Abr0/mac-entry?limit=10
//
//      path          restconf, data, l2fib-mac:domains, domain with the key "lab:br0", mac-entry
//      parameters    limit = 10
//      shape         restconf/data/l2fib-mac:domains/domain=*/mac-entry
//
// Threads: pure functions; any thread may call them.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace l2fibd {

struct target {
    struct element {
        std::string name;
        std::optional<std::string> key; // the text after '='; not empty
    };
    struct parameter {
        std::string name;
        std::string value;
    };
    std::vector<element> path;
    std::vector<parameter> parameters;
};

// Throws api_error if the URI does not parse.
target parse_target(std::string_view uri);

// The path without its first slash and with '*' for each key. It identifies the resource. Names are encoded again, so
// that a name with a '/' or a '=' does not look like two elements or a key.
std::string shape_of(const target &to);

} // namespace l2fibd
