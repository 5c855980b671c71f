/* SPDX-License-Identifier: Apache-2.0 */

/*
 * Linkage, visibility and layout, for every header that a C program may include.
 *
 * The libraries are compiled with hidden visibility: they export only what is marked L2FIB_EXPORT.
 */
#pragma once

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#define L2FIB_EXPORT __attribute__((visibility("default")))

/* Marks a function that a platform may lack. Its address is then null, and the caller works without it. */
#define L2FIB_OPTIONAL __attribute__((weak))

#ifdef __cplusplus
#define L2FIB_BEGIN_DECLS extern "C" {
#define L2FIB_END_DECLS }
#else
#define L2FIB_BEGIN_DECLS
#define L2FIB_END_DECLS
#endif

/* Declares one member of a record under two names: the one of the interface, and one that says what it means. */
#define L2FIB_TWO_NAMES(type, name, meaning) \
    union {                                  \
        type name;                           \
        type meaning;                        \
    }

/* Opaque handles and stored callbacks are pointers, and several fixed layouts depend on their width. */
static_assert(sizeof(void *) == 8, "the module is laid out for 64-bit pointers");
