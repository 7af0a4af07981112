// SPDX-License-Identifier: Apache-2.0
/* cells.c - looks at several cells at once for one that has to be kept, as few have to be, and then at each of
 * them. Reading every logit a second time is most of what recording costs. */
#include "recorder/cells.h"

#include <string.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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
 * 0.0001; the C library's would need the mathematics library. */
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
static inline int reaches(const struct cell_layer* layer, const unsigned char* element) {
  if (layer->element == 2) {
    int16_t value;
    memcpy(&value, element, sizeof value);
    return value >= (int32_t)layer->cut;
  }
  uint32_t bits;
  memcpy(&bits, element, sizeof bits);
  return bits <= layer->cut;
}

/* The vector unit of 32-bit ARM compares integers in one instruction, that of others floats. A NaN, which counts
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
#if defined(__SSE2__)
  return _mm_movemask_epi8((__m128i)mask) != 0;
#else
  uint64_t halves[2];
  memcpy(halves, &mask, sizeof halves);
  return (halves[0] | halves[1]) != 0;
#endif
}

/* Which of four lanes reach the cut in any cell of a block. */
#if defined(__SSE2__)
/* By their greatest values, as a maximum is one instruction. It hands on the second operand where one is a NaN, so
 * that a NaN is passed over. */
static four_masks block_at(const unsigned char* values, uint32_t bytes, four_values cut) {
  const size_t step = bytes;
  const unsigned char* const middle = values + 4 * step;
  const unsigned char* const cells[BLOCK] = {
      values, values + step, values + 2 * step, middle - step,
      middle, middle + step, middle + 2 * step, middle + 3 * step};
  const __m128 lowest = _mm_set1_ps(-3.4028234e38f);
  __m128 even = lowest;
  __m128 odd = lowest;
#pragma GCC unroll 4
  for (uint32_t n = 0; n < BLOCK; n += 2) {
    even = _mm_max_ps(_mm_loadu_ps((const float*)(const void*)cells[n]), even);
    odd = _mm_max_ps(_mm_loadu_ps((const float*)(const void*)cells[n + 1]), odd);
  }
  return REACHES((four_values)_mm_max_ps(even, odd), cut);
}
#else
static four_masks block_at(const unsigned char* values, uint32_t bytes, four_values cut) {
  four_masks found = {0, 0, 0, 0};
#pragma GCC unroll 8
  for (uint32_t n = 0; n < BLOCK; ++n) {
    found |= REACHES(*(const four_stored_values*)(const void*)values, cut);
    values += bytes;
  }
  return found;
}
#endif

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

/* Where a look through a layer is. */
struct cell_scan {
  const struct cell_layer* layer;
  uint32_t index;     /* of the next cell */
  uint32_t block;     /* end of the block that gets a closer look */
  uint32_t next;      /* the cell after the last one that is kept */
  int is_before_pair; /* the cell before has a score that ends in this one */
};

/* Channels that a layer in cells has at most, see kRules. */
#define MOST_CHANNELS 68u
#define CELL_HEAD 3u

static inline const unsigned char* element_at(const struct cell_layer* layer, uint32_t index,
                                              uint32_t k) {
  return layer->data + ((size_t)index * layer->channels + k) * (size_t)layer->element;
}

static inline int has_logit(const struct cell_layer* layer, uint32_t index) {
  const unsigned char* logit = element_at(layer, index, RECORDING_FIRST_CLASS);
  const uint32_t cut = layer->cut;
  int is_reached = 0;
  if (layer->element == 2) {
    for (uint32_t k = layer->classes; k != 0; --k, logit += 2) {
      is_reached |= reaches(layer, logit);
    }
    return is_reached;
  }
  for (uint32_t k = layer->classes; k != 0; --k, logit += 4) {
    uint32_t bits;
    memcpy(&bits, logit, sizeof bits);
    is_reached |= bits <= cut;
  }
  return is_reached;
}

/* The next cell that needs a closer look. */
static uint32_t skip(const struct cell_scan* scan, uint32_t index) {
  const struct cell_layer* const layer = scan->layer;
  if (index == 0 || scan->is_before_pair) {
    return index;
  }
  const uint32_t longest = scan->next + RECORDING_LONGEST_GAP;
  const uint32_t end = layer->cells < longest ? layer->cells : longest;
  return layer->element == 2 ? skip_int16(layer, index, end) : skip_fp32(layer, index, end);
}

