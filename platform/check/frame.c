// SPDX-License-Identifier: Apache-2.0
/* frame.c - layout and contents of frames. */
#include "frame.h"

#include <string.h>

#define NEUTRAL 128
#define ROW_ALIGNMENT 16 /* of NV12 and 4-byte pixels, as the detection library asks for */

const unsigned char kLevels[LEVEL_COUNT] = {16, 72, NEUTRAL, 184, 240};

/* Bytes of a pixel, in the first plane. */
static size_t pixel_size(QV_IPU_ELEMENT_FORMAT format) {
  switch (format) {
    case QV_IPU_FORMAT_NV12:
    case QV_IPU_FORMAT_GRAY:
      return 1;
    case QV_IPU_FORMAT_U8:
      return 3;
    case QV_IPU_FORMAT_ARGB8888:
    case QV_IPU_FORMAT_ABGR8888:
      return 4;
    case QV_IPU_FORMAT_FP32:
      return 3 * sizeof(float);
    default:
      return 0;
  }
}

int frame_shape(struct frame* frame, const QV_IPU_TensorDesc_t* input) {
  const size_t pixel = pixel_size(input->eElmFormat);
  const int is_nv12 = input->eElmFormat == QV_IPU_FORMAT_NV12;
  memset(frame, 0, sizeof *frame);
  frame->format = input->eElmFormat;
  frame->height = input->u32TensorShape[1];
  frame->width = input->u32TensorShape[2];
  frame->row = frame->width * pixel;
  frame->pitch = frame->row;
  if (is_nv12 || pixel == 4) {
    frame->pitch = (frame->row + ROW_ALIGNMENT - 1) / ROW_ALIGNMENT * ROW_ALIGNMENT;
  }
  frame->size = frame->pitch * frame->height;
  if (is_nv12) {
    frame->chroma = frame->pitch * (frame->height + frame->height % 2);
    frame->size = frame->chroma / 2 * 3;
  }
  return frame->size != 0;
}

static size_t value_size(const struct frame* frame) {
  return frame->format == QV_IPU_FORMAT_FP32 ? sizeof(float) : 1;
}

static void put(struct frame* frame, size_t offset, unsigned value) {
  if (frame->format == QV_IPU_FORMAT_FP32) {
    const float real = (float)value;
    memcpy(frame->data + offset, &real, sizeof real);
  } else {
    frame->data[offset] = (unsigned char)value;
  }
}

/* Sets all colour channels of a pixel. */
static void put_gray(struct frame* frame, unsigned row, unsigned column, unsigned level) {
  const size_t step = value_size(frame);
  const size_t pixel = pixel_size(frame->format);
  const size_t start = row * frame->pitch + column * pixel;
  for (size_t k = 0; k < pixel; k += step) {
    put(frame, start + k, level);
  }
}

static void fill_plane_of_chroma(struct frame* frame, unsigned u, unsigned v) {
  for (size_t k = frame->chroma; frame->chroma != 0 && k + 1 < frame->size; k += 2) {
    frame->data[k] = (unsigned char)u;
    frame->data[k + 1] = (unsigned char)v;
  }
}

/* All bytes neutral, padding included. Pictures of NV12 leave the rows of the last third so: U and V that are looked
 * for there are none, and only what is wrong with Y shows. */
static unsigned clear_frame(struct frame* frame) {
  for (size_t k = 0; k < frame->size; k += value_size(frame)) {
    put(frame, k, NEUTRAL);
  }
  return frame->chroma != 0 ? frame->height / 3 * 2 : frame->height;
}

void fill_gray(struct frame* frame, unsigned level) {
  const unsigned rows = clear_frame(frame);
  for (unsigned row = 0; row < rows; ++row) {
    for (unsigned column = 0; column < frame->width; ++column) {
      put_gray(frame, row, column, level);
    }
  }
}

static unsigned level_of_pixel(unsigned row, unsigned column) {
  return ((row * 64u + column) * 2654435761u >> 16) % LEVEL_COUNT;
}

void fill_pattern(struct frame* frame) {
  const unsigned rows = clear_frame(frame);
  for (unsigned row = 0; row < rows; ++row) {
    for (unsigned column = 0; column < frame->width; ++column) {
      put_gray(frame, row, column, kLevels[level_of_pixel(row, column)]);
    }
  }
}

static unsigned value_at(const struct frame* frame, size_t offset) {
  float real = 0;
  if (frame->format != QV_IPU_FORMAT_FP32) {
    return frame->data[offset];
  }
  memcpy(&real, frame->data + offset, sizeof real);
  return (unsigned)real;
}

unsigned pattern_level(const struct frame* frame, size_t pitch, unsigned row, unsigned column) {
  const size_t offset = row * pitch + column * pixel_size(frame->format);
  const unsigned value = offset + value_size(frame) <= frame->size ? value_at(frame, offset) : 0;
  unsigned level = 0;
  while (level + 1 < LEVEL_COUNT && kLevels[level] < value) {
    ++level;
  }
  return level;
}

/* Where red, green and blue are in a pixel, in elements. */
static unsigned place_of(QV_IPU_ELEMENT_FORMAT format, unsigned plane) {
  return format == QV_IPU_FORMAT_ARGB8888 ? 2 - plane : plane;
}

void fill_colour(struct frame* frame, unsigned plane) {
  static const unsigned char kYuv[3][3] = {{81, 90, 240}, {145, 54, 34}, {41, 240, 110}};
  if (frame->chroma != 0) {
    fill_gray(frame, kYuv[plane][0]);
    fill_plane_of_chroma(frame, kYuv[plane][1], kYuv[plane][2]);
    return;
  }
  const size_t step = value_size(frame);
  fill_gray(frame, 0);
  for (unsigned row = 0; row < frame->height; ++row) {
    for (unsigned column = 0; column < frame->width; ++column) {
      put(frame,
          row * frame->pitch + column * pixel_size(frame->format) +
              place_of(frame->format, plane) * step,
          255);
    }
  }
}

void fill_chroma(struct frame* frame, unsigned u, unsigned v) {
  clear_frame(frame);
  fill_plane_of_chroma(frame, u, v);
}

unsigned chroma_band(unsigned row, unsigned column) {
  return ((row / 4) * 3 + column / 8 * 2 + (row / 4) * (column / 8)) % 5 % 2;
}

void fill_chroma_bands(struct frame* frame) {
  fill_chroma(frame, NEUTRAL, NEUTRAL);
  for (unsigned row = 0; row < frame->height; row += 2) {
    for (unsigned column = 0; column < frame->width; column += 2) {
      frame->data[frame->chroma + row / 2 * frame->pitch + column + 1] =
          chroma_band(row, column) ? CHROMA_HIGH : CHROMA_LOW;
    }
  }
}
