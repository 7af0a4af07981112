// SPDX-License-Identifier: Apache-2.0
/* qv_sys.h - the system interface of a chip maker's SDK, with calls and records that the library does not use. */
#ifndef __QV_SYS__
#define __QV_SYS__

#include "qv_types.h"

#define QV_SYS_MAX_PLANES 3

typedef enum { QV_SYS_PIXEL_NV12 = 11, QV_SYS_PIXEL_MAX } QV_SYS_PixelFormat_e;

typedef struct QV_SYS_FrameData_s {
  void* pVirAddr[QV_SYS_MAX_PLANES];
  QV_PHY phyAddr[QV_SYS_MAX_PLANES];
  QV_U32 u32BufSize;
} QV_SYS_FrameData_t;

typedef struct QV_SYS_BufInfo_s {
  QV_U64 u64Pts;
  struct QV_SYS_FrameData_s stFrameData;
} QV_SYS_BufInfo_t;

#ifdef __cplusplus
extern "C" {
#endif
QV_S32 QV_SYS_Init(void);
QV_S32 QV_SYS_FlushInvCache(void* pVirAddr, QV_U32 u32Length);
#ifdef __cplusplus
}
#endif

#endif
