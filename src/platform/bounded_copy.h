/* SPDX-License-Identifier: Apache-2.0 */

/*
 * Bounded copies: the standard bounds-checking operations, under this platform's names.
 *
 * The caller passes the size of the destination in bytes. A failure returns a nonzero status and leaves the destination
 * empty: an empty text, or zeroed bytes. A null destination stays untouched.
 *
 * Threads: any. The operations have no state and take no lock.
 */
#pragma once

#include "platform/export.h"

L2FIB_BEGIN_DECLS

/* Copies the text `source` and its final zero. Fails if the text does not fit into `size` bytes or a pointer is null.
 */
L2FIB_EXPORT uint32_t strcpy_s(char *destination, size_t size, const char *source);

/* Copies `count` bytes. Fails if they do not fit into `size` bytes, the areas overlap, or a pointer is null. */
L2FIB_EXPORT uint32_t memcpy_s(void *destination, size_t size, const void *source, size_t count);

/* Sets `size` bytes to zero. Fails on a null pointer. */
L2FIB_EXPORT uint32_t smemzero_s(void *destination, size_t size);

L2FIB_END_DECLS
