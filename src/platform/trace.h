/* SPDX-License-Identifier: Apache-2.0 */

/*
 * Trace facility of the forwarding process: receives every trace point of the module.
 *
 * A trace point is a number, the name of the function (or of its named step) and a few values: ids, statuses, words of
 * an address. The facility keeps a buffer of normal points and one of errors, decides by the number which one receives
 * a point, and holds the texts. The module does not know them.
 *
 * Threads: any, also with the table lock held; a trace point waits for nothing that could wait for the table.
 */
#pragma once

#include "platform/export.h"

L2FIB_BEGIN_DECLS

typedef struct l2fib_debug_ctx l2fib_debug_ctx_t;

#define EDM_TRACE_MAX_VALUES 6u

/* The numbers that the module uses. */
#define EDM_TRACE_ID_FIRST 1911u
#define EDM_TRACE_ID_LAST 1973u

/* The forwarding process's debug context; null before there is one, and trace points are dropped then. */
L2FIB_EXPORT l2fib_debug_ctx_t *l2fib_debug_get_ctx(void);

/*
 * Records one trace point. `function` has static storage; `values` are read during the call, `value_count` of them
 * (at most EDM_TRACE_MAX_VALUES count). A null context drops the point.
 */
L2FIB_EXPORT void edm_trace_point(l2fib_debug_ctx_t *ctx, uint32_t id, const char *function, const uint64_t *values,
                                  uint32_t value_count);

L2FIB_END_DECLS
