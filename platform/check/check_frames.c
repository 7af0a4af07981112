// SPDX-License-Identifier: Apache-2.0
/* check_frames.c - how frames are read: again for each invocation, up to their end, with their pitches and colours. */
#include <stdlib.h>
#include <string.h>

#include "checks.h"
#include "report.h"
#include "watched_calls.h"

#define LEAST_STEP \
  28.0f /* half of the step between two of kLevels; NV12 arrives with 1 or 1.164 of it */
#define MOST_STEP 84.0f
#define FIRST_COLUMN (PROBE_WIDTH / 2) /* in row 0, which is at the same place with any pitch */
#define LEAST_CHANGE 27.0f             /* of a plane by V */
#define LEAST_COLOUR 60.0f             /* by which a colour exceeds the other two */

/* The outputs for the frame as it is; NULL when there are none. */
static unsigned char* outputs_of_frame(struct session* session, int is_flushed) {
  return run_frame(&session->channel, &session->frame, is_flushed) == 0
             ? copy_outputs(&session->channel)
             : NULL;
}

/* The frame becomes one that ends where its memory ends. */
static int make_exact_frame(struct session* session) {
  struct frame* const frame = &session->frame;
  const QV_IPU_TensorDesc_t* const input = session->channel.description.astQV_InputTensorDescs;
  frame->data = frame_memory(frame->size, &frame->physical);
  if (frame->data == NULL) {
    not_proven("frames: no memory for a frame of %zu bytes", frame->size);
    return 0;
  }
  if (input->s32AlignedBufSize > (QV_S32)frame->size) {
    finding(FAULT_READS_BEYOND_FRAME, "the input needs %d bytes, a frame has %zu",
            (int)input->s32AlignedBufSize, frame->size);
  }
  return 1;
}

/* Returns 1 when frames stay as they are. */
static int check_flush(struct session* session) {
  struct frame* const frame = &session->frame;
  unsigned char* const before = malloc(frame->size);
  fill_pattern(frame);
  if (before == NULL) {
    not_proven("QV_SYS_FlushInvCache: no memory");
    return 0;
  }
  memcpy(before, frame->data, frame->size);
  const QV_S32 result = flush(frame->data, (QV_U32)frame->size);
  const int is_same = memcmp(before, frame->data, frame->size) == 0;
  if (result != 0) {
    finding(FAULT_FLUSH, "QV_SYS_FlushInvCache returned %d (0x%x)", (int)result, (unsigned)result);
  } else if (!is_same) {
    finding(FAULT_FLUSH, "the frame has other bytes after QV_SYS_FlushInvCache than before");
  } else {
    proven("QV_SYS_FlushInvCache leaves a frame as it is");
  }
  free(before);
  return is_same;
}

/* Outputs of a dark frame, then of a bright one twice, at one address. */
enum { DARK, BRIGHT, BRIGHT_AGAIN, ROUNDS };

static void check_without_flush(struct session* session, const unsigned char* dark) {
  fill_gray(&session->frame, kLevels[0]);
  unsigned char* const outputs = outputs_of_frame(session, 0);
  if (outputs == NULL || memcmp(outputs, dark, output_size(&session->channel)) != 0) {
    not_proven("frames without QV_SYS_FlushInvCache: they are not read; the library flushes each");
  } else {
    proven("a frame is read without QV_SYS_FlushInvCache, too");
  }
  free(outputs);
}

/* Whether different frames must have different outputs. */
static int shows_frames(const struct session* session) {
  return session->is_probe && session->is_read[0] &&
         session->readings[0].activation != ACTIVATION_SIGMOID;
}

/* Returns 1 when each frame has its own outputs. */
static int compare_rounds(struct session* session, unsigned char* const* outputs) {
  const size_t size = output_size(&session->channel);
  const int is_new = memcmp(outputs[DARK], outputs[BRIGHT], size) != 0;
  const int is_same = memcmp(outputs[BRIGHT], outputs[BRIGHT_AGAIN], size) == 0;
  if (!is_new && !is_same) {
    finding(FAULT_LATE, "a changed frame shows in the outputs of the invocation after");
  } else if (!is_new && shows_frames(session)) {
    finding(FAULT_STALE_INPUT, "a changed frame at the same address has the same outputs");
  } else if (!is_new) {
    not_proven("changed frames: a dark and a bright one have the same outputs");
  } else if (!is_same) {
    finding(FAULT_NOT_REPEATABLE, "two invocations with one frame have other outputs");
  } else {
    proven("a changed frame at the same address is read again");
    check_without_flush(session, outputs[DARK]);
  }
  return is_new && is_same;
}

