// SPDX-License-Identifier: Apache-2.0

#include "daemon/http/target.h"

#include "base/text.h"
#include "daemon/api/json/api_error.h"

namespace l2fibd {

namespace {

std::string decode(std::string_view text)
{
    auto decoded = base::percent_decode(text);
    if (!decoded) {
        throw unexpected("URI part", std::string(text), "two hexadecimal digits after each %, and not %00");
    }
    return *std::move(decoded);
}

target::element parse_element(std::string_view text)
{
    const size_t equals = text.find('=');
    target::element element{decode(text.substr(0, equals)), std::nullopt};
    if (equals != std::string_view::npos) {
        element.key = decode(text.substr(equals + 1));
        if (element.key->empty()) {
            throw unexpected("path element", std::string(text), "a key behind the \"=\"");
        }
    }
    return element;
}

target::parameter parse_parameter(std::string_view text)
{
    const size_t equals = text.find('=');
    if (equals == 0 || equals == std::string_view::npos) {
        throw unexpected("parameter", std::string(text), "NAME=VALUE");
    }
    return {decode(text.substr(0, equals)), decode(text.substr(equals + 1))};
}

} // namespace

target parse_target(std::string_view uri)
{
    const size_t question = uri.find('?');
    std::string_view path = uri.substr(0, question);
    if (!path.starts_with('/')) {
        throw unexpected("path", std::string(path), "a path that begins with /restconf/");
    }
    path.remove_prefix(1);
    target parsed;
    for (const std::string_view element : base::split(path, '/')) {
        parsed.path.push_back(parse_element(element));
    }
    if (question != std::string_view::npos) {
        for (const std::string_view parameter : base::split(uri.substr(question + 1), '&')) {
            parsed.parameters.push_back(parse_parameter(parameter));
        }
    }
    return parsed;
}

std::string shape_of(const target &to)
{
    std::string shape;
    for (const target::element &element : to.path) {
        shape += "/" + base::percent_encode(element.name) + (element.key ? "=*" : "");
    }
    return shape.substr(1);
}

} // namespace l2fibd
