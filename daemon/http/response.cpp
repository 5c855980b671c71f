// SPDX-License-Identifier: Apache-2.0

#include "daemon/http/response.h"

#include <cstddef>
#include <exception>
#include <string>
#include <utility>

#include "daemon/log.h"

namespace l2fibd {

namespace {

// The library's buffer for an answer of several parts.
constexpr size_t piece_bytes = size_t{32} * 1024;

// An answer in several parts: the part that is being sent, and the stream that makes the next one.
struct streamed_body {
    std::string part;
    size_t sent = 0; // of the part
    std::unique_ptr<answer_stream> rest;
};

// Makes the next part if the last one was sent. False at the end of the answer.
bool refill(streamed_body &body)
{
    while (body.sent == body.part.size()) {
        if (body.rest->finished()) {
            return false;
        }
        body.sent = 0;
        body.rest->write_next(body.part);
    }
    return true;
}

// Ends the connection before the last brace. The status line said success and cannot be taken back.
ssize_t cut(const std::string &reason)
{
    log(log_level::warning, "answer cut: " + reason);
    return MHD_CONTENT_READER_END_WITH_ERROR;
}

// The library calls this when it has room for more of the body.
ssize_t read_piece(void *context, uint64_t /*position*/, char *to, size_t room) noexcept
{
    auto &body = *static_cast<streamed_body *>(context);
    try {
        if (!refill(body)) {
            const std::string &failure = body.rest->failure();
            return failure.empty() ? MHD_CONTENT_READER_END_OF_STREAM : cut(failure);
        }
    } catch (const std::exception &error) {
        return cut(error.what());
    }
    const size_t count = body.part.copy(to, room, body.sent);
    body.sent += count;
    return static_cast<ssize_t>(count);
}

void free_body(void *context) noexcept
{
    delete static_cast<streamed_body *>(context);
}

} // namespace

response_ptr make_response(answer &&from)
{
    if (from.rest == nullptr) {
        return response_ptr(MHD_create_response_from_buffer(from.body.size(), from.body.data(), MHD_RESPMEM_MUST_COPY));
    }
    auto body = std::make_unique<streamed_body>();
    body->part = std::move(from.body);
    body->rest = std::move(from.rest);
    response_ptr response(
        MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, piece_bytes, read_piece, body.get(), free_body));
    if (response != nullptr) {
        static_cast<void>(body.release()); // NOLINT(bugprone-unused-return-value): the response owns it now
    }
    return response;
}

} // namespace l2fibd
