// SPDX-License-Identifier: Apache-2.0

// The command `top`: the busiest ports, bridge domains or addresses, on the whole screen or as one table.
//
// On the screen, an error of the daemon is a line, and the next sample tries again; only the first sample has to
// succeed.
//
// Threads: the main thread only.
#pragma once

#include <chrono>
#include <string>

#include "cli/live/top_model.h"
#include "cli/query/pages.h"
#include "cli/query/resources.h"

namespace l2fibctl {

struct top_settings {
    std::string title;             // of the screen, such as "ports"
    list_request list;             // a sample is this whole list
    const resource &shown;         // the columns of its rows
    top_state start = {};          // order and filter
    bool has_places = false;       // flapping addresses: text has two places, and the daemon counts the rate
    std::chrono::seconds interval; // between samples
};

// Fills the screen until the operator ends it. Throws a failure if there is no terminal.
void run_top(query_session &session, const top_settings &settings);

// Prints one table after one interval.
void print_top_once(query_session &session, const top_settings &settings);

} // namespace l2fibctl
