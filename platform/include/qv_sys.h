// SPDX-License-Identifier: Apache-2.0
/* qv_sys.h - the chip's system interface: frame buffers and cache maintenance.
 *
 * C99 and C++11. qv_ipu.h is the accelerator itself. */
#ifndef QV_SYS_H
#define QV_SYS_H

#include "qv_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Planes of one frame as the camera delivers them. */
typedef struct QV_SYS_FrameData_s {
  void* pVirAddr[3]; /* virtual address of each plane; [0] is the start of the frame */
  QV_PHY phyAddr[3]; /* physical address of each plane */
  QV_U32 u32BufSize; /* bytes of the whole frame, counted from pVirAddr[0] */
} QV_SYS_FrameData_s;

/* One frame with its time stamp. */
typedef struct QV_SYS_BufInfo_s {
  QV_U64 u64Pts;                  /* presentation time stamp, in the caller's own unit */
  QV_SYS_FrameData_s stFrameData; /* where the picture lies */
} QV_SYS_BufInfo_s;

/* Writes the CPU cache over a buffer back to memory and invalidates it, so that the accelerator
 * sees what the CPU wrote and the CPU sees what the accelerator wrote.
 *
 *   address  start of the buffer; stays the caller's
 *   size     bytes
 *
 * Returns 0, or a platform code when the range is not mapped. Needs no device. */
QV_S32 QV_SYS_FlushInvCache(void* address, QV_U32 size);

#ifdef __cplusplus
}
#endif

#endif /* QV_SYS_H */
