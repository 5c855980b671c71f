// SPDX-License-Identifier: Apache-2.0

// How a function reports that it failed, in every part but the module and the host platform, whose interfaces return
// status numbers.
//
//      base::result open_log(const std::string &path);
//      ...
//      if (const base::result opened = open_log(path); !opened.ok()) {
//          report(opened.text);
//      }
#pragma once

#include <string>
#include <utility>

namespace base {

struct [[nodiscard]] result {
    int code = 0;     // 0 for success, otherwise an error number of <cerrno>
    std::string text; // for the operator: what failed, on what, and what to do or what was expected

    bool ok() const { return code == 0; }
};

inline result success()
{
    return {};
}

// `code` is not 0.
inline result failure(int code, std::string text)
{
    return {code, std::move(text)};
}

} // namespace base
