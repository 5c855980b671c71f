// SPDX-License-Identifier: Apache-2.0

// Answers of the daemon, parsed, and lists in pages.
//
// A page is received whole before anybody looks at it, so the daemon never waits for the reader of our output. While
// one page is being printed a second thread receives the next one, at most one page ahead.
//
// Threads: the main one. Only page_reader starts another, which touches the page that is being fetched and the
// connection; nobody else uses these meanwhile.
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
#include "cli/output/completeness.h"
#include "cli/output/output.h"
#include "cli/query/http.h"
#include "cli/query/json.h"

namespace l2fibctl {

// What every command works with.
struct session {
    const options &how;
    progress progress_line = {};
    connection daemon{how.socket, std::chrono::seconds(how.timeout_seconds)};
    mark worst = {}; // of all answers so far
};

struct page {
    answer raw = {};
    simdjson::dom::parser parser{};
    std::vector<json_value> items = {}; // valid until the next fetch into this page
    std::string next_cursor = {};
    mark completeness = {};
    std::optional<failure> problem = {}; // what ends the command after the items are shown
};

// Asks for a resource, or for an operation when `name` is empty. `name` is that of the answer's member, without the
// module's. What the daemon complains about becomes the page's problem. Throws a failure when there is no answer.
void fetch(connection &from, const request &what, std::string_view name, page &to,
           const connection::idle_task &while_waiting);

struct list_request {
    std::string path;      // with parameters other than limit and cursor
    std::string_view name; // of the list
    bool has_pages = true; // false: of a single item, which takes no limit
};

class page_reader {
public:
    // Asks for no more than `most_items`. What is passed must outlive the reader.
    page_reader(session &with, const list_request &what, uint64_t most_items);
    // Cancels the page that is being fetched.
    ~page_reader();
    page_reader(const page_reader &) = delete;
    page_reader &operator=(const page_reader &) = delete;

    // The next page, valid until the next call; null behind the last. Adds its mark to the session's.
    const page *next();

private:
    request request_for(const std::string &cursor) const;
    void fetch_first();
    void await_next();

    session &with_;
    const list_request &what_;
    uint64_t left_;
    bool is_first_ = true;
    std::array<page, 2> pages_ = {};
    size_t shown_ = 1; // the page that the caller has; the other is fetched
    std::future<void> ahead_ = {};
};

// Appends NAME=VALUE to the query unless the value is empty.
std::string with_parameter(std::string path, std::string_view name, const std::string &value);

} // namespace l2fibctl
