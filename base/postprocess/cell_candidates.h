// SPDX-License-Identifier: Apache-2.0
// cell_candidates.h - the cells of a raw output layer that hold a box. cell_candidates_plain.cpp says which
// they are; cell_candidates.cpp finds the same ones faster and ships. raw_decode.cpp makes boxes of them.
#ifndef BASE_POSTPROCESS_CELL_CANDIDATES_H
#define BASE_POSTPROCESS_CELL_CANDIDATES_H

#include <stddef.h>
#include <stdint.h>

#include "utils/olvex_stl/scratch.h"
#include "base/postprocess/cell_scan.h"
#include "base/postprocess/raw_layer.h"

const size_t kUsualCandidates = 64;  // more take their scratch from the heap

// One layer's values, cell by cell.
template <typename Cell>
struct Layer {
  typedef typename Cell::Element Element;

  Layer(const DetDecodeInfo& info, int layer, const LayerShape& layer_shape)
      : shape(layer_shape),
        scalar(Cell::layer_scale(info, layer)),
        values(static_cast<const Element*>(info.data[layer])) {
    grid.cells = static_cast<size_t>(shape.rows) * static_cast<size_t>(shape.columns);
    grid.channels = static_cast<size_t>(shape.channels);
    grid.first_class = static_cast<size_t>(shape.first_class);
    grid.num_classes = static_cast<size_t>(info.num_classes);
  }

  Cell cell(size_t index) const {
    return Cell(values + index * grid.channels, values + grid.cells * grid.channels, scalar);
  }

  LayerShape shape;
  CellGrid grid;
  float scalar;
  const Element* values;
};

// The class with the highest logit, of equal ones the lowest. Without a logit above negative infinity:
// class 0 with that.
struct BestClass {
  int label;
  float logit;
};

// A cell whose best class reaches the threshold.
struct CellCandidate {
  uint32_t cell;  // index in the layer
  BestClass best;
};
typedef olvex::scratch<CellCandidate, kUsualCandidates> CellCandidates;

// Appends the cells whose best class reaches the threshold, in order. NaN: no cell does.
void find_candidates(const Layer<Fp32Cell>& layer, float threshold, CellCandidates& candidates);
void find_candidates(const Layer<Int16Cell>& layer, float threshold, CellCandidates& candidates);

#endif  // BASE_POSTPROCESS_CELL_CANDIDATES_H
