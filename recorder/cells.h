// SPDX-License-Identifier: Apache-2.0
/* cells.h - sparse outputs: the cells of a raw layer whose logits reach a floor. docs/recordings.md has the
 * layout and proves that nothing else of the layer can change a result. */
#ifndef RECORDER_CELLS_H
#define RECORDER_CELLS_H

#include <stdint.h>

#include "recorder/packer.h"

/* What is left out of a layer. */
struct cell_layer {
  const unsigned char* data;
  uint32_t element; /* bytes: 4 FP32, 2 INT16 */
  uint32_t cells;
  uint32_t channels;
  uint32_t classes;
  int has_pairs; /* INT16: a cell's last score is the next one's first element */
  uint32_t cut;  /* FP32: bits of the lowest logit kept; INT16: the integer's */
};

/* Classes of a raw layer by its channels; 0 when the layer is not one of those that are stored in cells.
 * has_pairs tells whether key points without a score follow. */
uint32_t classes_by_channels(uint32_t channels, int* has_pairs);

/* A number below the logit of a score above 0 and at most 0.5, by no more than 0.01. */
float cut_below_logit(float score);

/* The lowest integer whose real value, multiplied as the library does, reaches the cut.
 * Requires: a negative cut, which 0 reaches; scale positive and finite. */
int32_t integer_cut(float cut, float scale);

/* Packs the cells as one byte array. Returns how many have a logit that reaches the cut. */
uint32_t pack_cells(struct packer* packer, const struct cell_layer* layer);

#endif /* RECORDER_CELLS_H */
