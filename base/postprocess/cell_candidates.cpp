// SPDX-License-Identifier: Apache-2.0
// cell_candidates.cpp - the cells that hold a box, in two steps: cell_scan.h finds the few cells that may
// hold one, and only those are examined. cell_candidates_plain.cpp is the plain version.
#include "base/postprocess/cell_candidates.h"

#include <math.h>

#include "utils/numeric/lanes.h"

namespace {

const size_t kCacheLine = 64;  // bytes

// Continues from the best of the classes before first: of equal logits the lowest class is the best.
// Branch-free: the best class is unpredictable.
template <typename Cell>
BestClass best_from(const Cell& cell, const LayerShape& shape, int first, int num_classes,
                    BestClass best) {
  for (int k = first; k < num_classes; ++k) {
    const float v = cell[shape.first_class + k];
    best.label = v > best.logit ? k : best.label;
    best.logit = v > best.logit ? v : best.logit;
  }
  return best;
}

const BestClass kNoClass = {0, -INFINITY};

BestClass best_class(const Int16Cell& cell, const LayerShape& shape, int num_classes) {
  return best_from(cell, shape, 0, num_classes, kNoClass);
}

// The best class of each lane. Labels do not count the lane.
struct LaneBest {
  LaneBest() : logit(olvex::splat(kNoClass.logit)), label(olvex::splat(kNoClass.label)) {}

  // Takes in the classes from k on, which must come after those taken in before.
  void add(const float* logits, int k) {
    const olvex::Floats some = olvex::load<olvex::Floats>(logits + k);
    const olvex::FloatsMask is_better = some > logit;
    label = is_better ? olvex::splat(k) : label;
    logit = is_better ? some : logit;
  }

  void merge(const LaneBest& other) {
    const olvex::FloatsMask is_better =
        (other.logit > logit) | ((other.logit == logit) & (other.label < label));
    label = is_better ? other.label : label;
    logit = is_better ? other.logit : logit;
  }

  olvex::Floats logit;
  olvex::FloatsInt32 label;
};

// Several classes at a time, in independent chains; then merges the chains, the lanes, and the
// classes that fill no lanes.
BestClass best_class(const Fp32Cell& cell, const LayerShape& shape, int num_classes) {
  const int lanes = static_cast<int>(olvex::kFloatLanes);
  const int kChains = 4;
  if (num_classes < kChains * lanes) {
    return best_from(cell, shape, 0, num_classes, kNoClass);
  }
  const float* const logits = cell.values() + shape.first_class;
  LaneBest chains[kChains];
  int k = 0;
  for (; k + kChains * lanes <= num_classes; k += kChains * lanes) {
    for (int c = 0; c < kChains; ++c) {
      chains[c].add(logits, k + c * lanes);
    }
  }
  for (; k + lanes <= num_classes; k += lanes) {
    chains[0].add(logits, k);
  }
  for (int c = 1; c < kChains; ++c) {
    chains[0].merge(chains[c]);
  }
  BestClass best = kNoClass;
  for (int lane = 0; lane < lanes; ++lane) {
    const float logit = olvex::get_lane(chains[0].logit, static_cast<size_t>(lane));
    const int label = olvex::get_lane(chains[0].label, static_cast<size_t>(lane)) + lane;
    const int is_better =
        static_cast<int>(logit > best.logit) |
        (static_cast<int>(logit == best.logit) & static_cast<int>(label < best.label));
    best.label = is_better != 0 ? label : best.label;
    best.logit = is_better != 0 ? logit : best.logit;
  }
  return best_from(cell, shape, k, num_classes, best);
}

// A cell's values are spread over several cache lines.
template <typename Cell>
void prefetch(const Layer<Cell>& layer, size_t cell) {
  typedef typename Cell::Element Element;
  const Element* const first = layer.values + cell * layer.grid.channels;
  for (size_t k = 0; k < layer.grid.channels; k += kCacheLine / sizeof(Element)) {
    __builtin_prefetch(first + k);
  }
}

// The closer look at a cell that the scan has found.
template <typename Cell>
class CloserLook {
 public:
  CloserLook(const Layer<Cell>& layer, float threshold, CellCandidates& candidates)
      : layer_(layer), threshold_(threshold), candidates_(candidates) {}

  // Few cells get here, from many loops.
  __attribute__((noinline)) void operator()(size_t cell) {
    const int num_classes = static_cast<int>(layer_.grid.num_classes);
    const CellCandidate candidate = {static_cast<uint32_t>(cell),
                                     best_class(layer_.cell(cell), layer_.shape, num_classes)};
    if (candidate.best.logit >= threshold_) {
      candidates_.push_back(candidate);
      prefetch(layer_, cell);
    }
  }

 private:
  const Layer<Cell>& layer_;
  float threshold_;
  CellCandidates& candidates_;
};

}  // namespace

void find_candidates(const Layer<Fp32Cell>& layer, float threshold, CellCandidates& candidates) {
  CloserLook<Fp32Cell> look(layer, threshold, candidates);
  find_cells(layer.values, layer.grid, threshold, look);
}

void find_candidates(const Layer<Int16Cell>& layer, float threshold, CellCandidates& candidates) {
  CloserLook<Int16Cell> look(layer, threshold, candidates);
  find_cells(layer.values, layer.grid, threshold, layer.scalar, look);
}
