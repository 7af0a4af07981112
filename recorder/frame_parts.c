// SPDX-License-Identifier: Apache-2.0
/* frame_parts.c - which outputs of a frame are stored whole and which in cells, from where they lie, and the picture of
 * a frame in the ring: whole or a part of it, in colour or grey, its rows without padding. cells.c finds the cells,
 * frames.c says of which frames. */
#include <string.h>

#include "recorder/cells.h"
#include "recorder/packer.h"
#include "recorder/recorder.h"

/* ---- Outputs ---- */

#define LAYERS 3u /* outputs in cells */

float floor_of(const struct handle_slot* handle, const struct channel_slot* channel,
               uint32_t number) {
  const struct recorder_options* const options = &the_recorder->options;
  if (handle == NULL || channel == NULL || channel->classes == 0 ||
      (options->whole_every != 0 && number % options->whole_every == 0)) {
    return 0.0f;
  }
  for (uint32_t k = 0; k < channel->outputs; ++k) {
    if (channel->output[k].cells == 0) {
      return 0.0f;
    }
  }
  /* A NaN, and what is not within 0 to 1, lets no cell through. */
  const int is_lower = handle->threshold >= 0.0f && handle->threshold < options->floor;
  return is_lower ? handle->threshold : options->floor;
}

static void pack_whole(struct packer* packer, const void* data, uint32_t size) {
  const uint32_t bytes = data != NULL ? size : 0;
  pack8(packer, RECORDING_WHOLE);
  pack8(packer, 0);
  pack32(packer, bytes);
  pack_bytes(packer, data, bytes);
}

/* Whether a list of the accelerator's own stage says that it holds nothing: its last output is the count,
 * which the library rounds. */
static int is_empty_list(const struct channel_slot* channel, const void* const* addresses) {
  const uint32_t last = channel->outputs - 1;
  if (channel->outputs < 4 || channel->outputs > 5 || addresses[last] == NULL ||
      channel->output[last].bytes < 4) {
    return 0;
  }
  if (channel->format == QV_IPU_FORMAT_INT16) {
    int16_t count;
    memcpy(&count, addresses[last], sizeof count);
    return (float)count * channel->output[last].scale < 0.5f;
  }
  float count;
  memcpy(&count, addresses[last], sizeof count);
  return channel->format == QV_IPU_FORMAT_FP32 && count < 0.5f;
}

static struct cell_layer layer_of(const struct channel_slot* channel, uint32_t index,
                                  const void* data, float cut) {
  const struct output_slot* const output = &channel->output[index];
  struct cell_layer layer;
  layer.data = (const unsigned char*)data;
  layer.element = channel->format == QV_IPU_FORMAT_INT16 ? 2 : 4;
  layer.cells = data != NULL ? output->cells : 0;
  layer.columns = output->columns;
  layer.stride = output->stride;
  layer.channels = output->channels;
  layer.classes = channel->classes;
  layer.has_pairs = channel->has_pairs;
  layer.scale = output->scale;
  layer.cut = layer.element == 2 ? (uint32_t)integer_cut(cut, output->scale) : bits_of(cut);
  return layer;
}

/* Returns how many cells of all layers have a logit that reaches the floor. */
static uint32_t pack_layers(struct packer* packer, const struct channel_slot* channel,
                            const void* const* addresses, float floor) {
  struct found_cells* const found = &the_recorder->found;
  const float cut = cut_below_logit(floor);
  struct cell_layer layers[LAYERS];
  uint32_t counts[LAYERS];
  uint32_t reached = 0;
  int can_drop = 1;
  found->count = 0;
  found->is_full = 0;
  for (uint32_t k = 0; k < LAYERS; ++k) {
    layers[k] = layer_of(channel, k, addresses[k], cut);
    counts[k] = find_cells(found, &layers[k]);
    can_drop = can_drop && channel->output[k].can_drop && addresses[k] != NULL;
  }
  if (can_drop && !found->is_full) {
    drop_suppressed_cells(found, layers, counts);
  }
  const struct found_cell* first = found->cell;
  for (uint32_t k = 0; k < LAYERS; first += counts[k], ++k) {
    if (addresses[k] == NULL) {
      pack_whole(packer, NULL, 0);
      continue;
    }
    pack8(packer, RECORDING_CELLS);
    pack8(packer, channel->classes);
    reached += pack_cells(packer, &layers[k], first, counts[k], !found->is_full);
  }
  return reached;
}

int pack_outputs(struct packer* packer, const struct channel_slot* channel,
                 const void* const* addresses, float floor) {
  pack32(packer, channel != NULL ? channel->outputs : 0);
  if (channel == NULL) {
    return 0;
  }
  if (floor > 0.0f) {
    return pack_layers(packer, channel, addresses, floor) == 0;
  }
  for (uint32_t k = 0; k < channel->outputs; ++k) {
    pack_whole(packer, addresses[k], channel->output[k].bytes);
  }
  return is_empty_list(channel, addresses);
}

/* ---- The picture ---- */

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
