// SPDX-License-Identifier: Apache-2.0
/* frames.c - one ALGO_DET_Run from its begin to its entry in the ring: the platform's calls, the outputs from
 * where they lie, the boxes. Then it looks whether the frame is a reason to write. */
#include <string.h>

#include "recorder/checksums.h"
#include "recorder/packer.h"
#include "recorder/recorder.h"

int frame_begin(const void* handle, const ALGO_Input_t* input, const Box_t* boxes,
                const QV_S32* count) {
  if (!recorder_is_on()) {
    return 0;
  }
  struct thread_state* const thread = this_thread();
  struct frame* const frame = &thread->frame;
  if (thread->is_in_frame) {
    end_unfinished_frame();
  }
  frame->call = next_call_number();
  frame->handle = handle;
  frame->input = *input;
  frame->boxes = boxes;
  frame->count = count;
  frame->result = 0;
  frame->has_result = 0;
  thread->outer = frame->call;
  thread->outer_handle = handle;
  thread->is_in_frame = 1;
  thread->calls = 0;
  thread->has_outputs = 0;
  frame->begin = monotonic_now();
  return 1;
}

static uint32_t microseconds(uint64_t begin, uint64_t end) {
  const uint64_t ns = end - begin;
  /* In 32 bits where that does, as a 32-bit processor divides more bits in a loop. */
  const uint64_t us = ns <= UINT32_MAX ? (uint32_t)ns / 1000u : ns / 1000u;
  return us < UINT32_MAX ? (uint32_t)us : UINT32_MAX;
}

/* ---- Boxes ---- */

static int is_small(const Box_t* box) {
  return (box->x | box->y | box->width | box->height) <= UINT16_MAX && box->class_id <= UINT8_MAX;
}

static void pack_small_boxes(struct packer* packer, const Box_t* boxes, uint32_t count) {
  pack32(packer, count);
  for (const Box_t* box = boxes; box != boxes + count; ++box) {
    pack16(packer, box->x);
    pack16(packer, box->y);
    pack16(packer, box->width);
    pack16(packer, box->height);
    pack8(packer, box->class_id);
    pack_real(packer, box->score);
  }
}

static void pack_large_boxes(struct packer* packer, const Box_t* boxes, uint32_t count) {
  pack32(packer, count);
  for (const Box_t* box = boxes; box != boxes + count; ++box) {
    pack32(packer, box->x);
    pack32(packer, box->y);
    pack32(packer, box->width);
    pack32(packer, box->height);
    pack32(packer, box->class_id);
    pack_real(packer, box->score);
  }
}

static uint32_t boxes_of(const struct frame* frame) {
  const int has_boxes = frame->has_result && frame->result == 0 && *frame->count > 0;
  return has_boxes ? (uint32_t)*frame->count : 0;
}

static void pack_boxes(struct packer* packer, const struct frame* frame) {
  const uint32_t count = boxes_of(frame);
  int all_small = 1;
  for (uint32_t k = 0; k < count; ++k) {
    all_small = all_small && is_small(&frame->boxes[k]);
  }
  pack_small_boxes(packer, frame->boxes, all_small ? count : 0);
  pack_large_boxes(packer, frame->boxes, all_small ? 0 : count);
}

/* ---- The frame ---- */

static void pack_platform_calls(struct packer* packer, const struct thread_state* thread,
                                uint64_t begin) {
  pack32(packer, thread->calls);
  for (const struct platform_call* call = thread->call; call != thread->call + thread->calls;
       ++call) {
    pack8(packer, call->function);
    pack32(packer, (uint32_t)call->result);
    pack32(packer, microseconds(begin, call->begin));
    pack32(packer, microseconds(call->begin, call->end));
    pack32(packer, call->word);
  }
}

/* NULL where the network did not run. */
static struct channel_slot* invoked_channel(const struct frame* frame) {
  const struct thread_state* const thread = this_thread();
  return thread->has_outputs && frame->has_result ? find_channel(thread->channel) : NULL;
}

