// SPDX-License-Identifier: Apache-2.0
/* check_outputs.c - output buffers: how they are lent, that an invocation fills them, and the probe network's values in
 * them: layout, padding, types, scales, zero points and activations. */
#define _POSIX_C_SOURCE 200809L
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "checks.h"
#include "report.h"
#include "watched_calls.h"

#define FIRST_POISON 0xa5
#define SECOND_POISON 0x5a
#define LATE_STEPS 50 /* of 20 ms, in which a late output may still come */

static void check_alignment(const struct channel* channel) {
  for (QV_U32 k = 0; k < channel->outputs.u32TensorCount; ++k) {
    const void* const data = channel->outputs.astArrayTensors[k].ptTensorData[0];
    const unsigned element =
        channel->description.astQV_OutputTensorDescs[k].eElmFormat == QV_IPU_FORMAT_INT16 ? 2 : 4;
    if ((uintptr_t)data % element != 0) {
      finding(FAULT_ALIGNMENT, "output %u begins at %p, no multiple of %u", k, data, element);
      return;
    }
  }
  proven("output buffers begin at multiples of their element's size");
}

static int lend_twice(struct channel* channel) {
  QV_IPU_TensorVector_t second;
  if (get_outputs(channel->id, &second) == 0) {
    finding(FAULT_LENDING, "a channel of one set of buffers hands out a second one");
    return 0;
  }
  second = channel->outputs;
  second.astArrayTensors[0].ptTensorData[0] = &second;
  if (put_outputs(channel->id, &second) == 0) {
    finding(FAULT_LENDING, "an address that was never handed out is taken back");
    return 0;
  }
  if (put_outputs(channel->id, &channel->outputs) != 0) {
    finding(FAULT_LENDING, "buffers that are out are not taken back");
    return 0;
  }
  if (put_outputs(channel->id, &channel->outputs) == 0) {
    finding(FAULT_LENDING, "buffers are taken back twice");
    return 0;
  }
  return 1;
}

void check_lending(struct session* session) {
  struct channel* const channel = &session->channel;
  report_stage(FAULT_LENDING, "output buffers are handed out and taken back");
  check_alignment(channel);
  const int is_lent_once = lend_twice(channel);
  if (is_lent_once && get_outputs(channel->id, &channel->outputs) != 0) {
    finding(FAULT_LENDING, "buffers that were taken back are not handed out again");
  } else if (is_lent_once) {
    proven("output buffers are lent once and taken back once");
  }
}

/* How many bytes hold the poison of both invocations. */
static size_t unwritten(const unsigned char* first, const unsigned char* second, size_t size) {
  size_t count = 0;
  for (size_t k = 0; k < size; ++k) {
    count += first[k] == FIRST_POISON && second[k] == SECOND_POISON;
  }
  return count;
}

/* The outputs of an invocation that found them poisoned; NULL when it fails. */
static unsigned char* outputs_over(struct session* session, int poison) {
  poison_outputs(&session->channel, poison);
  return run_or_report(&session->channel, &session->frame) ? copy_outputs(&session->channel) : NULL;
}

/* Whether the outputs change without a call. */
static int change_later(const struct channel* channel, const unsigned char* before, size_t size) {
  for (int k = 0; k < LATE_STEPS; ++k) {
    const struct timespec step = {0, 20000000};
    nanosleep(&step, NULL);
    unsigned char* const now = copy_outputs(channel);
    const int is_changed = now != NULL && memcmp(now, before, size) != 0;
    free(now);
    if (is_changed) {
      return 1;
    }
  }
  return 0;
}

static int change_by_flush(const struct channel* channel, const unsigned char* before,
                           size_t size) {
  for (QV_U32 k = 0; k < channel->outputs.u32TensorCount; ++k) {
    flush(channel->outputs.astArrayTensors[k].ptTensorData[0],
          channel->description.astQV_OutputTensorDescs[k].u32BufSize);
  }
  unsigned char* const now = copy_outputs(channel);
  const int is_changed = now != NULL && memcmp(now, before, size) != 0;
  free(now);
  return is_changed;
}

/* Why size bytes were not all written. seen: the outputs after the second invocation. */
static void explain_unwritten(const struct session* session, const unsigned char* seen,
                              size_t count, size_t size) {
  const struct channel* const channel = &session->channel;
  if (change_later(channel, seen, size)) {
    finding(FAULT_LATE, "%zu of %zu bytes of the outputs change after QV_IPU_Invoke has returned",
            count, size);
  } else if (change_by_flush(channel, seen, size)) {
    finding(FAULT_CACHED_OUTPUT,
            "%zu of %zu bytes of the outputs are old until QV_SYS_FlushInvCache", count, size);
  } else if (count == size) {
    finding(FAULT_OTHER_ADDRESS, "no byte of the lent buffers is written");
  } else {
    finding(FAULT_INCOMPLETE, "%zu of %zu bytes of the outputs are not written", count, size);
  }
}

static int compare_invocations(const struct session* session, const unsigned char* first,
                               const unsigned char* second) {
  const size_t size = output_size(&session->channel);
  const size_t count = unwritten(first, second, size);
  if (count != 0) {
    explain_unwritten(session, second, count, size);
    return 0;
  }
  if (memcmp(first, second, size) != 0) {
    finding(FAULT_NOT_REPEATABLE, "two invocations with one frame have other outputs");
  } else {
    proven("an invocation replaces all %zu bytes of the outputs, at the lent addresses", size);
  }
  return 1;
}

