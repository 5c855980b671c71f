// SPDX-License-Identifier: Apache-2.0

// Trace points of the module, under any lock and on any thread.
//
//      EDM_TRACE(EDM_TRACE_BD_NOT_DESTROYED, bridge_id, status);
//
// EDM_TRACE uses the name of the function around it. EDM_TRACE_AS takes a name, for a step of a function that operators
// know. platform/trace.h lists the ids and their values, which are numbers of any width.
#pragma once

#include <cstdint>

#include "platform/trace.h"

// Cold and not inlined, because almost only failures reach a trace point. It must not slow the paths that succeed.
template <typename... Values>
[[gnu::cold, gnu::noinline]] void edm_trace(uint32_t id, const char *name, Values... values)
{
    static_assert(sizeof...(values) <= EDM_TRACE_MAX_VALUES);
    const uint64_t list[] = {static_cast<uint64_t>(values)..., 0};
    edm_trace_point(l2fib_debug_get_ctx(), id, name, list, sizeof...(values));
}

#define EDM_TRACE(id, ...) edm_trace((id), __func__ __VA_OPT__(, ) __VA_ARGS__)
#define EDM_TRACE_AS(step, id, ...) edm_trace((id), (step)__VA_OPT__(, ) __VA_ARGS__)
