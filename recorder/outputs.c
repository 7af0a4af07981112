// SPDX-License-Identifier: Apache-2.0
/* outputs.c - which outputs are stored whole and which in cells, from where they lie. cells.c finds the cells. */
#include "recorder/recorder.h"

#include <string.h>

#include "recorder/cells.h"
#include "recorder/packer.h"

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
