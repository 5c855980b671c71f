// SPDX-License-Identifier: Apache-2.0

// Trace points of the module, under any lock and on any thread.
//
// EDM_TRACE takes the function's name by itself; EDM_TRACE_AS names a step of a function that operators know by a name
// of its own. Values are numbers of any width, at most EDM_TRACE_MAX_VALUES.
#pragma once

#include <cstdint>

#include "platform/trace.h"

// Failure paths are the only users: kept out of line and out of the way of the paths that succeed.
template <typename... Values>
[[gnu::cold, gnu::noinline]] void edm_trace(uint32_t id, const char *name, Values... values)
{
    static_assert(sizeof...(values) <= EDM_TRACE_MAX_VALUES);
    const uint64_t list[] = {static_cast<uint64_t>(values)..., 0};
    edm_trace_point(l2fib_debug_get_ctx(), id, name, list, sizeof...(values));
}

#define EDM_TRACE(id, ...) edm_trace((id), __func__ __VA_OPT__(, ) __VA_ARGS__)
#define EDM_TRACE_AS(step, id, ...) edm_trace((id), (step)__VA_OPT__(, ) __VA_ARGS__)
