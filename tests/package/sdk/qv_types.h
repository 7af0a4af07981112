// SPDX-License-Identifier: Apache-2.0
/* qv_types.h - scalar types as a chip maker's SDK declares them: by the compiler's own words, with macros that
 * collide with nothing of the library's. */
#ifndef __QV_TYPES__
#define __QV_TYPES__

#define MIN(a, b) ((a) < (b) ? (a) : (b))
#define MAX(a, b) ((a) > (b) ? (a) : (b))
#define QV_SUCCESS 0
#define QV_FAIL (-1)

typedef unsigned char QV_U8;
typedef unsigned char QV_BOOL;
typedef unsigned short QV_U16;
typedef signed short QV_S16;
typedef unsigned int QV_U32;
typedef signed int QV_S32;
typedef unsigned long long QV_U64;
typedef signed long long QV_S64;
typedef unsigned long long QV_PHY;
typedef float QV_FLOAT;

#endif
