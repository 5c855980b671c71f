// SPDX-License-Identifier: Apache-2.0

#include "daemon/http/http_server.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <thread>
#include <utility>

#include <microhttpd.h>
#include <sys/socket.h>

#include "daemon/api/api_error.h"
#include "daemon/api/database.h"
#include "daemon/api/health.h"
#include "daemon/api/resources.h"
#include "daemon/http/admission.h"
#include "daemon/http/descriptors.h"
#include "daemon/http/request_deadlines.h"
#include "daemon/log.h"

namespace l2fibd {

namespace {

constexpr size_t piece_bytes = size_t{32} * 1024; // of an answer, at once

struct server {
    MHD_Daemon *daemon = nullptr;
    request_deadlines deadlines;
    fair_places connections{"connections open"};
    refused_connections refused{most_refused_connections};
    fair_places requests{"requests under way"};
    std::atomic<uint32_t> open_connections{0};
    std::atomic<uint32_t> active_requests{0};
};

server the_server;

// One request, from its first line to the end of its answer.
struct exchange {
    const uid_t user;
    std::string uri;
    std::string body;
    size_t received = 0; // of the body, what was too much for it included
    bool has_begun = false;
    bool is_active = false;
    place taken = place::none;

    exchange(uid_t sender, const char *of)
        : user(sender)
        , uri(of)
    {}
    ~exchange()
    {
        the_server.requests.give_back(user, taken);
        the_server.active_requests -= is_active ? 1 : 0;
    }
    exchange(const exchange &) = delete;
    exchange &operator=(const exchange &) = delete;
};

// A connection. The exchange is kept here because the library does not report the end of each that begins: one whose
// first line is too long ends with the connection.
struct client {
    const int socket;
    const uid_t user;
    place taken = place::none;       // none: the connection is refused
    std::string refusal_reason = {}; // of a refused connection
    std::unique_ptr<exchange> current = nullptr;

    client(int connected, uid_t peer)
        : socket(connected)
        , user(peer)
    {
        the_server.open_connections++;
    }
    ~client()
    {
        the_server.connections.give_back(user, taken);
        the_server.open_connections--;
    }
    client(const client &) = delete;
    client &operator=(const client &) = delete;

