// SPDX-License-Identifier: Apache-2.0
/* checks.h - the checks, in the order in which they are made, and what they share: the model, the frame, and a channel
 * as the detection library uses it (session.c). Each check reports at least one line. */
#ifndef PLATFORM_CHECK_CHECKS_H
#define PLATFORM_CHECK_CHECKS_H

#include <stddef.h>

#include "frame.h"
#include "probe.h"
#include "qv_ipu.h"
#include "watched_calls.h"

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

/* ---- The checks ---- */

/* check_setup.c. The first two return 0 where nothing more can be checked. */
int check_model(struct session* session); /* before there is a device */
int check_device(struct session* session);
void check_refused_models(struct session* session);

/* check_description.c. Returns 0 where the outputs cannot be read by it. */
int check_description(struct session* session);

/* check_outputs.c */
void check_lending(struct session* session);
int check_first_invocation(struct session* session); /* 0: there are no outputs to look at */
void check_values(struct session* session);          /* of the probe network */

/* check_frames.c */
void check_frames(struct session* session);

/* check_channels.c */
void check_two_channels(struct session* session);
void check_teardown(struct session* session);
void check_cycles(struct session* session);

#endif /* PLATFORM_CHECK_CHECKS_H */
