// SPDX-License-Identifier: Apache-2.0
/* annotations.c - the boxes of a frame as lines and texts that viewers draw over the picture. Made when a file
 * is written: in the ring they would take more than all the rest. */
#include <stdio.h>
#include <string.h>

#include "recorder/packer.h"
#include "recorder/recorder.h"

/* Bytes of a Frame before its arrays, and of a platform call. */
#define FRAME_HEAD 57u
#define PLATFORM_CALL_SIZE 17u
#define FONT_SIZE 14.0
#define THICKNESS 2.0

/* Where a reader of the entry is. */
struct cursor {
  const struct ring* ring;
  uint32_t at;
};

static uint32_t take(struct cursor* cursor, uint32_t size) {
  unsigned char bytes[4] = {0, 0, 0, 0};
  ring_copy(cursor->ring, cursor->at, size, bytes);
  cursor->at += size;
  return bytes[0] | (uint32_t)bytes[1] << 8 | (uint32_t)bytes[2] << 16 | (uint32_t)bytes[3] << 24;
}

struct edges {
  double left;
  double top;
  double right;
  double bottom;
  uint32_t class_id;
  float score;
};

static struct edges take_box(struct cursor* cursor, uint32_t size) {
  struct edges box;
  box.left = take(cursor, size);
  box.top = take(cursor, size);
  box.right = box.left + take(cursor, size);
  box.bottom = box.top + take(cursor, size);
  box.class_id = take(cursor, size == 2 ? 1 : 4);
  const uint32_t bits = take(cursor, 4);
  memcpy(&box.score, &bits, sizeof box.score);
  return box;
}

static void pack_time(struct packer* packer, uint64_t time) {
  pack32(packer, (uint32_t)(time / 1000000000u));
  pack32(packer, (uint32_t)(time % 1000000000u));
}

static void pack_point(struct packer* packer, double x, double y) {
  pack_double(packer, x);
  pack_double(packer, y);
}

static void pack_color(struct packer* packer, double red, double green, double blue,
                       double opacity) {
  pack_double(packer, red);
  pack_double(packer, green);
  pack_double(packer, blue);
  pack_double(packer, opacity);
}

static void pack_lines(struct packer* packer, struct cursor boxes, uint32_t count, uint32_t size,
                       uint64_t time) {
  pack32(packer, 1);
  pack_time(packer, time);
  pack8(packer, 4); /* LINE_LIST */
  pack32(packer, 8 * count);
  for (uint32_t k = 0; k < count; ++k) {
    const struct edges box = take_box(&boxes, size);
    pack_point(packer, box.left, box.top);
    pack_point(packer, box.right, box.top);
    pack_point(packer, box.right, box.top);
    pack_point(packer, box.right, box.bottom);
    pack_point(packer, box.right, box.bottom);
    pack_point(packer, box.left, box.bottom);
    pack_point(packer, box.left, box.bottom);
    pack_point(packer, box.left, box.top);
  }
  pack_color(packer, 0.1, 0.9, 0.2, 1.0);
  pack32(packer, 0); /* colours of single lines */
  pack_color(packer, 0.0, 0.0, 0.0, 0.0);
  pack_double(packer, THICKNESS);
  pack32(packer, 0);
}

static void pack_texts(struct packer* packer, struct cursor boxes, uint32_t count, uint32_t size,
                       uint64_t time) {
  pack32(packer, count);
  for (uint32_t k = 0; k < count; ++k) {
    const struct edges box = take_box(&boxes, size);
    char text[32];
    /* In hundredths, without the application's decimal separator. */
    const unsigned hundredths =
        box.score >= 0.0f && box.score <= 1.0f ? (unsigned)(box.score * 100.0f + 0.5f) : 0;
    snprintf(text, sizeof text, "%u %u.%02u", (unsigned)box.class_id, hundredths / 100,
             hundredths % 100);
    pack_time(packer, time);
    pack_point(packer, box.left, box.top);
    pack_string(packer, text);
    pack_double(packer, FONT_SIZE);
    pack_color(packer, 1.0, 1.0, 1.0, 1.0);
    pack_color(packer, 0.0, 0.0, 0.0, 0.6);
    pack32(packer, 0);
  }
}

void pack_annotations(struct packer* packer, const struct ring* ring, uint32_t first_byte) {
  struct cursor cursor = {ring, first_byte + RECORDING_RECORD_HEADER + 2};
  const uint32_t sequence = take(&cursor, 4);
  const uint64_t log_low = take(&cursor, 4);
  const uint64_t log_high = take(&cursor, 4);
  const uint64_t log_time = log_low | log_high << 32;
  cursor.at += 8 + FRAME_HEAD;
  const uint32_t calls = take(&cursor, 4);
  cursor.at += calls * PLATFORM_CALL_SIZE;
  for (uint32_t outputs = take(&cursor, 4); outputs != 0; --outputs) {
    cursor.at += 2;
    const uint32_t bytes = take(&cursor, 4);
    cursor.at += bytes;
  }
  uint32_t count = take(&cursor, 4);
  uint32_t box_size = 2;
  if (count == 0) {
    count = take(&cursor, 4);
    box_size = 4;
  }
  const uint32_t begun = message_begin(packer, RECORDING_ANNOTATIONS, sequence,
                                       log_time - clock_offset(), clock_offset());
  pack_time(packer, log_time);
  pack32(packer, 0); /* circles */
  pack_lines(packer, cursor, count, box_size, log_time);
  pack_texts(packer, cursor, count, box_size, log_time);
  pack32(packer, 0);
  record_end(packer, begun);
}