static void store_frame(const struct frame* frame, struct handle_slot* handle, uint64_t end,
                        int has_crc, uint32_t input_crc) {
  struct recorder* const recorder = the_recorder;
  const struct thread_state* const thread = this_thread();
  struct channel_slot* const channel = invoked_channel(frame);
  const uint32_t number = recorder->frames;
  const float lowest = floor_of(handle, channel, number);
  const int has_picture = frame->input.p_vir_addr != NULL;
  unsigned char buffer[4096];
  struct packer packer;
  ring_begin(&recorder->ring, RING_FRAME, end);
  packer_start(&packer, buffer, sizeof buffer, &recorder->ring);
  const uint32_t begun =
      message_begin(&packer, RECORDING_FRAME, frame->call, frame->begin, clock_offset());
  pack32(&packer, number);
  pack32(&packer, frame->call);
  pack16(&packer, handle != NULL ? handle->number : 0);
  pack16(&packer, thread->number);
  pack8(&packer, (has_picture ? 0 : RECORDING_FRAME_NULL_ADDRESS) |
                     (has_crc ? RECORDING_FRAME_INPUT_CRC : 0) |
                     (frame->has_result ? 0 : RECORDING_FRAME_UNFINISHED) |
                     (channel != NULL ? RECORDING_FRAME_INVOKED : 0));
  pack32(&packer, (uint32_t)frame->result);
  pack64(&packer, frame->begin);
  pack32(&packer, microseconds(frame->begin, end));
  pack64(&packer, frame->input.pts);
  pack32(&packer, frame->input.buf_size);
  pack32(&packer, input_crc);
  pack32(&packer, recorder->lost);
  pack_real(&packer, lowest);
  const uint32_t empty_at = packer_offset(&packer);
  pack32(&packer, 0);
  pack_platform_calls(&packer, thread, frame->begin);
  const int is_empty = pack_outputs(&packer, channel, thread->output, lowest);
  if (handle != NULL && channel != NULL && frame->result == 0) {
    handle->empty = is_empty ? handle->empty + 1 : 0;
  }
  packer_patch32(&packer, empty_at, handle != NULL ? handle->empty : 0);
  pack_boxes(&packer, frame);
  record_end(&packer, begun);
  packer_flush(&packer);
  if (ring_commit(&recorder->ring) == 0) {
    recorder->lost = 0;
  } else {
    ++recorder->lost;
    __atomic_add_fetch(&recorder->lost_frames, 1, __ATOMIC_RELAXED);
  }
}

/* Whether this is the frame of a row of so many. */
static int counts_to(uint32_t* row, int continues, uint32_t frames) {
  *row = continues ? *row + 1 : 0;
  return frames != 0 && *row == frames;
}

static void look_for_triggers(const struct frame* frame, struct handle_slot* handle, uint64_t end) {
  const struct recorder_options* const options = &the_recorder->options;
  const uint32_t boxes = boxes_of(frame);
  if (frame->result != 0 && (options->on_error == 2 ||
                             (options->on_error == 1 && frame->result == options->on_error_code))) {
    raise_trigger(TRIGGER_ERROR);
  }
  if (options->latency_ms != 0 && end - frame->begin > options->latency_ms * (uint64_t)1000000) {
    raise_trigger(TRIGGER_LATENCY);
  }
  if (handle != NULL) {
    if (counts_to(&handle->many, boxes > options->many_boxes, options->many_frames)) {
      raise_trigger(TRIGGER_MANY_BOXES);
    }
    if (counts_to(&handle->none, boxes == 0, options->none_frames)) {
      raise_trigger(TRIGGER_NO_BOXES);
    }
  }
}

/* A picture of which the network made nothing has no description, and is not kept. */
static void keep_picture(const struct frame* frame, uint64_t end) {
  const struct recorder_options* const options = &the_recorder->options;
  const struct channel_slot* const channel = invoked_channel(frame);
  const uint32_t number = the_recorder->frames;
  const int is_triggered = options->picture_after != 0 &&
                           __atomic_load_n(&the_recorder->is_triggered, __ATOMIC_SEQ_CST) != 0;
  const uint32_t every = is_triggered ? options->picture_after : options->picture_every;
  if (channel != NULL && frame->input.p_vir_addr != NULL && every != 0 && number % every == 0 &&
      store_picture(frame, channel, number, end) != 0) {
    __atomic_add_fetch(&the_recorder->lost_pictures, 1, __ATOMIC_RELAXED);
  }
}

static void record_frame(struct thread_state* thread) {
  const struct frame* const frame = &thread->frame;
  const ALGO_Input_t* const input = &frame->input;
  const uint64_t end = monotonic_now();
  const int has_crc =
      frame->has_result && the_recorder->options.input_crc && input->p_vir_addr != NULL;
  const uint32_t input_crc = has_crc ? crc32_of(0, input->p_vir_addr, input->buf_size) : 0;
  pthread_mutex_lock(&recorder_lock);
  struct handle_slot* const handle = frame->handle != NULL ? find_handle(frame->handle) : NULL;
  ++the_recorder->frames;
  store_frame(frame, handle, end, has_crc, input_crc);
  if (handle != NULL) {
    ++handle->frames;
  }
  look_for_triggers(frame, handle, end);
  keep_picture(frame, end);
  pthread_mutex_unlock(&recorder_lock);
  thread->is_in_frame = 0;
  thread->outer = 0;
  thread->outer_handle = NULL;
}

void end_unfinished_frame(void) {
  record_frame(this_thread());
}

void frame_end(QV_S32 result) {
  struct thread_state* const thread = this_thread();
  thread->frame.result = result;
  thread->frame.has_result = 1;
  record_frame(thread);
}
