// SPDX-License-Identifier: Apache-2.0

#include "cli/query/pages.h"

#include <algorithm>
#include <utility>

#include "base/text.h"
#include "base/visible.h"

namespace l2fibctl {

namespace {

constexpr uint64_t first_page_items = 1'000; // soon there, so that printing begins while the next page comes
constexpr uint64_t page_items = 10'000;
constexpr unsigned first_error_status = 400;
constexpr unsigned not_found = 404;
constexpr auto tick_period = std::chrono::milliseconds(100);
constexpr char module_name[] = "l2fib-mac:";
constexpr char cut_prefix[] = "the answer was cut: ";

// ---- Errors of the daemon ----

std::vector<json_value> errors_in(const json_value &root)
{
    simdjson::dom::array errors;
    std::vector<json_value> found;
    if (root.is_object() && root["ietf-restconf:errors"]["error"].get(errors) == simdjson::SUCCESS) {
        found.assign(errors.begin(), errors.end());
    }
    return found;
}

// The text of a member; nothing when it has none.
std::string lenient_text_of(const json_value &error, std::string_view member)
{
    const auto found = find(error, member);
    std::string_view text;
    return found && found->get(text) == simdjson::SUCCESS ? std::string(text) : "";
}

// A line for each error; nothing when there is none.
std::string messages_of(const std::vector<json_value> &errors)
{
    std::string lines;
    for (const json_value &error : errors) {
        const std::string message = lenient_text_of(error, "error-message");
        if (!message.empty()) {
            lines += (lines.empty() ? "" : "\n") + base::visible(message);
        }
    }
    return lines;
}

// That an item of the table does not exist is an answer; that the daemon does not know a resource is not.
failure failure_of(unsigned status, const std::vector<json_value> &errors)
{
    const bool unknown = !errors.empty() && lenient_text_of(errors.front(), "error-tag") == "invalid-value";
    const std::string messages = messages_of(errors);
    return {status == not_found && unknown ? ending::nothing_found : ending::refused,
            messages.empty() ? "the daemon answered with the HTTP status " + std::to_string(status) : messages};
}

// ---- Reading a page ----

// Nothing when the body is no JSON.
std::optional<json_value> parse_body(page &of)
{
    std::string &body = of.raw.body;
    body.reserve(body.size() + simdjson::SIMDJSON_PADDING); // spares the parser a copy
    json_value root;
    return of.parser.parse(body).get(root) == simdjson::SUCCESS ? std::optional(root) : std::nullopt;
}

void read_mark(const json_value &root, page &to)
{
    to.completeness.add({completeness_of(lenient_text_of(root, "l2fib-mac:completeness")),
                         lenient_text_of(root, "l2fib-mac:completeness-reason")});
}

void read_items(const json_value &root, std::string_view name, page &to)
{
    const auto list = find(root, module_name + std::string(name));
    if (!list) {
        fail_damaged();
    }
    simdjson::dom::array values;
    if (list->get(values) == simdjson::SUCCESS) {
        to.items.assign(values.begin(), values.end());
    } else {
        to.items.push_back(*list);
    }
    if (!std::ranges::all_of(to.items, &json_value::is_object)) {
        fail_damaged();
    }
    to.next_cursor = text_of(root, "l2fib-mac:next-cursor");
}

// If the forwarding plane ended in the middle, the daemon sends the items so far and an error, but not the last brace.
void read_cut(std::string_view name, page &to)
{
    to.problem = {ending::cut, cut_prefix + to.raw.cut};
    to.raw.body += '}';
    const auto root = parse_body(to);
    const std::string messages = root ? messages_of(errors_in(*root)) : "";
    if (!messages.empty()) {
        read_mark(*root, to);
        read_items(*root, name, to);
        to.problem = {ending::cut, cut_prefix + messages};
    }
}

void read_error(page &to)
{
    const auto root = parse_body(to);
    if (root) {
        read_mark(*root, to);
    }
    to.problem = failure_of(to.raw.status, root ? errors_in(*root) : std::vector<json_value>());
}

void read_success(std::string_view name, page &to)
{
    const auto root = parse_body(to);
    if (!root) {
        fail_damaged();
    }
    read_mark(*root, to);
    read_items(*root, name, to);
}

void read_page(std::string_view name, page &to)
{
    if (!to.raw.cut.empty()) {
        read_cut(name, to);
    } else if (to.raw.status >= first_error_status) {
        read_error(to);
    } else if (!name.empty()) {
        read_success(name, to);
    }
}

} // namespace

void fetch(connection &from, const request &what, std::string_view name, page &to,
           const connection::idle_task &while_waiting)
{
    to.items.clear();
    to.next_cursor.clear();
    to.problem.reset();
    from.perform(what, to.raw, while_waiting);
    to.completeness = {completeness_of(to.raw.completeness)};
    read_page(name, to);
}

page_reader::page_reader(session &with, const list_request &what, uint64_t most_items)
    : with_(with)
    , what_(what)
    , left_(most_items)
{}

page_reader::~page_reader()
{
    if (ahead_.valid()) {
        with_.daemon.cancel();
        ahead_.wait();
        with_.daemon.close();
    }
}

request page_reader::request_for(const std::string &cursor) const
{
    if (!what_.has_pages) {
        return {what_.path};
    }
    const std::string limit = std::to_string(std::min(left_, cursor.empty() ? first_page_items : page_items));
    return {with_parameter(with_parameter(what_.path, "limit", limit), "cursor", cursor)};
}

void page_reader::fetch_first()
{
    fetch(with_.daemon, request_for({}), what_.name, pages_[shown_], [this] { with_.progress_line.tick(); });
}

void page_reader::await_next()
{
    while (ahead_.wait_for(tick_period) != std::future_status::ready) {
        with_.progress_line.tick();
    }
    try {
        ahead_.get();
    } catch (const failure &error) {
        pages_[shown_].items.clear();
        pages_[shown_].problem = error;
    }
    // Scripts take every other status for an answer of which nothing was printed.
    if (auto &problem = pages_[shown_].problem; problem && problem->how != ending::cut) {
        problem = {ending::cut, cut_prefix + problem->message};
    }
}

const page *page_reader::next()
{
    if (!is_first_ && !ahead_.valid()) {
        return nullptr;
    }
    shown_ = 1 - shown_;
    if (std::exchange(is_first_, false)) {
        fetch_first();
    } else {
        await_next();
    }
    page &now = pages_[shown_];
    with_.worst.add(now.completeness);
    with_.progress_line.count_items(now.items.size());
    left_ -= std::min<uint64_t>(left_, now.items.size());
    if (!now.next_cursor.empty() && !now.problem && left_ > 0) {
        page &ahead = pages_[1 - shown_];
        ahead_ = std::async(std::launch::async, [this, &ahead, following = request_for(now.next_cursor)] {
            fetch(with_.daemon, following, what_.name, ahead, {});
        });
    }
    return &now;
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
