// SPDX-License-Identifier: Apache-2.0
// cell_scan.h - which cells of a raw output layer are worth a closer look. The scan reads every
// class logit of every frame, so it is written for speed alone and decides nothing: it calls a
// visitor for each cell with a logit that reaches the threshold, and occasionally for one without.
// cell_candidates.cpp supplies the visitor, cell_reach.h has what is asked of a cell.
#ifndef BASE_POSTPROCESS_CELL_SCAN_H
#define BASE_POSTPROCESS_CELL_SCAN_H

#include <math.h>
#include <stddef.h>
#include <stdint.h>

#include "base/postprocess/cell_reach.h"

namespace cell_scan {

template <typename Visitor>
void visit_all(const CellGrid& grid, Visitor& visit) {
  for (size_t cell = 0; cell < grid.cells; ++cell) {
    visit(cell);
  }
}

// Whether any of kCells cells reaches.
template <size_t kCells, typename CellTest>
__attribute__((always_inline)) inline bool any_reaches(const typename CellTest::Element* cells,
                                                       size_t channels, const CellTest& test) {
  typedef typename CellTest::Values Values;
  const size_t kChains = kCells < CellTest::kChains ? kCells : CellTest::kChains;
  Values chains[kChains];
  for (size_t c = 0; c < kChains; ++c) {
    chains[c] = test.lowest();
  }
  test.at_each([&](size_t offset) {
    const typename CellTest::Element* cell = cells + offset;
#pragma GCC unroll 8
    for (size_t c = 0; c < kCells; ++c) {
      Values& chain = chains[c % kChains];
      chain = test.highest(test.load(cell), chain);
      cell += channels;
    }
  });
#pragma GCC unroll 4
  for (size_t c = 1; c < kChains; ++c) {
    chains[0] = test.highest(chains[c], chains[0]);
  }
  return test.reaches(chains[0]);
}

template <typename CellTest, typename Visitor>
__attribute__((noinline)) void visit_tested(const typename CellTest::Element* values,
                                            size_t channels, const CellTest& test, size_t first,
                                            size_t end, Visitor& visit) {
  for (size_t cell = first; cell < end; ++cell) {
    if (any_reaches<1>(values + cell * channels, channels, test)) {
      visit(cell);
    }
  }
}

// Few cells reach: one branch passes over several that do not, the more the smaller the cells are. From
// `cell` on, the first of several of which one reaches, or of the rest at the end.
template <typename CellTest>
size_t pass_over(const typename CellTest::Element* values, const CellGrid& grid,
                 const CellTest& test, size_t cell) {
  const size_t at_once = CellTest::kCellsPerBranch;
  const typename CellTest::Element* p = values + cell * grid.channels;
  while (cell + at_once <= grid.cells && !any_reaches<at_once>(p, grid.channels, test)) {
    cell += at_once;
    p += at_once * grid.channels;
  }
  return cell;
}

#if defined(__x86_64__)
inline size_t pass_over(const float* values, const CellGrid& grid, const WiderFp32Cell& test,
                        size_t cell) {
  return test.pass_over_cells(values, grid, cell);
}
#endif

template <typename CellTest, typename Visitor>
void scan(const typename CellTest::Element* values, const CellGrid& grid, const CellTest& test,
          Visitor& visit) {
  const size_t at_once = CellTest::kCellsPerBranch;
  size_t cell = pass_over(values, grid, test, 0);
  while (cell + at_once <= grid.cells) {
    visit_tested(values, grid.channels, test, cell, cell + at_once, visit);
    cell = pass_over(values, grid, test, cell + at_once);
  }
  visit_tested(values, grid.channels, test, cell, grid.cells, visit);
}

template <typename Visitor>
void scan_wide(const float* values, const CellGrid& grid, float threshold, Visitor& visit) {
#if defined(__x86_64__)
  if (has_wider_lanes()) {
    scan(values, grid, WiderFp32Cell(grid, threshold), visit);
    return;
  }
#endif
  scan(values, grid, WideCell<Fp32Reach>(grid, Fp32Reach(threshold)), visit);
}

inline bool reaches(int value, float scalar, float threshold) {
  return static_cast<float>(value) * scalar >= threshold;
}

// The smallest value that reaches the threshold; one more than the largest when none does.
// Requires: a positive finite scalar, with which the products rise with the values.
inline int smallest_reaching(float scalar, float threshold) {
  int low = INT16_MIN;
  int high = INT16_MAX + 1;
  while (low < high) {
    const int middle = low + (high - low) / 2;
    if (reaches(middle, scalar, threshold)) {
      high = middle;
    } else {
      low = middle + 1;
    }
  }
  return low;
}

}  // namespace cell_scan

// Calls visit(cell), in order, for the cells with a logit that reaches the threshold or of which
// only a closer look can tell. Reads no value outside a cell.
//   threshold  the logit to reach. NaN: no cell does; negative infinity: every cell does
template <typename Visitor>
void find_cells(const float* values, const CellGrid& grid, float threshold, Visitor& visit) {
  using namespace cell_scan;
  if (threshold == -INFINITY) {
    visit_all(grid, visit);
  } else if (grid.num_classes == 0 || isnan(threshold)) {
    return;
  } else if (grid.num_classes < Fp32Reach::kLanes) {
    scan(values, grid, NarrowFp32Cell(grid, Fp32Reach(threshold)), visit);
  } else if (grid.num_classes <= 2 * Fp32Reach::kLanes) {
    scan(values, grid, PairCell<Fp32Reach>(grid, Fp32Reach(threshold)), visit);
  } else {
    scan_wide(values, grid, threshold, visit);
  }
}

// The same for integers.
//   scalar  the real value of 1
template <typename Visitor>
void find_cells(const int16_t* values, const CellGrid& grid, float threshold, float scalar,
                Visitor& visit) {
  using namespace cell_scan;
  if (threshold == -INFINITY) {
    visit_all(grid, visit);
    return;
  }
  if (grid.num_classes == 0 || isnan(threshold)) {
    return;
  }
  // With another scale the products do not rise with the values, and no integer stands for the
  // threshold.
  if (!(scalar > 0.0f && scalar < INFINITY)) {
    visit_all(grid, visit);
    return;
  }
  const int smallest = smallest_reaching(scalar, threshold);
  if (smallest > INT16_MAX) {
    return;
  }
  if (smallest == INT16_MIN) {
    visit_all(grid, visit);
    return;
  }
  const Int16Reach reach(static_cast<int16_t>(smallest - 1));
  if (grid.num_classes < Int16Reach::kLanes) {
    scan(values, grid, NarrowInt16Cell(grid, reach), visit);
  } else if (grid.num_classes <= 2 * Int16Reach::kLanes) {
    scan(values, grid, PairCell<Int16Reach>(grid, reach), visit);
  } else {
    scan(values, grid, WideCell<Int16Reach>(grid, reach), visit);
  }
}

#endif  // BASE_POSTPROCESS_CELL_SCAN_H
