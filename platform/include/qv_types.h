// SPDX-License-Identifier: Apache-2.0
/* qv_types.h - scalar types of the chip's interfaces, in C99 and C++11.
 *
 * Every record that crosses a library boundary is made of these types and keeps natural alignment:
 * a 64-bit member is aligned to 8 bytes on 32-bit ARM too. */
#ifndef QV_TYPES_H
#define QV_TYPES_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint8_t QV_BOOL; /* a flag: 1 is set; every other value counts as not set */
typedef int16_t QV_S16;  /* 16-bit signed */
typedef uint32_t QV_U32; /* 32-bit unsigned */
typedef int32_t QV_S32;  /* 32-bit signed; also the result type of every call */
typedef uint64_t QV_U64; /* 64-bit unsigned */
typedef int64_t QV_S64;  /* 64-bit signed */
typedef uint64_t QV_PHY; /* a physical address, 64 bits wide on every target */
typedef float QV_FLOAT;  /* 32-bit IEEE 754 */

#ifdef __cplusplus
}
#endif

#endif /* QV_TYPES_H */
