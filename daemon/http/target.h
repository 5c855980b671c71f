// SPDX-License-Identifier: Apache-2.0

// A request's URI, taken apart: path elements with their keys, and parameters, all decoded.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace l2fibd {

struct target {
    struct element {
        std::string name;
        std::optional<std::string> key; // behind a '='; not empty
    };
    struct parameter {
        std::string name;
        std::string value;
    };
    std::vector<element> path;
    std::vector<parameter> parameters;
};

// Throws api_error for what does not parse. Elements are told apart before they are decoded, so that a key may hold any
// character but the one with the code 0.
target parse_target(std::string_view uri);

// The path with '*' for each key, without the first slash: what resources are told apart by. A name is encoded again,
// so that none looks like a '/', a '=' or a key.
std::string shape_of(const target &to);

} // namespace l2fibd
