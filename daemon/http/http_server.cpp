// SPDX-License-Identifier: Apache-2.0

#include "daemon/http/http_server.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <new>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include <microhttpd.h>
#include <poll.h>
#include <sys/socket.h>

#include "base/text.h"
#include "daemon/api/resources.h"
#include "daemon/http/admission.h"
#include "daemon/http/descriptors.h"
#include "daemon/http/request_deadlines.h"
#include "daemon/http/response.h"
#include "daemon/log.h"
#include "forwarding/feeder/answers/history.h"

namespace l2fibd {

struct server_state {
    MHD_Daemon *daemon = nullptr;
    request_deadlines deadlines;
    fair_places connections{"connections open"};
    refused_connections refused{max_refused_connections};
    fair_places requests{"requests under way"};
    fair_places watchers{"event streams open"};
    std::atomic<uint32_t> open_connections{0};
    std::atomic<uint32_t> active_requests{0};
    resync_requester resyncs;
    kept_selections selections;
    request_durations durations;
    const int64_t start_time = std::time(nullptr);
    const api_context context{resyncs, selections, [this] { return health(); }, durations};

    server_health health() const
    {
        return {.active_requests = active_requests.load(),
                .refused_requests = requests.refused(),
                .open_connections = open_connections.load(),
                .refused_connections = connections.refused(),
                .watchers = watchers.taken(),
                .refused_watchers = watchers.refused(),
                .dropped_log_lines = log_lines_dropped(),
                .start_time = start_time};
    }
};

namespace {

// A body beyond max_body_bytes is read and dropped up to here, so that the client gets its answer.
constexpr size_t max_dropped_bytes = 64 * max_body_bytes;

constexpr const char *json_type = "application/yang-data+json";
constexpr const char *stream_type = "text/event-stream";
constexpr const char *completeness_header = "L2fib-Completeness";
constexpr const char *last_event_id_header = "Last-Event-ID";

// ---- Requests and connections ----

// One request, from its first line to the end of its answer.
struct exchange {
    server_state &server;
    const uid_t user;
    std::string uri;
    std::string body;
    size_t received = 0; // bytes of the body, with those that were dropped
    bool has_begun = false;
    bool is_active = false;
    place taken = place::none;
    place watching = place::none;
    size_t resource = no_resource;
    std::chrono::steady_clock::time_point arrived = {}; // the whole request

    exchange(server_state &of, uid_t sender, const char *requested)
        : server(of)
        , user(sender)
        , uri(requested)
    {}
    ~exchange()
    {
        server.requests.give_back(user, taken);
        server.watchers.give_back(user, watching);
        server.active_requests -= is_active ? 1 : 0;
        if (is_active) {
            server.durations[resource].add(std::chrono::steady_clock::now() - arrived);
        }
    }
    exchange(const exchange &) = delete;
    exchange &operator=(const exchange &) = delete;
};

// A connection. It keeps the exchange, because the library does not report the end of every exchange: one whose first
// line is too long ends with the connection.
struct client {
    server_state &server;
    const int socket;
    const uid_t user;
    const admission admitted; // without a place: the connection is refused
    bool is_counted = true;   // among the connections. An event stream is not
    std::unique_ptr<exchange> current = nullptr;

    client(server_state &of, int connected, uid_t peer)
        : server(of)
        , socket(connected)
        , user(peer)
        , admitted(of.connections.take(peer))
    {
        server.open_connections++;
    }
    ~client() { stop_counting(); }
    client(const client &) = delete;
    client &operator=(const client &) = delete;

    bool is_refused() const { return admitted.taken == place::none; }
    bool is_last_request() const { return is_refused() || !is_counted; }

