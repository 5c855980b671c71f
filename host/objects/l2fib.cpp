// SPDX-License-Identifier: Apache-2.0

#include <array>
#include <atomic>
#include <bit>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "base/mutex.h"
#include "host/objects/l2fib_host.h"

namespace {

// A value that any thread sets or reads as a whole.
template <typename Value>
class shared_value {
public:
    constexpr explicit shared_value(Value initial)
        : value_(initial)
    {}

    void set(const Value &changed) L2FIB_EXCLUDES(lock_)
    {
        const base::scoped_lock hold(lock_);
        value_ = changed;
    }

    Value get() L2FIB_EXCLUDES(lock_)
    {
        const base::scoped_lock hold(lock_);
        return value_;
    }

private:
    base::mutex lock_;
    Value value_ L2FIB_GUARDED_BY(lock_);
};

struct debug_sink {
    host::debug_sink_fn print;
    void *cookie;
};

struct mac_query {
    host::mac_query_fn answer;
    void *cookie;
};

void print_line(void *, uint32_t, const char *function, const char *text)
{
    fprintf(stderr, "%s: %s\n", function, text);
}

constexpr debug_sink standard_error{print_line, nullptr};

// The functions and settings that the two sides of the library have exchanged. The C interface has no handle for them,
// so there is one for the process.
struct exchange {
    std::atomic<uint32_t> debug_bits{0};
    shared_value<debug_sink> message_sink{standard_error};
    shared_value<mac_query> hardware{mac_query{}};
    shared_value<l2fib_hw_edm_handler_table_t> handlers{l2fib_hw_edm_handler_table_t{}};
    shared_value<l2fib_action_table_t> actions{l2fib_action_table_t{}};
};

constinit exchange exchanged;

constexpr size_t handler_slots = sizeof(l2fib_hw_edm_handler_table_t) / sizeof(void *);
using handler_slot_array = std::array<void *, handler_slots>;

constexpr bool is_empty_slot(size_t slot)
{
    return slot * sizeof(void *) == offsetof(l2fib_hw_edm_handler_table_t, empty6)
           || slot * sizeof(void *) == offsetof(l2fib_hw_edm_handler_table_t, empty10);
}

constexpr size_t words_of_address = 3; // of 16 bits each

bool is_complete(const l2fib_hw_edm_handler_table_t &table)
{
    const auto slots = std::bit_cast<handler_slot_array>(table);
    for (size_t slot = 0; slot < handler_slots; slot++) {
        if ((slots[slot] == nullptr) != is_empty_slot(slot)) {
            return false;
        }
    }
    return true;
}

uint32_t query_mac(const l2fib_mac_query_request_t &request, l2fib_mac_query_t &query)
{
    query.state = 0;
    const mac_query asked = exchanged.hardware.get();
    if (asked.answer == nullptr) {
        return 0;
    }
    return asked.answer(asked.cookie, request.bridge_id, query.mac_addr, &query.state);
}

} // namespace

void l2fib_macaddr_to_swords(const uint8_t *mac_addr, uint16_t *words)
{
    for (size_t i = 0; i < words_of_address; i++) {
        words[i] = static_cast<uint16_t>(mac_addr[2 * i] << 8 | mac_addr[2 * i + 1]);
    }
}

void macaddr_lwordston(const uint32_t *words, uint8_t *mac_addr)
{
    for (size_t i = 0; i < words_of_address; i++) {
        mac_addr[2 * i] = static_cast<uint8_t>(words[i] >> 8);
        mac_addr[2 * i + 1] = static_cast<uint8_t>(words[i]);
    }
}

uint32_t l2fib_show_mac_edm_fn_init(const l2fib_hw_edm_handler_table_t *table)
{
    if (table == nullptr || !is_complete(*table)) {
        return EINVAL;
    }
    exchanged.handlers.set(*table);
    return 0;
}

uint32_t l2fib_action_mac_edm_fn_init(const l2fib_action_table_t *table)
{
    if (table == nullptr || table->action[L2FIB_ACTION_SLOT_MAC_EDM] == nullptr) {
        return EINVAL;
    }
    exchanged.actions.set(*table);
    return 0;
}

uint32_t l2fib_platform_ctl_wrapper(uint32_t operation, uint32_t argument_size, void *argument, void *query)
{
    if (operation != L2FIB_CTL_QUERY_MAC) {
        return EOPNOTSUPP;
    }
    if (argument_size != sizeof(void *) || argument == nullptr || query == nullptr) {
        return EINVAL;
    }
    const l2fib_mac_query_request_t *request = nullptr;
    memcpy(&request, argument, argument_size);
    if (request == nullptr) {
        return EINVAL;
    }
    return query_mac(*request, *static_cast<l2fib_mac_query_t *>(query));
}

// The debug context exists already (trace_reader.h), so there is nothing to set up.
uint32_t l2fib_debug_init(void *evm, void *edm_handle, void *lwm_chan, const void *pd_cb)
{
    const bool complete = evm != nullptr && edm_handle != nullptr && lwm_chan != nullptr && pd_cb != nullptr;
    return complete ? 0 : EINVAL;
}

uint32_t l2fib_debug_get_enabled_bitset(void)
{
    return exchanged.debug_bits.load(std::memory_order_relaxed);
}

void l2vpn_vdbgf(l2fib_debug_ctx_t *ctx, uint32_t level, const char *function, const char *format, ...)
{
    if (ctx == nullptr || function == nullptr || format == nullptr) {
        return;
    }
    char text[host::max_debug_message_bytes];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    const debug_sink sink = exchanged.message_sink.get();
    sink.print(sink.cookie, level, function, text);
}

namespace host {

l2fib_hw_edm_handler_table_t edm_handlers()
{
    return exchanged.handlers.get();
}

l2fib_action_table_t edm_actions()
{
    return exchanged.actions.get();
}

void debug_bits_set(uint32_t bits)
{
    exchanged.debug_bits.store(bits, std::memory_order_relaxed);
}

void debug_sink_set(debug_sink_fn sink, void *cookie)
{
    exchanged.message_sink.set(sink == nullptr ? standard_error : debug_sink{sink, cookie});
}

void mac_query_set(mac_query_fn query, void *cookie)
{
    exchanged.hardware.set({query, cookie});
}

} // namespace host
