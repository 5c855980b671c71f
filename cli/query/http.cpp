// SPDX-License-Identifier: Apache-2.0

#include "cli/query/http.h"

#include <cerrno>
#include <cstring>
#include <http_parser.h>
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
constexpr size_t longest_body = size_t(256) * 1024 * 1024; // ten times a page of the longest names
constexpr auto idle_period = std::chrono::milliseconds(100);
constexpr auto backlog_period = std::chrono::milliseconds(50); // between two tries to connect
constexpr char completeness_header[] = "L2fib-Completeness";
constexpr char ended_early[] = "the daemon ended the connection";

std::string request_text(const request &what)
{
    std::string text = (what.is_operation ? "POST " : "GET ") + what.path + " HTTP/1.1\r\nHost: l2fibd\r\n";
    if (what.is_operation) {
        text +=
            "Content-Type: application/yang-data+json\r\nContent-Length: " + std::to_string(what.body.size()) + "\r\n";
    }
    return text + "\r\n" + what.body;
}

std::string error_string(int error)
{
    return std::strerror(error); // NOLINT(concurrency-mt-unsafe): glibc's is safe for errors that it knows
}

} // namespace

// What arrives of one answer.
struct connection::reception {
    answer &to;
    http_parser parser = {};
    std::string field = {};
    bool in_value = false;
    bool is_complete = false;
    bool has_bytes = false;
    bool has_more = false; // bytes behind the answer, which nobody asked for

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
        return self.to.body.size() <= longest_body ? 0 : 1;
    }

    // Stops the parser, so that bytes behind the answer are noticed.
    static int take_end(http_parser *from)
    {
        static_cast<reception *>(from->data)->is_complete = true;
        http_parser_pause(from, 1);
        return 0;
    }

    // False when the bytes are no HTTP. No bytes mean the end of the connection.
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

void connection::fail(const std::string &why) const
{
    throw failure{ending::unreachable, "no answer from l2fibd at " + base::visible(path_) + ": " + why};
}

std::string connection::silence() const
{
    return "nothing arrived for " + std::to_string(timeout_.count()) + " seconds";
}

// False when `at_most` has passed. Without a socket this only waits.
bool connection::wait(int socket, short events, std::chrono::milliseconds at_most)
{
    pollfd waits[] = {{cancelled_, POLLIN, 0}, {socket, events, 0}};
    poll(waits, 2, static_cast<int>(at_most.count()));
    if (waits[0].revents != 0) {
        throw failure{ending::cut, "the request was cancelled"};
    }
    return waits[1].revents != 0;
}

// False when nothing arrived for the whole time-out.
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

void connection::open()
{
    sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
    path_.copy(address.sun_path, sizeof(address.sun_path) - 1);
    socket_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    last_arrival_ = clock::now();
    while (connect(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
        // EAGAIN: the daemon has not accepted the connections before this one.
        if (errno != EAGAIN && errno != EINTR) {
            const std::string why = error_string(errno);
            close();
            fail(why);
        }
        if (clock::now() - last_arrival_ > timeout_) {
            close();
            fail(silence());
        }
        wait(-1, 0, backlog_period);
    }
}

// If the daemon hung up, `receive` finds what it sent before.
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

// Returns false when the connection ended before the first byte of an answer. An answer whose status has arrived, but
// not its end, gets the reason in `cut`.
bool connection::receive(reception &of)
{
    std::string why;
    while (!of.is_complete && why.empty()) {
        if (!wait_or_silent(POLLIN)) {
            why = silence();
            break;
        }
        const ssize_t got = recv(socket_, buffer_.data(), buffer_.size(), 0);
        if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
            continue;
        }
        last_arrival_ = clock::now();
        if (!of.feed(buffer_.data(), got > 0 ? static_cast<size_t>(got) : 0)) {
            why = got > 0 ? "what arrived is no HTTP" : ended_early;
        } else if (got <= 0 && !of.is_complete) {
            why = ended_early;
        }
    }
    of.to.status = of.parser.status_code;
    if (!why.empty() && of.to.status == 0 && (of.has_bytes || why != ended_early)) {
        fail(why);
    }
    of.to.cut = why;
    return why.empty() || of.has_bytes;
}

bool connection::exchange(const std::string &text, answer &to)
{
    to.status = 0;
    to.body.clear();
    to.completeness.clear();
    to.cut.clear();
    reception now(to);
    last_arrival_ = clock::now();
    send_text(text);
    const bool has_answer = receive(now);
    if (!has_answer || !to.cut.empty() || now.has_more || http_should_keep_alive(&now.parser) == 0) {
        close();
    }
    return has_answer;
}

void connection::perform(const request &what, answer &to, const idle_task &while_waiting)
{
    while_waiting_ = &while_waiting;
    const std::string text = request_text(what);
    if (socket_ >= 0 && exchange(text, to)) {
        return;
    }
    open();
    if (!exchange(text, to)) {
        fail(ended_early);
    }
}

} // namespace l2fibctl
