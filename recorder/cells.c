// SPDX-License-Identifier: Apache-2.0
/* cells.c - looks at several cells at once for one that has to be kept, as few have to be, and then at each of
 * them. Reading every logit a second time is most of what recording costs. */
#include "recorder/cells.h"

#include <string.h>

#include "recorder/recording_format.h"

#define BLOCK 8u /* cells looked at before a branch */

struct channel_rule {
  uint8_t channels;
  uint8_t classes;
  uint8_t has_pairs;
};

static const struct channel_rule kRules[] = {
    {5, 1, 0},  {6, 2, 0},  {7, 3, 0},  {8, 4, 0},  {10, 6, 0}, {11, 7, 0}, {12, 8, 0}, {14, 10, 0},
    {13, 1, 1}, {15, 1, 1}, {39, 1, 1}, {47, 1, 1}, {17, 1, 0}, {20, 1, 0}, {56, 1, 0}, {68, 1, 0},
};

uint32_t classes_by_channels(uint32_t channels, int* has_pairs) {
  for (size_t k = 0; k < sizeof kRules / sizeof kRules[0]; ++k) {
    if (kRules[k].channels == channels) {
      *has_pairs = kRules[k].has_pairs;
      return kRules[k].classes;
    }
  }
  return 0;
}

/* log(x) for x in 0..1 by x = m 2^e and the series of its inverse hyperbolic tangent. Errs by less than
 * 0.0001; the C library's would take the mathematics library along. */
static double logarithm(double x) {
  int halvings = 0;
  while (x < 0.70710678) {
    x *= 2.0;
    ++halvings;
  }
  const double z = (x - 1.0) / (x + 1.0);
  const double z2 = z * z;
  return 2.0 * z * (1.0 + z2 * (1.0 / 3 + z2 * (1.0 / 5 + z2 / 7))) - 0.69314718056 * halvings;
}

float cut_below_logit(float score) {
  const double p = (double)score;
  return (float)(logarithm(p) - logarithm(1.0 - p) - 0.005);
}

int32_t integer_cut(float cut, float scale) {
  int32_t low = -32768;
  int32_t high = 0;
  while (low < high) {
    const int32_t middle = (low + high) >> 1;
    if ((float)middle * scale >= cut) {
      high = middle;
    } else {
      low = middle + 1;
    }
  }
  return low;
}

/* The cut is negative, so all non-negative numbers reach it and have fewer bits than it as an unsigned
 * number, and the negative ones down to it have no more. A vector unit's own comparison of floats may take
 * denormal numbers for zero; this one takes every number as it is, and a NaN without a sign for a high one. */
static int reaches(const struct cell_layer* layer, const unsigned char* element) {
  if (layer->element == 2) {
    int16_t value;
    memcpy(&value, element, sizeof value);
    return value >= (int32_t)layer->cut;
  }
  uint32_t bits;
  memcpy(&bits, element, sizeof bits);
  return bits <= layer->cut;
}

/* The vector unit of 32-bit ARM compares integers without more ado, that of others floats. A NaN, which counts
 * for nothing, reaches the cut in one of the two. */
#if defined(__arm__)
typedef uint32_t lane;
#define REACHES(values, cut) ((values) <= (cut))
#else
typedef float lane;
#define REACHES(values, cut) ((values) >= (cut))
#endif
typedef lane four_values __attribute__((vector_size(16)));
typedef lane four_stored_values __attribute__((vector_size(16), aligned(4), may_alias));
typedef int32_t four_masks __attribute__((vector_size(16)));
typedef int16_t eight_words __attribute__((vector_size(16)));
typedef int16_t eight_stored_words __attribute__((vector_size(16), aligned(2), may_alias));

static int any(four_masks mask) {
  uint64_t halves[2];
  memcpy(halves, &mask, sizeof halves);
  return (halves[0] | halves[1]) != 0;
}

/* Four values of each cell of a block. */
static four_masks block_at(const unsigned char* values, uint32_t bytes, four_values cut) {
  four_masks found = {0, 0, 0, 0};
#pragma GCC unroll 8
  for (uint32_t n = 0; n < BLOCK; ++n) {
    found |= REACHES(*(const four_stored_values*)(const void*)values, cut);
    values += bytes;
  }
  return found;
}

/* The first cell from index on whose block has a logit that reaches the cut, or the last block's end. The
 * vectors end with the last class; lanes before the first one do not count. */
static uint32_t skip_fp32(const struct cell_layer* layer, uint32_t index, uint32_t end) {
  const uint32_t bytes = layer->channels * 4;
  const uint32_t last = RECORDING_FIRST_CLASS + layer->classes - 4;
  lane low;
  memcpy(&low, &layer->cut, sizeof low);
  const four_values cut = {low, low, low, low};
  four_masks counts = {-1, -1, -1, -1};
  for (uint32_t k = 0; k + layer->classes < 4; ++k) {
    counts[k] = 0;
  }
  const unsigned char* cell = layer->data + (size_t)index * bytes;
  for (; index + BLOCK <= end; index += BLOCK) {
    four_masks found = block_at(cell + last * 4, bytes, cut);
    for (uint32_t k = RECORDING_FIRST_CLASS; k < last; k += 4) {
      found |= block_at(cell + k * 4, bytes, cut);
    }
    cell += BLOCK * bytes;
    if (any(found & counts)) {
      break;
    }
  }
  return index;
}

