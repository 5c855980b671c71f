// SPDX-License-Identifier: Apache-2.0

// The command help, and --help: pages of commands, and topics. Commands and options come from cli/line/table.h, columns
// from cli/query/resources.h.
//
// Threads: the main thread only.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "cli/query/pages.h"

namespace l2fibctl {

struct help_topic {
    std::string_view name;
    std::string_view summary;
    std::string (*make)();
};

std::span<const help_topic> all_topics();

// Prints the page of the command or topic that the words of the command line name. Throws a failure if there is none.
void explain(query_session &session);

} // namespace l2fibctl
