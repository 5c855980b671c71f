// SPDX-License-Identifier: Apache-2.0

#include "cli/query/http.h"

#include <cerrno>
#include <cstring>
#include <http_parser.h>
#include <iterator>
#include <poll.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <utility>

#include "base/visible.h"
#include "cli/failure.h"

namespace l2fibctl {

namespace {

using clock = std::chrono::steady_clock;

constexpr size_t buffer_bytes = size_t(64) * 1024;
constexpr size_t max_body_mib = 256; // ten times a page whose names have the maximum length
constexpr size_t max_body = max_body_mib * 1024 * 1024;
constexpr auto idle_period = std::chrono::milliseconds(100);
constexpr auto backlog_period = std::chrono::milliseconds(50); // between two attempts to connect
constexpr char completeness_header[] = "L2fib-Completeness";

std::string request_text(const request &asked)
{
    std::string text = (asked.is_operation ? "POST " : "GET ") + asked.path + " HTTP/1.1\r\nHost: l2fibd\r\n";
    if (asked.is_operation) {
        text +=
            "Content-Type: application/yang-data+json\r\nContent-Length: " + std::to_string(asked.body.size()) + "\r\n";
    }
    if (!asked.after_event.empty()) {
        text += "Last-Event-ID: " + asked.after_event + "\r\n";
    }
    return text + "\r\n" + asked.body;
}

std::string error_string(int error)
{
    return std::strerror(error); // NOLINT(concurrency-mt-unsafe): glibc returns a constant for known errors
}

base::result closed_early()
{
    return base::failure(ECONNRESET, "the daemon closed the connection; its log may have the reason");
}

// The reason why the parser stopped before the end of the answer.
base::result rejected_by(const http_parser &parser)
{
    if (HTTP_PARSER_ERRNO(&parser) == HPE_CB_body) {
        return base::failure(EMSGSIZE, "the body is larger than " + std::to_string(max_body_mib)
                                           + " MiB; --limit requests fewer items");
    }
    return base::failure(EPROTO, "the bytes that arrived are not HTTP; expected the socket of l2fibd (--socket)");
}

} // namespace

// The parser of one answer, fed piece by piece.
struct connection::reception {
    answer &to;
    http_parser parser = {};
    std::string field = {};
    bool in_value = false;
    bool is_complete = false;
    bool has_bytes = false;
    bool has_more = false; // bytes follow the answer although no request is open

    explicit reception(answer &into)
        : to(into)
    {
        http_parser_init(&parser, HTTP_RESPONSE);
        parser.data = this;
    }

    static int take_field(http_parser *from, const char *bytes, size_t size)
    {
        auto &self = *static_cast<reception *>(from->data);
        if (std::exchange(self.in_value, false)) {
            self.field.clear();
        }
        self.field.append(bytes, size);
        return 0;
    }

    static int take_value(http_parser *from, const char *bytes, size_t size)
    {
        auto &self = *static_cast<reception *>(from->data);
        self.in_value = true;
        if (strcasecmp(self.field.c_str(), completeness_header) == 0) {
            self.to.completeness.append(bytes, size);
        }
        return 0;
    }

    static int take_body(http_parser *from, const char *bytes, size_t size)
    {
        auto &self = *static_cast<reception *>(from->data);
        self.to.body.append(bytes, size);
        return self.to.body.size() <= max_body ? 0 : 1;
    }

    // Stops the parser, so that `feed` can see the bytes that follow the answer.
    static int take_end(http_parser *from)
    {
        static_cast<reception *>(from->data)->is_complete = true;
        http_parser_pause(from, 1);
        return 0;
    }

