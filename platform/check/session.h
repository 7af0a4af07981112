// SPDX-License-Identifier: Apache-2.0
/* session.h - what the checks share: the model, the frame, and a channel as the detection library uses it. */
#ifndef PLATFORM_CHECK_SESSION_H
#define PLATFORM_CHECK_SESSION_H

#include <stddef.h>

#include "frame.h"
#include "model_image.h"
#include "probe.h"
#include "qv_ipu.h"
#include "readings.h"

/* A channel with its output buffers. */
struct channel {
  QV_U32 id;
  QV_IPU_SubNet_InputOutputDesc_t description;
  QV_IPU_TensorVector_t outputs;
};

struct session {
  char* path;
  char* second_path; /* of the model of a second channel */
  char* firmware;
  unsigned cycles;
  int is_probe;
  QV_U32 variable_size;
  struct channel channel;
  struct frame frame;
  /* How the probe's layers lie in memory, as far as that was found. */
  int is_read[PROBE_LAYERS];
  struct reading readings[PROBE_LAYERS];
};

/* Opens a channel for a model, which is mapped for that long. Returns 0, or the code of the call that
 * failed, which is reported. */
QV_S32 open_channel(const char* path, struct channel* channel);
/* Gives the buffers back and closes the channel. Returns 0 when both calls do. */
QV_S32 close_channel(struct channel* channel);

/* One invocation as the detection library makes it. is_flushed: the frame is flushed first. */
QV_S32 run_frame(struct channel* channel, const struct frame* frame, int is_flushed);
/* The same, and reports a failure. Returns 1 when it has worked. */
int run_or_report(struct channel* channel, const struct frame* frame);

/* Bytes of all outputs, one after the other, as u32BufSize counts them; a copy for free(). */
size_t output_size(const struct channel* channel);
unsigned char* copy_outputs(const struct channel* channel);
/* Fills all outputs with one byte, past the CPU's cache. */
void poison_outputs(struct channel* channel, int byte);

/* Value of a cell of layer 0 that shows the input, without a shift or factor that was found. Requires: is_read[0]. */
float input_value(const struct session* session, unsigned row, unsigned column, unsigned plane);

#endif /* PLATFORM_CHECK_SESSION_H */
