// SPDX-License-Identifier: Apache-2.0
/* cells.h - sparse outputs: the cells of a raw layer whose logits reach a floor. docs/recordings.md has the
 * layout and proves that nothing else of the layer can change a result. */
#ifndef RECORDER_CELLS_H
#define RECORDER_CELLS_H

#include <stdint.h>

#include "recorder/packer.h"

/* A layer as it lies in memory. */
struct cell_layer {
  const unsigned char* data;
  uint32_t element; /* bytes: 4 FP32, 2 INT16 */
  uint32_t cells;
  uint32_t columns;
  uint32_t stride; /* pixels of the network's input to a cell */
  uint32_t channels;
  uint32_t classes;
  int has_pairs; /* INT16: a cell's last score is the next one's first element */
  float scale;   /* INT16 */
  uint32_t cut;  /* FP32: bits of the lowest logit kept; INT16: the integer's */
};

#define MOST_FOUND_CELLS 256u

struct found_cell {
  uint32_t index; /* in its layer */
  uint32_t is_dropped;
};

/* Cells of the layers of a frame, one layer after the other. */
struct found_cells {
  uint32_t count;
  int is_full; /* there are more than are here */
  struct found_cell cell[MOST_FOUND_CELLS];
};

/* Classes of a raw layer by its channels; 0 when the layer is not one of those that are stored in cells.
 * has_pairs tells whether key points without a score follow. */
uint32_t classes_by_channels(uint32_t channels, int* has_pairs);

/* A number below the logit of a score above 0 and at most 0.5, by no more than 0.01. */
float cut_below_logit(float score);

/* The lowest integer whose real value, multiplied as the library does, reaches the cut.
 * Requires: a negative cut, which 0 reaches; scale positive and finite. */
int32_t integer_cut(float cut, float scale);

/* Appends the cells that have to be kept. Returns how many. */
uint32_t find_cells(struct found_cells* found, const struct cell_layer* layer);

/* Packs a layer's cells as one byte array: count found ones, which are all or the first of them, without those that
 * are dropped, and behind them, where not all were found, what else has to be kept. Returns how many have a logit that
 * reaches the cut, the dropped ones included. */
uint32_t pack_cells(struct packer* packer, const struct cell_layer* layer,
                    const struct found_cell* found, uint32_t count, int are_all);

/* The best logit of a cell, and its class; what the library takes. */
float best_logit(const struct cell_layer* layer, uint32_t index, uint32_t* class_id);
/* Element k of a cell. */
float cell_value(const struct cell_layer* layer, uint32_t index, uint32_t k);

/* ---- Cells whose boxes the library suppresses at every threshold: they need not be kept (suppressed_cells.c).
 * docs/recordings.md has the proof ---- */

/* Drops those cells that are surely suppressed, of three layers without key points; counts[k] of found are of layer k.
 * Drops none where that could change the order of the others.
 * Requires: found is not full; each layer has columns, stride and at most 65,535 cells. */
void drop_suppressed_cells(struct found_cells* found, const struct cell_layer layers[3],
                           const uint32_t counts[3]);

#endif /* RECORDER_CELLS_H */