    // Returns false if the bytes are not HTTP or the body is too large. A size of 0 means the end of the connection.
    bool feed(const char *bytes, size_t size)
    {
        static const http_parser_settings callbacks = [] {
            http_parser_settings made;
            http_parser_settings_init(&made);
            made.on_header_field = take_field;
            made.on_header_value = take_value;
            made.on_body = take_body;
            made.on_message_complete = take_end;
            return made;
        }();
        has_bytes = has_bytes || size > 0;
        has_more = http_parser_execute(&parser, &callbacks, bytes, size) < size;
        return is_complete || HTTP_PARSER_ERRNO(&parser) == HPE_OK;
    }
};

connection::connection(std::string socket_path, std::chrono::seconds timeout)
    : path_(std::move(socket_path))
    , timeout_(timeout)
    , cancelled_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
    , buffer_(buffer_bytes)
{}

connection::~connection()
{
    close();
    ::close(cancelled_);
}

void connection::cancel()
{
    eventfd_write(cancelled_, 1);
}

void connection::close()
{
    if (socket_ >= 0) {
        ::close(std::exchange(socket_, -1));
    }
    eventfd_t count = 0;
    eventfd_read(cancelled_, &count);
}

void connection::fail(const base::result &reason) const
{
    throw failure(exit_status::unreachable, "no answer from l2fibd at " + base::visible(path_) + ": " + reason.text);
}

base::result connection::silence() const
{
    return base::failure(ETIMEDOUT, "nothing arrived for " + std::to_string(timeout_.count())
                                        + " seconds; --timeout sets a longer wait");
}

// Returns false after `max_wait`. A socket of -1 makes this a plain wait that `cancel` can end.
bool connection::wait(int socket, short events, std::chrono::milliseconds max_wait)
{
    pollfd waits[] = {{cancelled_, POLLIN, 0}, {socket, events, 0}};
    poll(waits, std::size(waits), static_cast<int>(max_wait.count()));
    if (waits[0].revents != 0) {
        throw failure(exit_status::cut, "the request was cancelled");
    }
    return waits[1].revents != 0;
}

// Returns false if nothing arrived for the whole time-out.
bool connection::wait_or_silent(short events)
{
    while (!wait(socket_, events, idle_period)) {
        if (*while_waiting_) {
            (*while_waiting_)();
        }
        if (clock::now() - last_arrival_ > timeout_) {
            return false;
        }
    }
    return true;
}

namespace {

const char *advice_for(int connect_error)
{
    return connect_error == EACCES ? "; expected the right to write to the socket, as the members of its group have"
                                   : "; expected a running l2fibd (--socket names another socket)";
}

} // namespace

void connection::open()
{
    sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
    path_.copy(address.sun_path, sizeof(address.sun_path) - 1);
    socket_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    last_arrival_ = clock::now();
    while (connect(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
        // EAGAIN: the backlog of the daemon's socket is full.
        if (errno != EAGAIN && errno != EINTR) {
            const int error = errno;
            close();
            fail(base::failure(ENOTCONN, error_string(error) + advice_for(error)));
        }
        if (clock::now() - last_arrival_ > timeout_) {
            close();
            fail(silence());
        }
        wait(-1, 0, backlog_period);
    }
}

// Returns also if the daemon closed the connection, because `receive` reads what the daemon sent before that.
void connection::send_text(std::string_view text)
{
    while (!text.empty()) {
        const ssize_t sent = send(socket_, text.data(), text.size(), MSG_NOSIGNAL);
        if (sent >= 0) {
            text.remove_prefix(static_cast<size_t>(sent));
        } else if (errno == EAGAIN) {
            if (!wait_or_silent(POLLOUT)) {
                fail(silence());
            }
        } else if (errno != EINTR) {
            return;
        }
    }
}

// Waits for bytes and feeds them. A failure means that no more bytes of the answer can come.
base::result connection::receive_piece(reception &arriving)
{
    if (!wait_or_silent(POLLIN)) {
        return silence();
    }
    const ssize_t got = recv(socket_, buffer_.data(), buffer_.size(), 0);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
        return base::success();
    }
    last_arrival_ = clock::now();
    const bool is_http = arriving.feed(buffer_.data(), got > 0 ? static_cast<size_t>(got) : 0);
    if (got > 0) {
        return is_http ? base::success() : rejected_by(arriving.parser);
    }
    return arriving.is_complete ? base::success() : closed_early();
}

// Passes the body that has arrived to `take` and returns what that returns. The body of an error stays.
bool connection::pass_on(reception &arriving, const piece_task &take)
{
    std::string &body = arriving.to.body;
    if (arriving.parser.status_code != HTTP_STATUS_OK || body.empty()) {
        return true;
    }
    const bool goes_on = take(body);
    body.clear();
    return goes_on;
}

// Returns false if the daemon closed the connection before the first byte of an answer. Throws a failure for every
// other error before the status arrived. After that, an error becomes the answer's `received`.
bool connection::receive(reception &arriving, const piece_task &take)
{
    base::result received;
    bool goes_on = true;
    while (goes_on && !arriving.is_complete && received.ok()) {
        received = receive_piece(arriving);
        goes_on = !take || pass_on(arriving, take);
    }
    const bool is_unanswered = received.code == ECONNRESET && !arriving.has_bytes;
    arriving.to.status = arriving.parser.status_code;
    if (!received.ok() && !is_unanswered && arriving.to.status == 0) {
        fail(received);
    }
    arriving.to.received = received;
    return !is_unanswered;
}

// Sends one request and receives its answer. Returns false as `receive` does.
bool connection::exchange(const std::string &text, answer &to, const piece_task &take)
{
    to.status = 0;
    to.body.clear();
    to.completeness.clear();
    to.received = base::success();
    reception arriving(to);
    last_arrival_ = clock::now();
    send_text(text);
    const bool has_answer = receive(arriving, take);
    if (!has_answer || !to.received.ok() || arriving.has_more || http_should_keep_alive(&arriving.parser) == 0) {
        close();
    }
    return has_answer;
}

void connection::perform(const request &asked, answer &to, const idle_task &while_waiting)
{
    while_waiting_ = &while_waiting;
    const std::string text = request_text(asked);
    if (socket_ >= 0 && exchange(text, to, {})) {
        return;
    }
    open();
    if (!exchange(text, to, {})) {
        fail(closed_early());
    }
}

void connection::follow(const request &asked, answer &to, const idle_task &while_waiting, const piece_task &take)
{
    while_waiting_ = &while_waiting;
    close();
    open();
    const bool has_answer = exchange(request_text(asked), to, take);
    close();
    if (!has_answer) {
        fail(closed_early());
    }
}

} // namespace l2fibctl