static int check_changed_frames(struct session* session) {
  unsigned char* outputs[ROUNDS];
  int all = 1;
  int is_right = 0;
  fill_gray(&session->frame, kLevels[0]);
  free(outputs_of_frame(session, 1));
  for (int k = 0; k < ROUNDS; ++k) {
    fill_gray(&session->frame, kLevels[k == DARK ? 0 : LEVEL_COUNT - 1]);
    outputs[k] = outputs_of_frame(session, 1);
    all = all && outputs[k] != NULL;
  }
  if (all) {
    is_right = compare_rounds(session, outputs);
  } else {
    finding(FAULT_CALL_FAILS, "QV_IPU_Invoke fails for some frames");
  }
  for (int k = 0; k < ROUNDS; ++k) {
    free(outputs[k]);
  }
  return is_right;
}

/* What one cell shows of each level. Returns 1 when they are as far apart as in the frame. */
static int learn_levels(struct session* session, float* shown) {
  for (unsigned k = 0; k < LEVEL_COUNT; ++k) {
    fill_gray(&session->frame, kLevels[k]);
    if (!run_or_report(&session->channel, &session->frame)) {
      return 0;
    }
    shown[k] = input_value(session, 0, FIRST_COLUMN, 0);
    const float step = k > 0 ? shown[k] - shown[k - 1] : LEAST_STEP;
    if (!(step >= LEAST_STEP && step <= MOST_STEP)) {
      finding(FAULT_INPUT_VALUES, "levels %u and %u of the frame arrive as %g and %g",
              kLevels[k - 1], kLevels[k], (double)shown[k - 1], (double)shown[k]);
      return 0;
    }
  }
  return 1;
}

/* Pixels that do not show what a pattern read with that pitch would. */
static unsigned misread(const struct session* session, const float* shown, size_t pitch) {
  unsigned count = 0;
  for (unsigned row = 0; row < PROBE_HEIGHT; ++row) {
    for (unsigned column = 0; column < PROBE_WIDTH; ++column) {
      const float difference = input_value(session, row, column, 0) -
                               shown[pattern_level(&session->frame, pitch, row, column)];
      count += !(difference > -LEAST_STEP / 2 && difference < LEAST_STEP / 2);
    }
  }
  return count;
}

/* Returns 1 when rows are read where they are. */
static int check_pitch(struct session* session, const float* shown) {
  static const size_t kAlignments[] = {1, 8, 16, 32, 64, 128, 256};
  const struct frame* const frame = &session->frame;
  fill_pattern(&session->frame);
  if (!run_or_report(&session->channel, frame)) {
    return 0;
  }
  const unsigned count = misread(session, shown, frame->pitch);
  if (count == 0) {
    proven("each pixel is read at its place: rows of %zu bytes are %zu bytes apart", frame->row,
           frame->pitch);
    return 1;
  }
  for (size_t k = 0; k < sizeof kAlignments / sizeof kAlignments[0]; ++k) {
    const size_t pitch = (frame->row + kAlignments[k] - 1) / kAlignments[k] * kAlignments[k];
    /* Rows that a larger pitch takes beyond the end cannot be told. */
    if (pitch != frame->pitch && misread(session, shown, pitch) * 2 < count) {
      finding(FAULT_INPUT_PITCH,
              "rows of %zu bytes are read %zu bytes apart; they are %zu bytes apart", frame->row,
              pitch, frame->pitch);
      return 0;
    }
  }
  finding(FAULT_INPUT_PITCH, "%u of %d pixels are not read at their places", count,
          PROBE_HEIGHT * PROBE_WIDTH);
  return 0;
}