static int is_moved(const QV_IPU_TensorVector_t* before, const QV_IPU_TensorVector_t* now) {
  for (QV_U32 k = 0; k < before->u32TensorCount; ++k) {
    if (before->astArrayTensors[k].ptTensorData[0] != now->astArrayTensors[k].ptTensorData[0]) {
      return 1;
    }
  }
  return 0;
}

/* A frame far from the end of its memory: whether reads beyond it crash is tried later. */
static int make_first_frame(struct session* session) {
  const QV_IPU_TensorDesc_t* const input = session->channel.description.astQV_InputTensorDescs;
  struct frame* const frame = &session->frame;
  if (!frame_shape(frame, input)) {
    not_proven("invocations: the input's type %d is no picture", (int)input->eElmFormat);
    return 0;
  }
  frame->data = frame_memory(frame->size * 4 + 65536, &frame->physical);
  if (frame->data == NULL) {
    not_proven("invocations: no memory for a frame of %zu bytes", frame->size);
    return 0;
  }
  return 1;
}

int check_first_invocation(struct session* session) {
  report_stage(FAULT_MODEL_KEPT, "the first invocations, with the model unmapped");
  if (!make_first_frame(session)) {
    return 0;
  }
  const QV_IPU_TensorVector_t lent = session->channel.outputs;
  fill_pattern(&session->frame);
  run_frame(&session->channel, &session->frame, 1);
  unsigned char* const first = outputs_over(session, FIRST_POISON);
  unsigned char* const second = first != NULL ? outputs_over(session, SECOND_POISON) : NULL;
  int is_filled = 0;
  if (is_moved(&lent, &session->channel.outputs)) {
    finding(FAULT_OTHER_ADDRESS, "QV_IPU_Invoke changes the addresses that it is given");
  } else if (second != NULL) {
    is_filled = compare_invocations(session, first, second);
  }
  session->channel.outputs = lent;
  free(first);
  free(second);
  return is_filled;
}

/* ---- Values of the probe network ---- */

static const void* data_of(const struct session* session, unsigned layer) {
  return session->channel.outputs.astArrayTensors[layer].ptTensorData[0];
}

static void report_geometry(unsigned layer, const struct reading* right,
                            const struct reading* found) {
  if (found->channel != right->channel) {
    finding(FAULT_LAYOUT, "output %u: channels are %zu bytes apart, one plane after the other",
            layer, found->channel);
  } else if (found->cell != right->cell) {
    finding(FAULT_PADDED, "output %u: cells of %zu bytes are %zu bytes apart", layer, right->cell,
            found->cell);
  } else if (found->row != right->row) {
    finding(FAULT_PADDED, "output %u: rows of %zu bytes are %zu bytes apart", layer, right->row,
            found->row);
  }
}

static void report_change(unsigned layer, const struct reading* found) {
  if (found->wraps) {
    finding(FAULT_WRAPS, "output %u: values beyond the ends of INT16 come out at the other end",
            layer);
  }
  if (found->activation != ACTIVATION_NONE) {
    finding(FAULT_ACTIVATION, "output %u: %s", layer,
            found->activation == ACTIVATION_SIGMOID ? "all values are in 0..1, as after a sigmoid"
                                                    : "no value is negative, as after a rectifier");
  }
  if (found->shift < 0 || found->shift > 0) {
    finding(FAULT_ZERO_POINT, "output %u: 0 comes out as %g", layer, (double)found->shift);
  }
  if (found->factor < 1 || found->factor > 1) {
    finding(FAULT_SCALE, "output %u: values are %g times the network's; fScalar is %g", layer,
            (double)found->factor, (double)found->scale);
  }
}

static void report_values(unsigned layer, const struct reading* right, const void* data) {
  const struct wrong_cell wrong = first_wrong_cell(layer, right, data);
  finding(
      FAULT_VALUES,
      "output %u: %u values differ, the first in row %u, column %u, channel %u: %g instead of %g",
      layer, wrong.count, wrong.row, wrong.column, wrong.channel, (double)wrong.seen,
      (double)wrong.expected);
}

static void check_layer(struct session* session, unsigned layer) {
  const QV_IPU_TensorDesc_t* const tensor =
      &session->channel.description.astQV_OutputTensorDescs[layer];
  const void* const data = data_of(session, layer);
  const struct reading right = library_reading(tensor, kProbeLayers[layer].columns);
  struct reading* const found = &session->readings[layer];
  session->is_read[layer] = find_reading(layer, tensor, data, found);
  if (!session->is_read[layer]) {
    report_values(layer, &right, data);
    return;
  }
  if (found->is_int16 != right.is_int16) {
    finding(FAULT_ELEMENT_TYPE, "output %u is described as %s and holds %s", layer,
            right.is_int16 ? "INT16" : "FP32", found->is_int16 ? "INT16" : "FP32");
    return;
  }
  report_geometry(layer, &right, found);
  report_change(layer, found);
}

void check_values(struct session* session) {
  const unsigned before = report_findings();
  report_stage(FAULT_BUFFER_SIZE, "the outputs are read over their size");
  for (unsigned layer = 0; layer < PROBE_LAYERS; ++layer) {
    check_layer(session, layer);
  }
  if (report_findings() == before) {
    proven(
        "outputs hold the network's values: channels innermost, without padding, zero point, "
        "activation");
  }
}
