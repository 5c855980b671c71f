// SPDX-License-Identifier: Apache-2.0

// Requests to the daemon over its Unix socket.
//
// The connection is kept between requests. The daemon closes connections that are idle for some seconds, so a request
// on a kept connection that ends without a byte of answer is sent once more, on a new one.
//
// Threads: one thread at a time performs a request. `cancel` is for any thread.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace l2fibctl {

struct request {
    std::string path; // of the URI, with its query, encoded
    bool is_operation = false;
    std::string body = {}; // of an operation
};

struct answer {
    unsigned status = 0;
    std::string body = {};
    std::string completeness = {}; // the header's word; empty when there is no such header
    std::string cut = {};          // why the body ended early; empty when all of it is here
};

class connection {
public:
    // Called several times a second while a request waits.
    using idle_task = std::function<void()>;

    // Gives up when nothing arrives for `timeout`.
    connection(std::string socket_path, std::chrono::seconds timeout);
    ~connection();
    connection(const connection &) = delete;
    connection &operator=(const connection &) = delete;

    // Receives the whole answer into `to`, whose memory is used again. Throws a failure when there is no status line.
    void perform(const request &what, answer &to, const idle_task &while_waiting);

    // Makes `perform` throw soon, in whichever thread it runs.
    void cancel();

    // Ends the connection and takes back `cancel`. The next request opens a new one.
    void close();

private:
    struct reception;

    void open();
    bool exchange(const std::string &text, answer &to);
    void send_text(std::string_view text);
    bool receive(reception &of);
    bool wait(int socket, short events, std::chrono::milliseconds at_most);
    bool wait_or_silent(short events);
    [[noreturn]] void fail(const std::string &why) const;
    std::string silence() const;

    std::string path_;
    std::chrono::seconds timeout_;
    int socket_ = -1;
    int cancelled_; // an event that `cancel` raises
    std::chrono::steady_clock::time_point last_arrival_ = {};
    const idle_task *while_waiting_ = nullptr;
    std::vector<char> buffer_;
};

} // namespace l2fibctl
