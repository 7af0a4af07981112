// SPDX-License-Identifier: Apache-2.0
/* qv_host.h - what the host accelerator offers beside the chip's contract: its codes, its
 * timing and its limit.
 *
 * C99 and C++11. Only workstation tools include this; the library never does. */
#ifndef QV_HOST_H
#define QV_HOST_H

#include "qv_ipu.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Codes of the host accelerator, one per cause; each also prints one line on standard error. */
enum {
  QV_HOST_NO_DEVICE = 0x1001,        /* a channel or teardown call without a device */
  QV_HOST_DEVICE_EXISTS = 0x1002,    /* a second device in this process */
  QV_HOST_NO_CHANNEL = 0x1003,       /* an unknown or closed channel */
  QV_HOST_BAD_ARGUMENT = 0x1004,     /* a NULL pointer or a value that the call cannot take */
  QV_HOST_OUT_OF_ORDER = 0x1005,     /* buffers used that are not out, or asked for when all are */
  QV_HOST_READ_FAILED = 0x1006,      /* the model cannot be read: file, callback or memory range */
  QV_HOST_BAD_IMAGE = 0x1007,        /* no image, wrong version, truncated, CRC or description wrong */
  QV_HOST_BAD_NETWORK = 0x1008,      /* the network does not load, or its outputs do not fit */
  QV_HOST_BAD_FRAME = 0x1009,        /* the frame is missing, unreadable or too small */
  QV_HOST_INFERENCE_FAILED = 0x100a, /* the engine reported an error while running */
  QV_HOST_OUT_OF_MEMORY = 0x100b,    /* an allocation failed */
  QV_HOST_INTERNAL_ERROR = 0x100c    /* a fault in the host accelerator itself; please report it */
};

/* Time that the calling thread's last successful QV_IPU_Invoke spent, in milliseconds. Either
 * pointer may be NULL.
 *   conversion_ms  out: frame to network input (colour, mean, scale, planes)
 *   network_ms     out: network and output preparation */
void QV_HOST_LastInvokeTimes(double* conversion_ms, double* network_ms);

/* Candidates of the calling thread's last successful QV_IPU_Invoke that scored min_score or more but
 * were left out, since the image's max_boxes were better. 0 for raw layers. */
QV_U32 QV_HOST_LastInvokeDropped(void);

#ifdef __cplusplus
}
#endif

#endif /* QV_HOST_H */
