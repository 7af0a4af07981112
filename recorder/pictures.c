// SPDX-License-Identifier: Apache-2.0
/* pictures.c - the picture of a frame in the ring: whole or a part of it, in colour or grey, its rows without
 * padding. frames.c says of which frames. */
#include "recorder/recorder.h"

#include "recorder/packer.h"

/* How a plane of a picture lies in memory. */
struct plane {
  uint64_t first; /* byte */
  uint64_t stride;
  uint32_t bytes; /* of a pixel, or of a pair of them */
  uint32_t shift; /* pixels to these units, as powers of two */
};

static uint64_t up_to(uint64_t value, uint32_t alignment) {
  const uint64_t step = alignment != 0 ? alignment : 1;
  return (value + step - 1) / step * step;
}

/* The planes of an input; 0 for a format that is no picture. */
static uint32_t find_planes(const struct channel_slot* channel, struct plane planes[2]) {
  const uint64_t width = channel->width;
  planes[0].first = 0;
  planes[0].shift = 0;
  switch (channel->input_format) {
    case QV_IPU_FORMAT_GRAY:
      planes[0].bytes = 1;
      planes[0].stride = width;
      return 1;
    case QV_IPU_FORMAT_U8:
      planes[0].bytes = 3;
      planes[0].stride = 3 * width;
      return 1;
    case QV_IPU_FORMAT_ARGB8888:
    case QV_IPU_FORMAT_ABGR8888:
      planes[0].bytes = 4;
      planes[0].stride = up_to(4 * width, channel->width_alignment);
      return 1;
    case QV_IPU_FORMAT_NV12:
      planes[0].bytes = 1;
      planes[0].stride = up_to(width, channel->width_alignment);
      planes[1].first = planes[0].stride * up_to(channel->height, channel->height_alignment);
      planes[1].stride = planes[0].stride;
      planes[1].bytes = 2;
      planes[1].shift = 1;
      return 2;
    default:
      return 0;
  }
}

static uint32_t lesser(uint32_t a, uint32_t b) {
  return a < b ? a : b;
}

/* The part that is asked for, within the picture. Pairs of pixels share their colour: it begins with a pair. */
static struct picture_area clip(const struct recorder_options* options,
                                const struct channel_slot* channel, int has_pairs) {
  struct picture_area area = options->picture_crop;
  if (area.width == 0) {
    area.width = channel->width;
    area.height = channel->height;
  }
  if (has_pairs) {
    area.width += area.x & 1;
    area.height += area.y & 1;
    area.x &= ~1u;
    area.y &= ~1u;
  }
  area.width = area.x < channel->width ? lesser(area.width, channel->width - area.x) : 0;
  area.height = area.y < channel->height ? lesser(area.height, channel->height - area.y) : 0;
  return area;
}

static uint32_t units(uint32_t pixels, const struct plane* plane) {
  return (pixels + (1u << plane->shift) - 1) >> plane->shift;
}

static uint64_t bytes_of(const struct plane* plane, const struct picture_area* area) {
  return (uint64_t)units(area->width, plane) * plane->bytes * units(area->height, plane);
}

static void pack_plane(struct packer* packer, const unsigned char* picture,
                       const struct plane* plane, const struct picture_area* area) {
  const uint32_t bytes = units(area->width, plane) * plane->bytes;
  const unsigned char* row = picture + plane->first + (area->y >> plane->shift) * plane->stride +
                             (uint64_t)(area->x >> plane->shift) * plane->bytes;
  for (uint32_t k = units(area->height, plane); k != 0; --k) {
    pack_bytes(packer, row, bytes);
    row += plane->stride;
  }
}

/* Of the picture, which has so many bytes. */
static int is_whole(const struct plane* plane, const struct channel_slot* channel, uint64_t bytes) {
  const uint64_t rows = units(channel->height, plane);
  const uint64_t row = (uint64_t)units(channel->width, plane) * plane->bytes;
  return rows != 0 && plane->first + (rows - 1) * plane->stride + row <= bytes;
}

int store_picture(const struct frame* frame, const struct channel_slot* channel, uint32_t number,
                  uint64_t end) {
  const struct recorder_options* const options = &the_recorder->options;
  struct plane planes[2];
  unsigned char buffer[1024];
  struct packer packer;
  uint64_t bytes = 0;
  uint32_t count = find_planes(channel, planes);
  const int is_grey = count == 2 && options->picture_grey;
  const struct picture_area area = clip(options, channel, count == 2);
  for (uint32_t k = 0; k < count; ++k) {
    if (!is_whole(&planes[k], channel, frame->input.buf_size)) {
      return 0;
    }
  }
  count = is_grey ? 1 : count;
  for (uint32_t k = 0; k < count; ++k) {
    bytes += bytes_of(&planes[k], &area);
  }
  if (bytes == 0) {
    return 0;
  }
  if (bytes > the_recorder->ring.size / 2) {
    return -1;
  }
  ring_begin(&the_recorder->ring, RING_PICTURE, end);
  packer_start(&packer, buffer, sizeof buffer, &the_recorder->ring);
  const uint32_t begun =
      message_begin(&packer, RECORDING_PICTURE, frame->call, frame->begin, clock_offset());
  pack32(&packer, number);
  pack32(&packer, area.x);
  pack32(&packer, area.y);
  pack32(&packer, area.width);
  pack32(&packer, area.height);
  pack32(&packer, is_grey ? QV_IPU_FORMAT_GRAY : channel->input_format);
  pack32(&packer, (uint32_t)bytes);
  for (uint32_t k = 0; k < count; ++k) {
    pack_plane(&packer, (const unsigned char*)frame->input.p_vir_addr, &planes[k], &area);
  }
  record_end(&packer, begun);
  packer_flush(&packer);
  return ring_commit(&the_recorder->ring);
}
