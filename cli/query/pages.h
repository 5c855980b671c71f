// SPDX-License-Identifier: Apache-2.0

// Answers of the daemon, parsed, and lists in pages.
//
// The client receives a page whole before it prints it, so a slow reader of our output never blocks the daemon. While
// the main thread prints one page, a second thread receives the next one, and never more than one page ahead:
//
//      main thread      receive 1 | print 1   | print 2   | print 3
//      second thread              | receive 2 | receive 3 |
//
// Threads: the main thread. Only page_reader starts another thread, which uses the page that it receives and the
// connection. Until it has ended, the main thread uses neither, except that it may cancel the connection.
#pragma once

#include <array>
#include <cstdint>
#include <future>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/failure.h"
#include "cli/options.h"
#include "cli/progress.h"
#include "cli/query/completeness.h"
#include "cli/query/http.h"
#include "cli/query/json.h"

namespace l2fibctl {

// The state of one run of a command.
struct query_session {
    const client_options &options;
    progress progress_line = {};
    connection daemon{options.socket, std::chrono::seconds(options.timeout_seconds)};
    completeness_mark worst = {};           // of all answers so far
    std::vector<uint64_t> named_ports = {}; // xcids that --port meant when the command asked for the ports
};

struct page {
    answer raw = {};
    json_document document = {};
    std::vector<json_value> items = {}; // valid until the next fetch into this page
    std::string next_cursor = {};       // empty: this is the last page
    std::string history_since = {};     // of lists of moves: the time since which all are kept
    completeness_mark completeness = {};
    std::optional<failure> problem = {}; // to be thrown after the items are printed
};

// Performs a request and parses its answer into `to`. `name` is the name of the resource; an operation has an empty
// one, and its answer no items. An error of the daemon becomes the page's problem. Throws a failure if there is no
// answer or the answer is damaged.
void fetch(connection &daemon, const request &asked, std::string_view name, page &to,
           const connection::idle_task &while_waiting);

// The daemon's error in an answer that is not a success.
failure failure_in(const answer &refusal);

struct list_request {
    std::string path;      // with all parameters except limit and cursor
    std::string_view name; // of the resource
    bool has_pages = true; // false: a single item, which takes no limit
};

// Reads a list page by page.
//
//      page_reader pages(session, {"/restconf/data/l2fib-mac:ports/port", "port"}, no_limit);
//      while (const page *current = pages.next()) { ... }
class page_reader {
public:
    // Requests at most `max_items` items. The session and the list must outlive the reader.
    page_reader(query_session &session, const list_request &list, uint64_t max_items);
    // Cancels the request of the second thread.
    ~page_reader();
    page_reader(const page_reader &) = delete;
    page_reader &operator=(const page_reader &) = delete;

    // Returns the next page, valid until the next call, or null after the last. Adds its mark to the session's worst.
    const page *next();

private:
    request request_for(const std::string &cursor) const;
    void fetch_first();
    void fetch_ahead(const std::string &cursor);
    void await_next();
    page &current() { return pages_[current_]; }

    query_session &session_;
    const list_request &list_;
    uint64_t left_;
    bool is_first_ = true;
    std::array<page, 2> pages_ = {};
    size_t current_ = 1; // the page that the caller has; the second thread fills the other
    std::future<void> ahead_ = {};
};

// Appends NAME=VALUE to the query of the path, unless the value is empty.
std::string with_parameter(std::string path, std::string_view name, const std::string &value);

} // namespace l2fibctl