    bool is_refused() const { return taken == place::none; }
    std::chrono::seconds time_to_send() const
    {
        return std::chrono::seconds(is_refused() ? refused_seconds : send_seconds);
    }
};

// Null when there was no memory for it.
client *client_of(MHD_Connection *connection)
{
    const MHD_ConnectionInfo *info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    return info != nullptr ? static_cast<client *>(info->socket_context) : nullptr;
}

// ---- Bodies that are sent as they are made ----

struct streamed_body {
    std::string piece;
    size_t taken = 0;
    std::unique_ptr<list_stream> rest;
};

// Makes the next piece unless there is one. False at the end.
bool refill(streamed_body &body)
{
    while (body.taken == body.piece.size()) {
        if (body.rest->finished()) {
            return false;
        }
        body.piece.clear();
        body.taken = 0;
        body.rest->write_next(body.piece);
    }
    return true;
}

// What has begun as a success cannot become an error: the connection ends before the closing bracket.
ssize_t cut(const std::string &reason)
{
    log(log_level::warning, "answer cut: " + reason);
    return MHD_CONTENT_READER_END_WITH_ERROR;
}

ssize_t read_piece(void *context, uint64_t /*position*/, char *to, size_t room) noexcept
{
    auto &body = *static_cast<streamed_body *>(context);
    try {
        if (!refill(body)) {
            const std::string &failure = body.rest->failure();
            return failure.empty() ? MHD_CONTENT_READER_END_OF_STREAM : cut(failure);
        }
    } catch (const api_error &error) {
        return cut(error.message);
    } catch (const std::exception &error) {
        return cut(error.what());
    }
    const size_t count = body.piece.copy(to, room, body.taken);
    body.taken += count;
    return static_cast<ssize_t>(count);
}

void free_body(void *context) noexcept
{
    delete static_cast<streamed_body *>(context);
}

// ---- Answers ----

struct response_deleter {
    void operator()(MHD_Response *response) const { MHD_destroy_response(response); }
};

using response_ptr = std::unique_ptr<MHD_Response, response_deleter>;

response_ptr response_of(answer &&from)
{
    if (from.rest == nullptr) {
        return response_ptr(MHD_create_response_from_buffer(from.body.size(), from.body.data(), MHD_RESPMEM_MUST_COPY));
    }
    auto body = std::make_unique<streamed_body>();
    body->piece = std::move(from.body);
    body->rest = std::move(from.rest);
    response_ptr response(
        MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, piece_bytes, read_piece, body.get(), free_body));
    if (response != nullptr) {
        static_cast<void>(body.release()); // NOLINT(bugprone-unused-return-value): the response's
    }
    return response;
}

MHD_Result send(MHD_Connection *connection, answer &&from, const std::string &allow)
{
    const unsigned status = from.status;
    const char *const worth = forwarding::text_of(from.worth);
    const bool has_body = status != MHD_HTTP_NO_CONTENT;
    const response_ptr response = response_of(std::move(from));
    if (response == nullptr) {
        return MHD_NO;
    }
    if (has_body) {
        MHD_add_response_header(response.get(), MHD_HTTP_HEADER_CONTENT_TYPE, "application/yang-data+json");
    }
    MHD_add_response_header(response.get(), MHD_HTTP_HEADER_CACHE_CONTROL, "no-cache");
    MHD_add_response_header(response.get(), "L2fib-Completeness", worth);
    if (const client *to = client_of(connection); to != nullptr && to->is_refused()) {
        MHD_add_response_header(response.get(), MHD_HTTP_HEADER_CONNECTION, "close");
    }
    if (!allow.empty()) {
        MHD_add_response_header(response.get(), MHD_HTTP_HEADER_ALLOW, allow.c_str());
    }
    return MHD_queue_response(connection, status, response.get());
}

MHD_Result send_error(MHD_Connection *connection, const api_error &error)
{
    return send(connection, {error.status, error_body(error), nullptr, forwarding::completeness_watch().worst()},
                error.allow);
}

// Health is answered whenever there is a thread for it: it is short, and says why other requests are refused.
bool asks_for_health(const char *method, const exchange &of)
{
    const std::string_view reads[] = {"GET", "HEAD"};
    return of.uri == "/restconf/data/l2fib-mac:health" && std::ranges::find(reads, method) != std::end(reads);
}

// Takes one of the places for requests, until the exchange ends.
void admit_request(const client &from, const char *method, exchange &of)
{
    of.is_active = true;
    the_server.active_requests++;
    if (asks_for_health(method, of)) {
        return;
    }
    std::string reason = from.refusal_reason;
    if (!from.is_refused()) {
        of.taken = the_server.requests.take(of.user, reason);
    }
    if (of.taken == place::none) {
        throw api_error{503, "resource-denied", reason};
    }
}

MHD_Result serve(MHD_Connection *connection, const char *method, exchange &of)
{
    try {
        admit_request(*client_of(connection), method, of);
        return send(connection, answer_request({method, of.uri, of.body}), {});
    } catch (const api_error &error) {
        log(log_level::debug, std::string(method) + " " + of.uri + ": " + error.message);
        return send_error(connection, error);
    } catch (const std::exception &error) {
        log(log_level::error, std::string(method) + " " + of.uri + ": " + error.what());
        return send_error(connection, {500, "operation-failed", error.what()});
    }
}

// ---- Connections ----

// A user that the kernel does not name shares the places of one that nobody is.
uid_t user_of(int socket)
{
    ucred peer{};
    socklen_t size = sizeof(peer);
    return getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 ? peer.uid : static_cast<uid_t>(-1);
}

void refuse_connection(const client &of)
{
    log(log_level::warning, "connection refused: " + of.refusal_reason);
    if (const auto oldest = the_server.refused.add(of.socket, of.user)) {
        shutdown(*oldest, SHUT_RDWR);
    }
}

// Returns null if there is no memory; the connection's first request then ends it.
client *open_connection(int socket)
try {
    auto opened = std::make_unique<client>(socket, user_of(socket));
    opened->taken = the_server.connections.take(opened->user, opened->refusal_reason);
    the_server.deadlines.expect_request(socket, opened->time_to_send());
    if (opened->is_refused()) {
        refuse_connection(*opened);
    }
    return opened.release();
} catch (const std::bad_alloc &) {
    return nullptr;
}

// Called before a connection's first request, and before its socket is closed; always by the server's own thread.
void change_connection(void * /*context*/, MHD_Connection *connection, void **of,
                       MHD_ConnectionNotificationCode change) noexcept
{
    const int socket = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
    if (change == MHD_CONNECTION_NOTIFY_STARTED) {
        *of = open_connection(socket);
    } else {
        the_server.deadlines.forget(socket);
        the_server.refused.remove(socket);
        delete static_cast<client *>(*of);
        *of = nullptr;
    }
}

// ---- Requests as they arrive ----

void *begin_exchange(void * /*context*/, const char *uri, MHD_Connection *connection) noexcept
{
    client *const from = client_of(connection);
    try {
        if (from != nullptr) {
            from->current = std::make_unique<exchange>(from->user, uri);
        }
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
    return from != nullptr ? from->current.get() : nullptr;
}

void end_exchange(void * /*context*/, MHD_Connection *connection, void **of,
                  MHD_RequestTerminationCode /*reason*/) noexcept
{
    client *const from = client_of(connection);
    if (from != nullptr) {
        from->current.reset();
        the_server.deadlines.expect_request(from->socket, from->time_to_send());
    }
    *of = nullptr;
}

bool announces_too_much(MHD_Connection *connection)
{
    const char *text = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
    return text != nullptr && std::strtoull(text, nullptr, 10) > most_body_bytes;
}

const api_error too_big{413, "too-big", "body: expected at most " + std::to_string(most_body_bytes) + " bytes"};

// Takes a piece of a body that did not announce its size. What is too much is read and dropped, so that the client gets
// its answer; false when it does not end.
bool take_body(exchange &of, std::string_view piece)
{
    of.received += piece.size();
    if (of.received <= most_body_bytes) {
        of.body += piece;
    }
    return of.received <= 64 * most_body_bytes;
}

// Called with the header, then with each piece of the body, and with nothing more at the end.
MHD_Result take_request(void * /*context*/, MHD_Connection *connection, const char * /*url*/, const char *method,
                        const char * /*version*/, const char *data, size_t *size, void **of) noexcept
{
    auto *the_exchange = static_cast<exchange *>(*of);
    if (the_exchange == nullptr) {
        return MHD_NO;
    }
    if (!std::exchange(the_exchange->has_begun, true)) {
        return announces_too_much(connection) ? send_error(connection, too_big) : MHD_YES;
    }
    if (*size != 0) {
        const bool is_taken = take_body(*the_exchange, {data, *size});
        *size = 0;
        return is_taken ? MHD_YES : MHD_NO;
    }
    if (the_exchange->received > most_body_bytes) {
        return send_error(connection, too_big);
    }
    // The client has done its part; what follows may take as long as a resynchronisation.
    const int socket = client_of(connection)->socket;
    the_server.deadlines.forget(socket);
    the_server.refused.remove(socket);
    return serve(connection, method, *the_exchange);
}

// Keys are told apart before they are decoded (target.h).
size_t keep_encoded(void * /*context*/, MHD_Connection * /*connection*/, char *text) noexcept
{
    return std::strlen(text);
}

[[gnu::format(printf, 2, 0)]] void log_library(void * /*context*/, const char *format, va_list values) noexcept
{
    char line[256];
    std::vsnprintf(line, sizeof(line), format, values);
    line[std::strcspn(line, "\n")] = '\0';
    log(log_level::debug, line);
}

server_health own_health()
{
    return {.active_requests = the_server.active_requests.load(),
            .refused_requests = the_server.requests.refused(),
            .open_connections = the_server.open_connections.load(),
            .refused_connections = the_server.connections.refused(),
            .dropped_log_lines = log_lines_dropped()};
}

// Divides what the limit of open files leaves. Returns the most connections at once, refused ones included.
uint32_t set_places()
{
    const uint32_t places = free_descriptors(http_own_descriptors + most_connections) - http_own_descriptors;
    the_server.connections.set_size(places - places / reserved_part, places / reserved_part);
    the_server.requests.set_size(most_requests - most_requests / reserved_part, most_requests / reserved_part);
    return places + most_refused_connections + closing_connections;
}

} // namespace

std::string http_start(int listener, uint32_t resync_wait_seconds)
{
    if (std::string error = check_descriptors(http_least_descriptors); !error.empty()) {
        return error;
    }
    set_server_health(own_health);
    constexpr unsigned flags = MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_THREAD_PER_CONNECTION | MHD_USE_POLL
                               | MHD_USE_ITC | MHD_USE_ERROR_LOG;
    const MHD_OptionItem options[] = {
        {MHD_OPTION_EXTERNAL_LOGGER, reinterpret_cast<intptr_t>(log_library), nullptr},
        {MHD_OPTION_LISTEN_SOCKET, listener, nullptr},
        {MHD_OPTION_URI_LOG_CALLBACK, reinterpret_cast<intptr_t>(begin_exchange), nullptr},
        {MHD_OPTION_NOTIFY_COMPLETED, reinterpret_cast<intptr_t>(end_exchange), nullptr},
        {MHD_OPTION_NOTIFY_CONNECTION, reinterpret_cast<intptr_t>(change_connection), nullptr},
        {MHD_OPTION_UNESCAPE_CALLBACK, reinterpret_cast<intptr_t>(keep_encoded), nullptr},
        {MHD_OPTION_CONNECTION_LIMIT, set_places(), nullptr},
        {MHD_OPTION_CONNECTION_MEMORY_LIMIT, most_header_bytes, nullptr},
        {MHD_OPTION_CONNECTION_TIMEOUT, 2 * resync_wait_seconds + take_seconds, nullptr},
        {MHD_OPTION_END, 0, nullptr},
    };
    the_server.deadlines.start();
    the_server.daemon =
        MHD_start_daemon(flags, 0, nullptr, nullptr, take_request, nullptr, MHD_OPTION_ARRAY, options, MHD_OPTION_END);
    return the_server.daemon != nullptr ? "" : "the HTTP server could not be started";
}

namespace {

// Lists that are given up write their reason as their last piece.
void wait_for_last_pieces()
{
    constexpr auto most = std::chrono::seconds(1);
    constexpr auto look_again = std::chrono::milliseconds(10);
    const auto end = std::chrono::steady_clock::now() + most;
    while (the_server.active_requests != 0 && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(look_again);
    }
}

} // namespace

void http_stop()
{
    give_up_requests();
    wait_for_last_pieces();
    if (the_server.daemon != nullptr) {
        MHD_stop_daemon(the_server.daemon);
        the_server.daemon = nullptr;
    }
    the_server.deadlines.stop();
}

} // namespace l2fibd
