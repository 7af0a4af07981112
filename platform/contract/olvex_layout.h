// SPDX-License-Identifier: Apache-2.0
/* olvex_layout.h - checks of record layouts at compile time, in C99 and C++11. Installed next to olvex_det.h. */
#ifndef OLVEX_LAYOUT_H
#define OLVEX_LAYOUT_H

#include <stddef.h>
#include <stdint.h>

/* OLVEX_LAYOUT_ASSERT(condition, message): usable at file level; message says what differs. */
#if defined(__cplusplus)
#define OLVEX_LAYOUT_ASSERT(condition, message) static_assert(condition, message)
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define OLVEX_LAYOUT_ASSERT(condition, message) _Static_assert(condition, message)
#else
/* A declaration that may be repeated; an array of negative size does not compile. */
#define OLVEX_LAYOUT_ASSERT(condition, message) \
  extern char olvex_layout_assert[(condition) ? 1 : -1]
#endif

/* OLVEX_BY_POINTER_SIZE(on64, on32): the value for this target's pointer width. */
#if UINTPTR_MAX > 0xffffffffu
#define OLVEX_BY_POINTER_SIZE(on64, on32) (on64)
#else
#define OLVEX_BY_POINTER_SIZE(on64, on32) (on32)
#endif

#endif /* OLVEX_LAYOUT_H */
