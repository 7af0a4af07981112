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
  int32_t high = 32768;
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
typedef uint32_t four_words __attribute__((vector_size(16)));
typedef int32_t four_masks __attribute__((vector_size(16)));
typedef int16_t eight_words __attribute__((vector_size(16)));

static int any(four_masks mask) {
  uint64_t halves[2];
  memcpy(halves, &mask, sizeof halves);
  return (halves[0] | halves[1]) != 0;
}

/* Whether a logit of one of the block's cells reaches the cut. The vectors end with the last class; lanes
 * before the first one do not count. */
static int fp32_block(const unsigned char* cell, const struct cell_layer* layer) {
  const uint32_t bytes = layer->channels * 4;
  const uint32_t end = RECORDING_FIRST_CLASS + layer->classes;
  const four_words cut = {layer->cut, layer->cut, layer->cut, layer->cut};
  four_masks first = {-1, -1, -1, -1};
  for (uint32_t k = 0; k + layer->classes < 4; ++k) {
    first[k] = 0;
  }
  four_masks found = {0, 0, 0, 0};
  for (uint32_t k = end - 4;; k = k - RECORDING_FIRST_CLASS >= 4 ? k - 4 : RECORDING_FIRST_CLASS) {
    four_masks some = {0, 0, 0, 0};
    for (uint32_t n = 0; n < BLOCK; ++n) {
      four_words values;
      memcpy(&values, cell + n * bytes + k * 4, sizeof values);
      some |= values <= cut;
    }
    found |= some;
    if (k <= RECORDING_FIRST_CLASS) {
      break;
    }
  }
  return any(layer->classes < 4 ? found & first : found);
}

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

/* The same of 16-bit integers. With fewer than four classes the vector begins in the cell before. */
static int int16_block(const unsigned char* cell, const struct cell_layer* layer) {
  const uint32_t bytes = layer->channels * 2;
  const int32_t last = (int32_t)(RECORDING_FIRST_CLASS + layer->classes) - 8;
  const int16_t low = (int16_t)layer->cut;
  const eight_words cut = {low, low, low, low, low, low, low, low};
  eight_words found = {0, 0, 0, 0, 0, 0, 0, 0};
  int others = 0;
  for (uint32_t n = 0; n < BLOCK; ++n) {
    eight_words values;
    memcpy(&values, cell + n * bytes + last * 2, sizeof values);
    found |= values >= cut;
    for (int32_t k = RECORDING_FIRST_CLASS; k < last; ++k) {
      others |= reaches(layer, cell + n * bytes + (uint32_t)k * 2);
    }
  }
  for (int32_t k = 0; k + last < (int32_t)RECORDING_FIRST_CLASS; ++k) {
    found[k] = 0;
  }
  four_masks mask;
  memcpy(&mask, &found, sizeof mask);
  return others || any(mask);
}

struct cell_list {
  struct packer* packer;
  const struct cell_layer* layer;
  uint32_t next; /* the cell after the last one that was packed */
  uint32_t reached;
  int is_before_pair; /* the cell before has a score that ends in this one */
};

static void pack_cell(struct cell_list* list, uint32_t index) {
  const struct cell_layer* const layer = list->layer;
  const uint32_t element = layer->element;
  const unsigned char* const cell = layer->data + (size_t)index * layer->channels * element;
  const unsigned char* const logits = cell + (size_t)RECORDING_FIRST_CLASS * element;
  unsigned char classes[16];
  uint32_t count = 0;
  for (uint32_t k = 0; k < layer->classes; ++k) {
    if (reaches(layer, logits + (size_t)k * element)) {
      classes[count++] = (unsigned char)k;
    }
  }
  if (count == 0 && !list->is_before_pair && index - list->next != RECORDING_LONGEST_GAP) {
    return;
  }
  pack16(list->packer, index - list->next);
  pack8(list->packer, count);
  pack_bytes(list->packer, classes, count);
  pack_bytes(list->packer, cell, RECORDING_FIRST_CLASS * element);
  for (uint32_t k = 0; k < count; ++k) {
    pack_bytes(list->packer, logits + (size_t)classes[k] * element, element);
  }
  const uint32_t behind = RECORDING_FIRST_CLASS + layer->classes;
  pack_bytes(list->packer, cell + (size_t)behind * element, (layer->channels - behind) * element);
  list->next = index + 1;
  list->reached += count != 0;
  list->is_before_pair = layer->has_pairs && count != 0;
}

static int block_is_worth_a_look(const struct cell_list* list, uint32_t index) {
  const struct cell_layer* const layer = list->layer;
  if (index == 0 || layer->cells - index < BLOCK || list->is_before_pair ||
      index - list->next + BLOCK > RECORDING_LONGEST_GAP) {
    return 1;
  }
  const unsigned char* const cell = layer->data + (size_t)index * layer->channels * layer->element;
  return layer->element == 2 ? int16_block(cell, layer) : fp32_block(cell, layer);
}

uint32_t pack_cells(struct packer* packer, const struct cell_layer* layer) {
  const uint32_t length_at = packer_offset(packer);
  pack32(packer, 0);
  struct cell_list list = {packer, layer, 0, 0, 0};
  /* An INT16 layer of which no integer reaches the cut. */
  const int is_empty = layer->element == 2 && (int32_t)layer->cut > INT16_MAX;
  for (uint32_t index = 0; index < layer->cells && !is_empty; index += BLOCK) {
    if (block_is_worth_a_look(&list, index)) {
      const uint32_t end = layer->cells - index < BLOCK ? layer->cells : index + BLOCK;
      for (uint32_t k = index; k < end; ++k) {
        pack_cell(&list, k);
      }
    }
  }
  packer_patch32(packer, length_at, packer_offset(packer) - length_at - 4);
  return list.reached;
}