    // Gives back the connection's place. The connection ends with the answer that is under way.
    void stop_counting()
    {
        if (std::exchange(is_counted, false)) {
            server.connections.give_back(user, admitted.taken);
            server.open_connections--;
        }
    }
    std::chrono::seconds time_to_send() const { return is_refused() ? max_refused_time : max_send_time; }
};

// Null if there was no memory for the client.
client *client_of(MHD_Connection *connection)
{
    const MHD_ConnectionInfo *info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    return info != nullptr ? static_cast<client *>(info->socket_context) : nullptr;
}

// ---- Answers ----

MHD_Result send(MHD_Connection *connection, answer &&from, const std::string &allow)
{
    const http_status status = from.status;
    const char *const fallback_type = from.is_stream ? stream_type : json_type;
    const char *const content_type = from.content_type != nullptr ? from.content_type : fallback_type;
    const char *const worth = forwarding::text_of(from.worth);
    const response_ptr response = make_response(std::move(from));
    if (response == nullptr) {
        return MHD_NO;
    }
    if (status != http_status::no_content) {
        MHD_add_response_header(response.get(), MHD_HTTP_HEADER_CONTENT_TYPE, content_type);
    }
    MHD_add_response_header(response.get(), MHD_HTTP_HEADER_CACHE_CONTROL, "no-cache");
    MHD_add_response_header(response.get(), completeness_header, worth);
    if (const client *to = client_of(connection); to != nullptr && to->is_last_request()) {
        MHD_add_response_header(response.get(), MHD_HTTP_HEADER_CONNECTION, "close");
    }
    if (!allow.empty()) {
        MHD_add_response_header(response.get(), MHD_HTTP_HEADER_ALLOW, allow.c_str());
    }
    return MHD_queue_response(connection, static_cast<unsigned>(status), response.get());
}

MHD_Result send_error(MHD_Connection *connection, const api_error &error)
{
    return send(connection, {error.status, error_body(error), nullptr, forwarding::completeness_watch().worst()},
                error.allow);
}

void take_place(const client &from, fair_places &places, place &taken)
{
    const admission admitted = from.is_refused() ? from.admitted : places.take(from.user);
    taken = admitted.taken;
    if (taken == place::none) {
        throw api_error{http_status::unavailable, error_tag::resource_denied, admitted.refusal};
    }
}

// Takes one of the places for requests, or for event streams, until the exchange ends. Health and metrics need no
// place: they are short, and they show why other requests are refused.
void admit_request(const client &from, const char *method, exchange &of)
{
    if (is_stream_request(of.uri)) {
        take_place(from, of.server.watchers, of.watching);
        return;
    }
    of.is_active = true;
    of.arrived = std::chrono::steady_clock::now();
    of.server.active_requests++;
    if (!is_read_method(method) || (of.uri != health_path && of.uri != metrics_path)) {
        take_place(from, of.server.requests, of.taken);
    }
}

// Whether the client closed its connection. A client that only stopped sending still reads.
bool has_hung_up(int socket)
{
    pollfd client = {socket, 0, 0};
    return poll(&client, 1, 0) == 1;
}

answer answer_exchange(MHD_Connection *connection, const char *method, exchange &of)
{
    const auto header = [&](const char *name) {
        return MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
    };
    const int socket = client_of(connection)->socket;
    return answer_request({.method = method,
                           .uri = of.uri,
                           .body = of.body,
                           .last_event_id = header(last_event_id_header),
                           .accept = header(MHD_HTTP_HEADER_ACCEPT),
                           .has_client_left = [socket] { return has_hung_up(socket); },
                           .resource = &of.resource},
                          of.server.context);
}

MHD_Result serve(MHD_Connection *connection, const char *method, exchange &of)
{
    const auto log_failure = [&](log_level level, const char *text) {
        log(level, std::string(method) + " " + of.uri + ": " + text);
    };
    try {
        client &from = *client_of(connection);
        admit_request(from, method, of);
        answer found = answer_exchange(connection, method, of);
        if (found.is_stream) {
            from.stop_counting();
        }
        return send(connection, std::move(found), {});
    } catch (const api_error &error) {
        log_failure(log_level::debug, error.what());
        return send_error(connection, error);
    } catch (const std::exception &error) {
        log_failure(log_level::error, error.what());
        return send_error(connection, {http_status::internal_error, error_tag::operation_failed, error.what()});
    }
}

// ---- Connections begin and end ----

// If the kernel does not name the peer, its connections share the places of one user id that no user has.
uid_t user_of(int socket)
{
    ucred peer{};
    socklen_t size = sizeof(peer);
    return getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 ? peer.uid : static_cast<uid_t>(-1);
}

void refuse_connection(const client &of)
{
    log(log_level::warning, "connection refused: " + of.admitted.refusal);
    if (const auto oldest = of.server.refused.add(of.socket, of.user)) {
        shutdown(*oldest, SHUT_RDWR);
    }
}

// Null if there is no memory. The connection's first request then ends it.
client *open_connection(server_state &server, int socket)
try {
    auto opened = std::make_unique<client>(server, socket, user_of(socket));
    server.deadlines.expect_request(socket, opened->time_to_send());
    if (opened->is_refused()) {
        refuse_connection(*opened);
    }
    return opened.release();
} catch (const std::bad_alloc &) {
    return nullptr;
}

// The library calls this before a connection's first request and before it closes the socket, always on its own thread.
void change_connection(void *context, MHD_Connection *connection, void **of,
                       MHD_ConnectionNotificationCode change) noexcept
{
    auto &server = *static_cast<server_state *>(context);
    const int socket = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
    if (change == MHD_CONNECTION_NOTIFY_STARTED) {
        *of = open_connection(server, socket);
    } else {
        server.deadlines.forget(socket);
        server.refused.remove(socket);
        delete static_cast<client *>(*of);
        *of = nullptr;
    }
}

// ---- Requests arrive ----

void *begin_exchange(void *context, const char *uri, MHD_Connection *connection) noexcept
{
    client *const from = client_of(connection);
    try {
        if (from != nullptr) {
            from->current = std::make_unique<exchange>(*static_cast<server_state *>(context), from->user, uri);
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
        from->server.deadlines.expect_request(from->socket, from->time_to_send());
    }
    *of = nullptr;
}

bool announces_too_much(MHD_Connection *connection)
{
    const char *text = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
    return text != nullptr && std::strtoull(text, nullptr, base::decimal) > max_body_bytes;
}

MHD_Result refuse_body(MHD_Connection *connection)
{
    return send_error(connection, {http_status::content_too_large, error_tag::too_big,
                                   "body: expected at most " + std::to_string(max_body_bytes) + " bytes"});
}

// Takes a piece of a body that did not announce its size. False if the body exceeds max_dropped_bytes.
bool take_body(exchange &of, std::string_view piece)
{
    of.received += piece.size();
    if (of.received <= max_body_bytes) {
        of.body += piece;
    }
    return of.received <= max_dropped_bytes;
}

// The library calls this after the header, then with each piece of the body, and at the end without one.
MHD_Result take_request(void *context, MHD_Connection *connection, const char * /*url*/, const char *method,
                        const char * /*version*/, const char *data, size_t *size, void **of) noexcept
{
    auto *the_exchange = static_cast<exchange *>(*of);
    if (the_exchange == nullptr) {
        return MHD_NO;
    }
    if (!std::exchange(the_exchange->has_begun, true)) {
        return announces_too_much(connection) ? refuse_body(connection) : MHD_YES;
    }
    if (*size != 0) {
        const bool is_taken = take_body(*the_exchange, {data, *size});
        *size = 0;
        return is_taken ? MHD_YES : MHD_NO;
    }
    if (the_exchange->received > max_body_bytes) {
        return refuse_body(connection);
    }
    // The whole request has arrived. The answer may take as long as a resync.
    auto &server = *static_cast<server_state *>(context);
    const int socket = client_of(connection)->socket;
    server.deadlines.forget(socket);
    server.refused.remove(socket);
    return serve(connection, method, *the_exchange);
}

// Keeps the library from decoding the URI: target.h splits it before it decodes the parts.
size_t keep_encoded(void * /*context*/, MHD_Connection * /*connection*/, char *text) noexcept
{
    return std::strlen(text);
}

[[gnu::format(printf, 2, 0)]] void log_library(void * /*context*/, const char *format, va_list values) noexcept
{
    constexpr size_t max_line = 256;
    char line[max_line];
    std::vsnprintf(line, sizeof(line), format, values);
    line[std::strcspn(line, "\n")] = '\0';
    log(log_level::debug, line);
}

// ---- Start and end ----

void set_size(fair_places &places, uint32_t count)
{
    places.set_size(count - count / reserve_divisor, count / reserve_divisor);
}

// Divides the descriptors that the limit of open files leaves. Returns the library's limit of connections, which counts
// refused ones and those that are being closed.
uint32_t set_places(server_state &server)
{
    const uint32_t places = free_descriptors(own_descriptors + max_connections + max_watchers) - own_descriptors;
    const uint32_t connections = std::clamp(places - places / 2, min_places, max_connections);
    set_size(server.connections, connections);
    set_size(server.watchers, places - connections);
    set_size(server.requests, max_requests);
    return places + max_refused_connections + max_closing_connections;
}

MHD_Daemon *start_library(server_state &server, int listener, uint32_t resync_wait_seconds)
{
    constexpr unsigned flags = MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_THREAD_PER_CONNECTION | MHD_USE_POLL
                               | MHD_USE_ITC | MHD_USE_ERROR_LOG;
    const auto max_idle = 2 * resync_wait_seconds + static_cast<uint32_t>(max_take_time.count());
    const MHD_OptionItem options[] = {
        {MHD_OPTION_EXTERNAL_LOGGER, reinterpret_cast<intptr_t>(log_library), nullptr},
        {MHD_OPTION_LISTEN_SOCKET, listener, nullptr},
        {MHD_OPTION_URI_LOG_CALLBACK, reinterpret_cast<intptr_t>(begin_exchange), &server},
        {MHD_OPTION_NOTIFY_COMPLETED, reinterpret_cast<intptr_t>(end_exchange), nullptr},
        {MHD_OPTION_NOTIFY_CONNECTION, reinterpret_cast<intptr_t>(change_connection), &server},
        {MHD_OPTION_UNESCAPE_CALLBACK, reinterpret_cast<intptr_t>(keep_encoded), nullptr},
        {MHD_OPTION_CONNECTION_LIMIT, set_places(server), nullptr},
        {MHD_OPTION_CONNECTION_MEMORY_LIMIT, max_header_bytes, nullptr},
        {MHD_OPTION_CONNECTION_TIMEOUT, max_idle, nullptr},
        {MHD_OPTION_END, 0, nullptr},
    };
    return MHD_start_daemon(flags, 0, nullptr, nullptr, take_request, &server, MHD_OPTION_ARRAY, options,
                            MHD_OPTION_END);
}

// After give_up() each list writes the reason as its last page, and each event stream its end. Waits until these are
// sent, at most a second. A stream may have begun to wait for an event just before, so it is woken more than once.
void wait_for_last_pages(const server_state &server)
{
    constexpr auto max_wait = std::chrono::seconds(1);
    constexpr auto poll_interval = std::chrono::milliseconds(10);
    const auto end = std::chrono::steady_clock::now() + max_wait;
    while ((server.active_requests != 0 || server.watchers.taken() != 0) && std::chrono::steady_clock::now() < end) {
        forwarding::wake_event_readers();
        std::this_thread::sleep_for(poll_interval);
    }
}

} // namespace

http_server::http_server()
    : state_(std::make_unique<server_state>())
{}

http_server::~http_server()
{
    stop();
}

base::result http_server::start(int listener, uint32_t resync_wait_seconds)
{
    if (base::result checked = check_descriptors(min_http_descriptors); !checked.ok()) {
        return checked;
    }
    state_->deadlines.start();
    state_->daemon = start_library(*state_, listener, resync_wait_seconds);
    if (state_->daemon == nullptr) {
        return base::failure(EIO, "HTTP server: the HTTP library does not start on the socket; --log-level debug "
                                  "shows its reason");
    }
    return base::success();
}

void http_server::stop()
{
    state_->resyncs.give_up();
    wait_for_last_pages(*state_);
    if (state_->daemon != nullptr) {
        MHD_stop_daemon(state_->daemon);
        state_->daemon = nullptr;
    }
    state_->deadlines.stop();
}

} // namespace l2fibd
