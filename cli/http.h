// Requests to the daemon over its Unix socket.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "cli/output.h"

namespace l2fibctl {

struct request {
    std::string path; // of the URI, with its query, encoded
    bool is_operation = false;
    std::string body = {}; // of an operation
};

class connection {
public:
    // Takes the bytes of an answer as they come; returns false to get no more.
    using body_sink = std::function<bool(std::string_view)>;

    // Gives up when nothing has arrived for so many seconds.
    connection(std::string socket_path, unsigned timeout_seconds, progress &line);

    // Hands over the body of a successful answer. Throws a failure when there is none, what the daemon complains
    // about, and what the sink throws. Returns false when the sink wanted no more, true at the end of the answer.
    bool perform(const request &what, const body_sink &sink);

private:
    struct transfer;
    static size_t take_body(char *bytes, size_t size, size_t count, void *transfer);
    static int watch(void *transfer, long long, long long, long long, long long);

    void set_up(const request &what, transfer &now);

    std::string socket_;
    unsigned timeout_;
    progress &progress_line_;
    std::unique_ptr<void, void (*)(void *)> handle_;
};

// What the daemon's error body says, a line for each error. The status alone when the body is none of the API's.
std::string error_text(long status, std::string_view body);

} // namespace l2fibctl
