// SPDX-License-Identifier: Apache-2.0
// cell_candidates_plain.cpp - the cells that hold a box as they are defined: each logit of each cell is
// looked at.
#include "base/postprocess/cell_candidates.h"

#include <math.h>

namespace {

template <typename Cell>
BestClass best_class(const Cell& cell, const CellGrid& grid) {
  BestClass best = {0, -INFINITY};
  for (size_t k = 0; k < grid.num_classes; ++k) {
    const float logit = cell[static_cast<int>(grid.first_class + k)];
    if (logit > best.logit) {
      best.label = static_cast<int>(k);
      best.logit = logit;
    }
  }
  return best;
}

template <typename Cell>
void find_in_layer(const Layer<Cell>& layer, float threshold, CellCandidates& candidates) {
  for (size_t cell = 0; cell < layer.grid.cells; ++cell) {
    const CellCandidate candidate = {static_cast<uint32_t>(cell),
                                     best_class(layer.cell(cell), layer.grid)};
    if (candidate.best.logit >= threshold) {
      candidates.push_back(candidate);
    }
  }
}

}  // namespace

void find_candidates(const Layer<Fp32Cell>& layer, float threshold, CellCandidates& candidates) {
  find_in_layer(layer, threshold, candidates);
}

void find_candidates(const Layer<Int16Cell>& layer, float threshold, CellCandidates& candidates) {
  find_in_layer(layer, threshold, candidates);
}