/* The plane that exceeds the other two, PROBE_PLANES: none. */
static unsigned brightest_plane(const struct session* session) {
  for (unsigned k = 0; k < PROBE_PLANES; ++k) {
    const float own = input_value(session, 0, FIRST_COLUMN, k) - LEAST_COLOUR;
    if (own > input_value(session, 0, FIRST_COLUMN, (k + 1) % PROBE_PLANES) &&
        own > input_value(session, 0, FIRST_COLUMN, (k + 2) % PROBE_PLANES)) {
      return k;
    }
  }
  return PROBE_PLANES;
}

static void check_colours(struct session* session) {
  static const char* const kNames[] = {"red", "green", "blue", "none of them"};
  if (session->frame.format == QV_IPU_FORMAT_GRAY) {
    not_proven("colours: the input is GRAY");
    return;
  }
  for (unsigned k = 0; k < PROBE_PLANES; ++k) {
    fill_colour(&session->frame, k);
    if (!run_or_report(&session->channel, &session->frame)) {
      return;
    }
    const unsigned plane = brightest_plane(session);
    if (plane != k) {
      finding(FAULT_COLOUR_ORDER, "a frame that is %s shows in the plane of %s", kNames[k],
              kNames[plane]);
      return;
    }
  }
  proven("red, green and blue arrive as such");
}

/* The plane that V changes most, and its value between those for CHROMA_LOW and CHROMA_HIGH. Returns PROBE_PLANES
 * when it changes none. */
static unsigned plane_of_chroma(struct session* session, float* middle) {
  float low[PROBE_PLANES] = {0, 0, 0};
  unsigned found = PROBE_PLANES;
  float largest = LEAST_CHANGE;
  for (int is_high = 0; is_high < 2; ++is_high) {
    fill_chroma(&session->frame, 128, is_high ? CHROMA_HIGH : CHROMA_LOW);
    if (!run_or_report(&session->channel, &session->frame)) {
      return PROBE_PLANES;
    }
    for (unsigned k = 0; k < PROBE_PLANES; ++k) {
      const float value = input_value(session, 0, FIRST_COLUMN, k);
      if (is_high && value - low[k] > largest) {
        found = k;
        largest = value - low[k];
        *middle = low[k] + largest / 2;
      }
      low[k] = value;
    }
  }
  return found;
}

/* Returns 1 when U and V are read where they are, or there are none. */
static int check_second_plane(struct session* session) {
  float middle = 0;
  if (session->frame.chroma == 0) {
    return 1;
  }
  const unsigned plane = plane_of_chroma(session, &middle);
  unsigned wrong = plane == PROBE_PLANES;
  fill_chroma_bands(&session->frame);
  if (!run_or_report(&session->channel, &session->frame)) {
    return 0;
  }
  /* The middle of each band, where no neighbour is mixed in. */
  for (unsigned row = 1; plane < PROBE_PLANES && row < PROBE_HEIGHT - 2; row += 4) {
    for (unsigned column = 3; column < PROBE_WIDTH - 4; column += 8) {
      wrong +=
          (input_value(session, row, column, plane) > middle) != (chroma_band(row, column) == 1);
    }
  }
  if (wrong != 0) {
    finding(FAULT_SECOND_PLANE,
            "U and V are not read %zu bytes after the first byte of Y, in rows of %zu bytes",
            session->frame.chroma, session->frame.pitch);
  } else {
    proven("U and V are read at their places");
  }
  return wrong == 0;
}

static void check_pictures(struct session* session) {
  float shown[LEVEL_COUNT];
  if (!shows_frames(session)) {
    not_proven("pitches and colours: %s",
               session->is_probe ? "output 0 does not show the frame" : "not the probe network");
  } else if (learn_levels(session, shown) && check_pitch(session, shown) &&
             check_second_plane(session)) {
    check_colours(session);
  } else {
    not_proven("colours: pixels do not arrive as they are");
  }
}

void check_frames(struct session* session) {
  report_stage(FAULT_READS_BEYOND_FRAME, "the frame ends where its memory ends");
  if (!make_exact_frame(session)) {
    return;
  }
  if (check_flush(session) && check_changed_frames(session)) {
    check_pictures(session);
  } else {
    not_proven("pitches and colours: changed frames do not show");
  }
}
