// SPDX-License-Identifier: Apache-2.0

#include "forwarding/kernel/kernel_query.h"

#include <algorithm>
#include <cerrno>

#include "forwarding/kernel/netlink/kernel_decode.h"
#include "forwarding/kernel/netlink/kernel_request.h"

namespace forwarding {

namespace {

// The most that the kernel accounts for one answer, in bytes: a page of 4096, and its own record beside it.
constexpr size_t answer_cost = 8192;

// Reads for one batch. Each answer takes at most one; more are answers of an earlier batch, or a socket that fails each
// time.
constexpr size_t max_reads = 2 * query_batch;

constexpr uint32_t wanted_buffer = query_batch * answer_cost / 2; // the kernel accounts against twice the size granted

// An answer with another destination than the key's decides nothing, because the kernel answers with the first
// destination only.
fdb_answer answer_of(const fdb_key &key, const kernel_message &message)
{
    switch (message.kind) {
    case kernel_message_kind::fdb_changed:
        if (key_of(message.fdb) == key) {
            return {fdb_presence::present, message.fdb};
        }
        return {};
    case kernel_message_kind::error:
        if (message.error == ENOENT || message.error == ENODEV) {
            return {fdb_presence::absent, {}};
        }
        return {};
    default: return {};
    }
}

size_t put_questions(kernel_querier &querier, std::span<const fdb_key> keys)
{
    size_t length = 0;
    for (const fdb_key &key : keys) {
        length += kernel_put_get(std::span(querier.buffer).subspan(length), ++querier.sequence, key);
    }
    return length;
}

void take_answers(kernel_querier &querier, std::span<const std::byte> datagram, std::span<const fdb_key> keys,
                  std::span<fdb_answer> answers)
{
    const uint32_t first = querier.sequence - static_cast<uint32_t>(keys.size()) + 1;
    const kernel_clock clock = kernel_clock_now();
    kernel_message message;
    while (kernel_decode(datagram, clock, message)) {
        const uint32_t place = message.sequence - first; // an answer to an earlier question: beyond the end
        querier.refused += message.kind == kernel_message_kind::malformed ? 1 : 0;
        querier.is_unsupported |= message.kind == kernel_message_kind::error && message.error == EOPNOTSUPP;
        if (place < keys.size()) {
            answers[place] = answer_of(keys[place], message);
        }
    }
}

void ask(kernel_querier &querier, std::span<const fdb_key> keys, std::span<fdb_answer> answers)
{
    const size_t length = put_questions(querier, keys);
    if (!kernel_socket_send(querier.socket, std::span(querier.buffer).first(length))) {
        return;
    }
    kernel_datagrams datagrams;
    for (size_t count = 0; count < max_reads; count++) {
        const kernel_read result = kernel_socket_read_many(querier.socket, querier.buffer, datagrams);
        if (result == kernel_read::empty) {
            return;
        }
        for (size_t at = 0; at < datagrams.count; at++) {
            take_answers(querier, datagrams.found[at], keys, answers);
        }
        querier.refused += datagrams.refused;
    }
}

} // namespace

base::result kernel_querier_open(kernel_querier &querier)
{
    if (base::result opened = kernel_socket_open(querier.socket); !opened.ok()) {
        return opened;
    }
    const size_t fitting = kernel_socket_resize(querier.socket, wanted_buffer) / answer_cost;
    querier.batch = std::clamp(fitting, size_t{1}, std::min(query_batch, kernel_buffer_size / kernel_request_size));
    querier.buffer.resize(kernel_buffer_size);
    return base::success();
}

void kernel_query(kernel_querier &querier, std::span<const fdb_key> keys, std::span<fdb_answer> answers)
{
    std::fill(answers.begin(), answers.end(), fdb_answer{});
    while (!keys.empty()) {
        const size_t count = std::min(querier.batch, keys.size());
        ask(querier, keys.first(count), answers.first(count));
        keys = keys.subspan(count);
        answers = answers.subspan(count);
    }
}

} // namespace forwarding