/* The same of 16-bit integers. With fewer than four classes a vector begins in the cell before. */
static uint32_t skip_int16(const struct cell_layer* layer, uint32_t index, uint32_t end) {
  const int32_t bytes = (int32_t)layer->channels * 2;
  const int32_t last = (int32_t)(RECORDING_FIRST_CLASS + layer->classes) - 8;
  const int16_t low = (int16_t)layer->cut;
  const eight_words cut = {low, low, low, low, low, low, low, low};
  eight_words counts = {-1, -1, -1, -1, -1, -1, -1, -1};
  for (int32_t k = 0; k + last < (int32_t)RECORDING_FIRST_CLASS; ++k) {
    counts[k] = 0;
  }
  const unsigned char* cell = layer->data + (size_t)index * (size_t)bytes;
  for (; index + BLOCK <= end; index += BLOCK) {
    eight_words found = {0, 0, 0, 0, 0, 0, 0, 0};
    int others = 0;
    const unsigned char* const next = cell + (int32_t)BLOCK * bytes;
    for (; cell != next; cell += bytes) {
      found |= *(const eight_stored_words*)(const void*)(cell + last * 2) >= cut;
      for (int32_t k = RECORDING_FIRST_CLASS; k < last; ++k) {
        others |= reaches(layer, cell + k * 2);
      }
    }
    four_masks mask;
    found &= counts;
    memcpy(&mask, &found, sizeof mask);
    if (others || any(mask)) {
      break;
    }
  }
  return index;
}

struct cell_list {
  struct packer* packer;
  const struct cell_layer* layer;
  uint32_t next; /* the cell after the last one that was packed */
  uint32_t reached;
  int is_before_pair; /* the cell before has a score that ends in this one */
};

/* Channels that a layer in cells has at most, see kRules. */
#define MOST_CHANNELS 68u
#define CELL_HEAD 3u

/* Appends one element, or the four distances: stores of a size that the compiler knows. */
static unsigned char* append_one(unsigned char* to, const unsigned char* from, uint32_t element) {
  if (element == 4) {
    memcpy(to, from, 4);
  } else {
    memcpy(to, from, 2);
  }
  return to + element;
}

static unsigned char* append_four(unsigned char* to, const unsigned char* from, uint32_t element) {
  if (element == 4) {
    memcpy(to, from, 16);
  } else {
    memcpy(to, from, 8);
  }
  return to + (size_t)element * 4;
}

/* Few cells of a block that is worth a look are kept. */
static inline int is_kept(const struct cell_list* list, uint32_t index) {
  const struct cell_layer* const layer = list->layer;
  const unsigned char* const logits =
      layer->data +
      ((size_t)index * layer->channels + RECORDING_FIRST_CLASS) * (size_t)layer->element;
  int is_reached = list->is_before_pair || index - list->next == RECORDING_LONGEST_GAP;
  for (uint32_t k = 0; k < layer->classes; ++k) {
    is_reached |= reaches(layer, logits + (size_t)k * layer->element);
  }
  return is_reached;
}

static void pack_cell(struct cell_list* list, uint32_t index) {
  const struct cell_layer* const layer = list->layer;
  const uint32_t element = layer->element;
  const unsigned char* const cell = layer->data + (size_t)index * layer->channels * element;
  const unsigned char* const logits = cell + (size_t)RECORDING_FIRST_CLASS * element;
  unsigned char bytes[CELL_HEAD + MOST_CHANNELS * 5];
  unsigned char* const classes = bytes + CELL_HEAD;
  uint32_t count = 0;
  for (uint32_t k = 0; k < layer->classes; ++k) {
    if (reaches(layer, logits + (size_t)k * element)) {
      classes[count++] = (unsigned char)k;
    }
  }
  const uint32_t gap = index - list->next;
  const uint32_t behind = RECORDING_FIRST_CLASS + layer->classes;
  bytes[0] = (unsigned char)gap;
  bytes[1] = (unsigned char)(gap >> 8);
  bytes[2] = (unsigned char)count;
  unsigned char* end = append_four(classes + count, cell, element);
  for (uint32_t k = 0; k < count; ++k) {
    end = append_one(end, logits + (size_t)classes[k] * element, element);
  }
  const uint32_t rest = (layer->channels - behind) * element;
  if (rest != 0) {
    memcpy(end, cell + (size_t)behind * element, rest);
    end += rest;
  }
  pack_bytes(list->packer, bytes, (uint32_t)(end - bytes));
  list->next = index + 1;
  list->reached += count != 0;
  list->is_before_pair = layer->has_pairs && count != 0;
}

/* The next cell that needs a closer look. */
static uint32_t skip(const struct cell_list* list, uint32_t index) {
  const struct cell_layer* const layer = list->layer;
  if (index == 0 || list->is_before_pair) {
    return index;
  }
  const uint32_t longest = list->next + RECORDING_LONGEST_GAP;
  const uint32_t end = layer->cells < longest ? layer->cells : longest;
  return layer->element == 2 ? skip_int16(layer, index, end) : skip_fp32(layer, index, end);
}

uint32_t pack_cells(struct packer* packer, const struct cell_layer* layer) {
  const uint32_t length_at = packer_offset(packer);
  pack32(packer, 0);
  struct cell_list list = {packer, layer, 0, 0, 0};
  for (uint32_t index = 0; index < layer->cells;) {
    index = skip(&list, index);
    const uint32_t end = layer->cells - index < BLOCK ? layer->cells : index + BLOCK;
    for (; index < end; ++index) {
      if (is_kept(&list, index)) {
        pack_cell(&list, index);
      }
    }
  }
  packer_patch32(packer, length_at, packer_offset(packer) - length_at - 4);
  return list.reached;
}
