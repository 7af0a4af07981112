// SPDX-License-Identifier: Apache-2.0
/* suppressed_cells.h - cells whose boxes the library suppresses at every threshold: they need not be kept.
 * docs/recordings.md has the proof. For outputs.c. */
#ifndef RECORDER_SUPPRESSED_CELLS_H
#define RECORDER_SUPPRESSED_CELLS_H

#include "recorder/cells.h"

/* Drops those cells that are surely suppressed, of three layers without key points; counts[k] of found are of layer k.
 * Drops none where that could change the order of the others.
 * Requires: found is not full; each layer has columns, stride and at most 65,535 cells. */
void drop_suppressed_cells(struct found_cells* found, const struct cell_layer layers[3],
                           const uint32_t counts[3]);

#endif /* RECORDER_SUPPRESSED_CELLS_H */
