// SPDX-License-Identifier: Apache-2.0

// Requests to the daemon over its Unix socket.
//
//      connection daemon("/run/l2fibd.sock", std::chrono::seconds(60));
//      answer received;
//      daemon.perform({"/restconf/data/l2fib-mac:health"}, received, {});
//
// The connection stays open between requests. The daemon closes a connection that is idle for some seconds. So if a
// request on an open connection ends without one byte of an answer, it is sent again on a new connection.
//
// Threads: one thread at a time performs a request or closes. Any thread may call `cancel`.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"

namespace l2fibctl {

struct request {
    std::string path; // of the URI, encoded, with its query
    bool is_operation = false;
    std::string body = {};        // of an operation
    std::string after_event = {}; // of a stream of events: continue behind the event with this id
};

struct answer {
    unsigned status = 0;
    std::string body = {};
    std::string completeness = {}; // the header's word; empty if the answer has no such header
    base::result received = {};    // a failure has the reason why the body is not complete
};

class connection {
public:
    // Runs several times a second while a request waits.
    using idle_task = std::function<void()>;

    // Requests fail if nothing arrives for `timeout`.
    connection(std::string socket_path, std::chrono::seconds timeout);
    ~connection();
    connection(const connection &) = delete;
    connection &operator=(const connection &) = delete;

    // Replaces `to` by the answer and uses its memory again. Throws a failure if no status line arrives.
    void perform(const request &asked, answer &to, const idle_task &while_waiting);

    // Takes a piece of a body. Returns false to end the request.
    using piece_task = std::function<bool(std::string_view piece)>;

    // Performs a request whose answer may have no end, on a connection of its own. Passes the body of an answer with
    // status 200 to `take` as it arrives; the body of every other answer goes to `to`. The connection is closed then.
    // Throws a failure if no status line arrives.
    void follow(const request &asked, answer &to, const idle_task &while_waiting, const piece_task &take);

    // Makes a `perform` in another thread throw within `idle_period` of http.cpp.
    void cancel();

    // Closes the connection and takes back a `cancel`. The next request opens a new connection.
    void close();

private:
    struct reception;

    void open();
    bool exchange(const std::string &text, answer &to, const piece_task &take);
    void send_text(std::string_view text);
    bool receive(reception &arriving, const piece_task &take);
    base::result receive_piece(reception &arriving);
    static bool pass_on(reception &arriving, const piece_task &take);
    bool wait(int socket, short events, std::chrono::milliseconds max_wait);
    bool wait_or_silent(short events);
    [[noreturn]] void fail(const base::result &reason) const;
    base::result silence() const;

    std::string path_;
    std::chrono::seconds timeout_;
    int socket_ = -1;
    int cancelled_; // an eventfd that `cancel` raises
    std::chrono::steady_clock::time_point last_arrival_ = {};
    const idle_task *while_waiting_ = nullptr;
    std::vector<char> buffer_;
};

} // namespace l2fibctl
