// SPDX-License-Identifier: Apache-2.0

#include "cli/query/pages.h"

#include <algorithm>
#include <utility>

#include "base/text.h"
#include "base/visible.h"

namespace l2fibctl {

namespace {

constexpr uint64_t first_page_items = 1'000; // arrives soon, so printing begins while the next page is on its way
constexpr uint64_t page_items = 10'000;      // few requests for a large table, and only megabytes of memory for a page
constexpr unsigned first_error_status = 400;
constexpr unsigned not_found_status = 404;
constexpr auto tick_period = std::chrono::milliseconds(100);
constexpr char module_prefix[] = "l2fib-mac:"; // of the names of members
constexpr char completeness_member[] = "l2fib-mac:completeness";
constexpr char reason_member[] = "l2fib-mac:completeness-reason";
constexpr char cursor_member[] = "l2fib-mac:next-cursor";
constexpr char history_member[] = "l2fib-mac:history-since";
constexpr char unknown_instance_tag[] = "invalid-value";

// ---- Errors of the daemon ----

std::vector<json_value> elements_of(json_value array)
{
    std::vector<json_value> found;
    for (json_value element = array.first(); element != array.end(); element = element.next()) {
        found.push_back(element);
    }
    return found;
}

std::vector<json_value> errors_in(json_value root)
{
    const json_value container = find(root, "ietf-restconf:errors");
    const json_value errors = container ? find(container, "error") : json_value();
    return errors && errors.is_array() ? elements_of(errors) : std::vector<json_value>();
}

// Returns the text of the member, or an empty text if there is none.
std::string lenient_text_of(json_value error, std::string_view member)
{
    const json_value found = find(error, member);
    return found && found.is_text() ? std::string(found.text()) : "";
}

// Returns one line for each error that has a message.
std::string messages_of(const std::vector<json_value> &errors)
{
    std::string lines;
    for (const json_value error : errors) {
        const std::string message = lenient_text_of(error, "error-message");
        if (!message.empty()) {
            lines += (lines.empty() ? "" : "\n") + base::visible(message);
        }
    }
    return lines;
}

// Two answers have the status 404. The tag invalid-value means that an item, such as a port, does not exist: the
// command found nothing. Every other tag means that the daemon does not know the resource: it refused the request.
failure failure_of(unsigned status, const std::vector<json_value> &errors)
{
    const bool is_missing = status == not_found_status && !errors.empty()
                            && lenient_text_of(errors.front(), "error-tag") == unknown_instance_tag;
    const std::string messages = messages_of(errors);
    return {is_missing ? exit_status::nothing_found : exit_status::refused,
            messages.empty() ? "the daemon answered with HTTP status " + std::to_string(status)
                                   + " and no message; its log may have the reason"
                             : messages};
}

failure cut_by(const std::string &reason)
{
    return {exit_status::cut, "the answer was cut: " + reason};
}

// ---- Reading a page ----

void read_mark(json_value root, page &to)
{
    to.completeness.add(
        {completeness_of(lenient_text_of(root, completeness_member)), lenient_text_of(root, reason_member)});
}

void read_items(json_value root, std::string_view name, page &to)
{
    const json_value list = find(root, module_prefix + std::string(name));
    if (!list) {
        fail_damaged();
    }
    to.items = list.is_array() ? elements_of(list) : std::vector<json_value>{list};
    if (!std::ranges::all_of(to.items, &json_value::is_object)) {
        fail_damaged();
    }
    to.next_cursor = text_of(root, cursor_member);
    to.history_since = text_of(root, history_member);
}

// Reads a body whose end is missing. If a list failed in the daemon, the body lacks only its last brace:
//
//      {"l2fib-mac:port": [ items ], "ietf-restconf:errors": {"error": [...]}
//
// Its items are printed, and the daemon's message is the reason. Every other incomplete body is discarded.
void read_cut(std::string_view name, page &to)
{
    to.problem = cut_by(to.raw.received.text);
    to.raw.body += '}';
    const json_value root = to.document.parse(to.raw.body);
    const std::string messages = root ? messages_of(errors_in(root)) : "";
    if (!messages.empty()) {
        read_mark(root, to);
        read_items(root, name, to);
        to.problem = cut_by(messages);
    }
}

void read_error(page &to)
{
    const json_value root = to.document.parse(to.raw.body);
    if (root) {
        read_mark(root, to);
    }
    to.problem = failure_of(to.raw.status, root ? errors_in(root) : std::vector<json_value>());
}

void read_success(std::string_view name, page &to)
{
    const json_value root = to.document.parse(to.raw.body);
    if (!root) {
        fail_damaged();
    }
    read_mark(root, to);
    read_items(root, name, to);
}

void read_page(std::string_view name, page &to)
{
    if (!to.raw.received.ok()) {
        read_cut(name, to);
    } else if (to.raw.status >= first_error_status) {
        read_error(to);
    } else if (!name.empty()) {
        read_success(name, to);
    }
}

} // namespace

failure failure_in(const answer &refusal)
{
    json_document document;
    const json_value root = document.parse(refusal.body);
    return failure_of(refusal.status, root ? errors_in(root) : std::vector<json_value>());
}

void fetch(connection &daemon, const request &asked, std::string_view name, page &to,
           const connection::idle_task &while_waiting)
{
    to.items.clear();
    to.next_cursor.clear();
    to.problem.reset();
    daemon.perform(asked, to.raw, while_waiting);
    to.completeness = {completeness_of(to.raw.completeness)};
    read_page(name, to);
}

page_reader::page_reader(query_session &session, const list_request &list, uint64_t max_items)
    : session_(session)
    , list_(list)
    , left_(max_items)
{}

page_reader::~page_reader()
{
    if (ahead_.valid()) {
        session_.daemon.cancel();
        ahead_.wait();
        session_.daemon.close();
    }
}

request page_reader::request_for(const std::string &cursor) const
{
    if (!list_.has_pages) {
        return {list_.path};
    }
    const std::string limit = std::to_string(std::min(left_, cursor.empty() ? first_page_items : page_items));
    return {with_parameter(with_parameter(list_.path, "limit", limit), "cursor", cursor)};
}

void page_reader::fetch_first()
{
    fetch(session_.daemon, request_for({}), list_.name, current(), [this] { session_.progress_line.tick(); });
}

// Starts the second thread, which fills the page that the caller does not have.
void page_reader::fetch_ahead(const std::string &cursor)
{
    ahead_ = std::async(std::launch::async, [this, &ahead = pages_[1 - current_], asked = request_for(cursor)] {
        fetch(session_.daemon, asked, list_.name, ahead, {});
    });
}

// Waits for the second thread. Scripts rely on this: if the status is not done (0), cut (5) or incomplete (6), the
// client has printed nothing. So every problem after the first page becomes a cut answer.
void page_reader::await_next()
{
    while (ahead_.wait_for(tick_period) != std::future_status::ready) {
        session_.progress_line.tick();
    }
    try {
        ahead_.get();
    } catch (const failure &error) {
        current().items.clear();
        current().problem = error;
    }
    if (auto &problem = current().problem; problem && problem->status != exit_status::cut) {
        problem = cut_by(problem->what());
    }
}

const page *page_reader::next()
{
    if (!is_first_ && !ahead_.valid()) {
        return nullptr;
    }
    current_ = 1 - current_;
    if (std::exchange(is_first_, false)) {
        fetch_first();
    } else {
        await_next();
    }
    const page &received = current();
    session_.worst.add(received.completeness);
    session_.progress_line.count_items(received.items.size());
    left_ -= std::min<uint64_t>(left_, received.items.size());
    if (!received.next_cursor.empty() && !received.problem && left_ > 0) {
        fetch_ahead(received.next_cursor);
    }
    return &received;
}

std::string with_parameter(std::string path, std::string_view name, const std::string &value)
{
    if (!value.empty()) {
        path += path.find('?') == std::string::npos ? '?' : '&';
        path.append(name).append("=").append(base::percent_encode(value));
    }
    return path;
}

} // namespace l2fibctl
