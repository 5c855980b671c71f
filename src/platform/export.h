/* SPDX-License-Identifier: Apache-2.0 */

/*
 * Linkage and visibility, for every header that a C program may include.
 *
 * The libraries are compiled with hidden visibility: what is not marked L2FIB_EXPORT cannot be reached from outside.
 */
#pragma once

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#define L2FIB_EXPORT __attribute__((visibility("default")))

/* A service that a platform may lack: its address is null then, and the caller does without. */
#define L2FIB_OPTIONAL __attribute__((weak))

#ifdef __cplusplus
#define L2FIB_BEGIN_DECLS extern "C" {
#define L2FIB_END_DECLS }
#else
#define L2FIB_BEGIN_DECLS
#define L2FIB_END_DECLS
#endif

/* Opaque handles and stored callbacks have the width of a pointer, and several fixed layouts count on it. */
static_assert(sizeof(void *) == 8, "the module is laid out for 64-bit pointers");
