// SPDX-License-Identifier: Apache-2.0

// The one way in which a function reports a failure. The module and the host platform are exceptions: their interfaces
// return status numbers.
//
//      base::result open_log(const std::string &path);
//      ...
//      if (const base::result opened = open_log(path); !opened.ok()) {
//          print(opened.text);
//      }
//
// Threads: a result is a value; its functions are pure and any thread may call them.
#pragma once

#include <string>
#include <system_error>
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

// A failed system call. `code` is its errno; `subject` names what it worked on: "socket /run/a: Permission denied".
inline result system_failure(int code, const std::string &subject)
{
    return {code, subject + ": " + std::generic_category().message(code)};
}

} // namespace base