static void start_behind(struct cell_scan* scan, uint32_t index) {
  scan->index = scan->next = index + 1;
  scan->is_before_pair = scan->layer->has_pairs && has_logit(scan->layer, index);
}

/* The next cell that has to be kept; the layer's number of cells at its end. Few of a block that is worth a look
 * are. */
static uint32_t next_cell(struct cell_scan* scan) {
  const uint32_t cells = scan->layer->cells;
  for (uint32_t index = scan->index; index < cells; ++index) {
    if (index >= scan->block) {
      index = skip(scan, index);
      scan->block = cells - index < BLOCK ? cells : index + BLOCK;
    }
    if (index < cells && (scan->is_before_pair || index - scan->next == RECORDING_LONGEST_GAP ||
                          has_logit(scan->layer, index))) {
      start_behind(scan, index);
      return index;
    }
  }
  return cells;
}

uint32_t find_cells(struct found_cells* found, const struct cell_layer* layer) {
  struct cell_scan scan = {layer, 0, 0, 0, 0};
  const uint32_t before = found->count;
  while (!found->is_full) {
    const uint32_t index = next_cell(&scan);
    if (index == layer->cells) {
      break;
    }
    found->is_full = found->count == MOST_FOUND_CELLS;
    if (!found->is_full) {
      found->cell[found->count].index = index;
      found->cell[found->count++].is_dropped = 0;
    }
  }
  return found->count - before;
}

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

/* Returns whether it has a logit that reaches the cut. next: the cell after the last one that was packed. */
static uint32_t pack_cell(struct packer* packer, const struct cell_layer* layer, uint32_t index,
                          uint32_t next) {
  const uint32_t element = layer->element;
  const unsigned char* const cell = element_at(layer, index, 0);
  const unsigned char* const logits = cell + (size_t)RECORDING_FIRST_CLASS * element;
  unsigned char bytes[CELL_HEAD + MOST_CHANNELS * 5];
  unsigned char* const classes = bytes + CELL_HEAD;
  uint32_t count = 0;
  for (uint32_t k = 0; k < layer->classes; ++k) {
    if (reaches(layer, logits + (size_t)k * element)) {
      classes[count++] = (unsigned char)k;
    }
  }
  const uint32_t gap = index - next;
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
  pack_bytes(packer, bytes, (uint32_t)(end - bytes));
  return count != 0;
}

uint32_t pack_cells(struct packer* packer, const struct cell_layer* layer,
                    const struct found_cell* found, uint32_t count, int are_all) {
  struct cell_scan scan = {layer, 0, 0, 0, 0};
  const uint32_t length_at = packer_offset(packer);
  uint32_t next = 0;
  uint32_t reached = 0;
  pack32(packer, 0);
  for (uint32_t k = 0; k < count; ++k) {
    if (found[k].is_dropped) {
      ++reached;
    } else {
      reached += pack_cell(packer, layer, found[k].index, next);
      next = found[k].index + 1;
    }
  }
  if (count != 0) {
    start_behind(&scan, found[count - 1].index);
  }
  while (!are_all) {
    const uint32_t index = next_cell(&scan);
    if (index == layer->cells) {
      break;
    }
    reached += pack_cell(packer, layer, index, next);
    next = index + 1;
  }
  packer_patch32(packer, length_at, packer_offset(packer) - length_at - 4);
  return reached;
}

float cell_value(const struct cell_layer* layer, uint32_t index, uint32_t k) {
  const unsigned char* const element = element_at(layer, index, k);
  if (layer->element == 2) {
    int16_t integer;
    memcpy(&integer, element, sizeof integer);
    return (float)integer * layer->scale;
  }
  float real;
  memcpy(&real, element, sizeof real);
  return real;
}

float best_logit(const struct cell_layer* layer, uint32_t index, uint32_t* class_id) {
  float best = -3.4028234e38f;
  *class_id = 0;
  for (uint32_t k = 0; k < layer->classes; ++k) {
    const float logit = cell_value(layer, index, RECORDING_FIRST_CLASS + k);
    if (logit > best) {
      best = logit;
      *class_id = k;
    }
  }
  return best;
}
