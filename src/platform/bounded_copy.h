/* SPDX-License-Identifier: Apache-2.0 */

/*
 * Bounded copies: the standard bounds-checking operations, under the names that this platform has for them.
 *
 * Each is given the size of its destination. A failure returns a nonzero status and leaves the destination empty (an
 * empty text, or zeroed bytes) as far as there is a destination.
 *
 * Threads: any; the operations have no state.
 */
#pragma once

#include "platform/export.h"

L2FIB_BEGIN_DECLS

/* Copies the text `source` with its end into `size` bytes; fails when it does not fit, or a pointer is null. */
L2FIB_EXPORT uint32_t strcpy_s(char *destination, size_t size, const char *source);

/* Copies `count` bytes into `size` bytes; fails when they do not fit, overlap, or a pointer is null. */
L2FIB_EXPORT uint32_t memcpy_s(void *destination, size_t size, const void *source, size_t count);

/* Clears `size` bytes; fails on a null pointer. */
L2FIB_EXPORT uint32_t smemzero_s(void *destination, size_t size);

L2FIB_END_DECLS
