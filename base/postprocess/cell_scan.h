// SPDX-License-Identifier: Apache-2.0
// cell_scan.h - which cells of a raw output layer are worth a closer look. The scan reads every
// class logit of every frame, so it is written for speed alone and decides nothing: it calls a
// visitor for each cell with a logit that reaches the threshold, and occasionally for one without.
// cell_candidates.cpp supplies the visitor.
#ifndef BASE_POSTPROCESS_CELL_SCAN_H
#define BASE_POSTPROCESS_CELL_SCAN_H

#include <float.h>
#include <math.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#if defined(__arm__) && defined(__ARM_NEON)
#include <arm_neon.h>
#endif

#include "utils/numeric/lanes.h"

// The layout of a layer: cells one after the other, of `channels` values each. The four box
// distances before the classes make first_class at least 4.
struct CellGrid {
  size_t cells;
  size_t channels;
  size_t first_class;
  size_t num_classes;
};

namespace cell_scan {

// ---- What a cell is asked -----------------------------------------------------------------------
//
// The highest values of several cells are found first, lane by lane, and compared with the threshold at the
// end: one operation for each vector less than comparing each. A test has
//   lowest()             what is below every threshold, in all lanes
//   kCellsPerBranch, kChains  how many cells are asked at once, by how many independent chains of maxima
//   load(values)         the lanes that begin there
//   highest(some, others)
//   at_each(look)        calls look(offset) for what has to be loaded of a cell
//   reaches(highest)     whether any lane does

// What the next two share: at least as many classes as lanes. The last lanes overlap the ones
// before instead of leaving the cell.
template <typename Reach>
class VectorCell {
 public:
  typedef typename Reach::Element Element;
  typedef typename Reach::Values Values;
  static const size_t kCellsPerBranch = 4;
  static const size_t kChains = 4;

  static Values lowest() { return Reach::lowest(); }
  static Values load(const Element* values) { return Reach::load(values); }
  static Values highest(Values some, Values others) { return Reach::highest(some, others); }
  bool reaches(Values highest) const { return olvex::any(reach_(highest)); }

 protected:
  VectorCell(const CellGrid& grid, const Reach& reach)
      : first_(grid.first_class),
        last_(grid.first_class + grid.num_classes - Reach::kLanes),
        reach_(reach) {}

  size_t first_;
  size_t last_;

 private:
  Reach reach_;
};

// From one to two vectors of classes.
template <typename Reach>
class PairCell : public VectorCell<Reach> {
 public:
  PairCell(const CellGrid& grid, const Reach& reach) : VectorCell<Reach>(grid, reach) {}

  template <typename Look>
  void at_each(const Look& look) const {
    look(this->first_);
    look(this->last_);
  }
};

// More classes.
template <typename Reach>
class WideCell : public VectorCell<Reach> {
 public:
  WideCell(const CellGrid& grid, const Reach& reach) : VectorCell<Reach>(grid, reach) {}

  template <typename Look>
  void at_each(const Look& look) const {
    for (size_t k = this->first_; k < this->last_; k += Reach::kLanes) {
      look(k);
    }
    look(this->last_);
  }
};

#if defined(__arm__) && defined(__ARM_NEON)
// The vector unit's own maximum takes denormal numbers for zero and passes NaN on. It does not compare floats
// for these reasons, so that the bits of the highest are compared as integers.
//
// Non-negative floats are ordered like their bits, and negative ones have a negative integer. For a
// threshold above zero that is all. For another, flipping all bits but the sign puts the negative
// numbers down to the threshold above it, too, together with all non-negative ones. A NaN, and a denormal
// number, may count as reaching; the closer look refuses it.
class Fp32Reach {
 public:
  typedef float Element;
  typedef float32x4_t Values;
  static const size_t kLanes = 4;

  explicit Fp32Reach(float threshold) {
    // The lowest of the numbers that are taken for zero.
    const float lowest = threshold >= 0.0f && threshold < FLT_MIN ? -0.0f : threshold;
    int32_t bits;
    memcpy(&bits, &lowest, sizeof(bits));
    flip_ = lowest > 0.0f ? 0 : INT32_MAX;
    below_ = (bits ^ flip_) - 1;
  }

  static Values lowest() { return vdupq_n_f32(-INFINITY); }
  static Values load(const float* values) { return vld1q_f32(values); }
  static Values highest(Values some, Values others) { return vmaxq_f32(some, others); }
  olvex::Int32x4 operator()(Values highest) const {
    return (reinterpret_cast<olvex::Int32x4>(highest) ^ flip_) > below_;
  }

 private:
  int32_t flip_;
  int32_t below_;
};
#else
class Fp32Reach {
 public:
  typedef float Element;
  typedef olvex::Floats Values;
  typedef olvex::FloatsMask Mask;
  static const size_t kLanes = olvex::kFloatLanes;

  explicit Fp32Reach(float threshold) : threshold_(threshold) {}

  static Values lowest() { return olvex::splat(-INFINITY); }
  static Values load(const float* values) { return olvex::load<Values>(values); }
  static Values highest(Values some, Values others) { return olvex::highest(some, others); }
  Mask operator()(Values highest) const { return highest >= threshold_; }

 private:
  float threshold_;
};
#endif

// One to three classes: their lanes begin in the box distances, which are masked out.
class NarrowFp32Cell {
 public:
  typedef float Element;
  typedef Fp32Reach::Values Values;
  static const size_t kCellsPerBranch = 8;
  static const size_t kChains = 2;

  NarrowFp32Cell(const CellGrid& grid, const Fp32Reach& reach)
      : reach_(reach), first_(grid.first_class + grid.num_classes - Fp32Reach::kLanes) {
    for (size_t k = 0; k < Fp32Reach::kLanes; ++k) {
      is_class_[k] = k + grid.num_classes >= Fp32Reach::kLanes ? -1 : 0;
    }
  }

  static Values lowest() { return Fp32Reach::lowest(); }
  static Values load(const float* values) { return Fp32Reach::load(values); }
  static Values highest(Values some, Values others) { return Fp32Reach::highest(some, others); }
  bool reaches(Values highest) const { return olvex::any(reach_(highest) & is_class_); }

  template <typename Look>
  void at_each(const Look& look) const {
    look(first_);
  }

 private:
  Fp32Reach reach_;
  size_t first_;
  olvex::Int32x4 is_class_;
};

class Int16Reach {
 public:
  typedef int16_t Element;
  typedef olvex::Int16x8 Values;
  typedef olvex::Int16x8 Mask;
  static const size_t kLanes = 8;

  // Everything above `below` reaches.
  explicit Int16Reach(int16_t below) : below_(below) {}
  static Values lowest() {
    const int16_t value = INT16_MIN;
    const Values lanes = {value, value, value, value, value, value, value, value};
    return lanes;
  }
  static Values load(const int16_t* values) { return olvex::load<Values>(values); }
  static Values highest(Values some, Values others) { return olvex::highest(some, others); }
  Mask operator()(Values highest) const { return highest > below_; }

 private:
  int16_t below_;
};

// One to seven classes: two half vectors that end with the fourth and with the last class. The
// lanes of the first that begin in the box distances are masked out.
class NarrowInt16Cell {
 public:
  typedef int16_t Element;
  typedef Int16Reach::Values Values;
  static const size_t kCellsPerBranch = 8;
  static const size_t kChains = 2;

  NarrowInt16Cell(const CellGrid& grid, const Int16Reach& reach)
      : reach_(reach), last_(grid.first_class + grid.num_classes - kHalf) {
    const size_t in_first = grid.num_classes < kHalf ? grid.num_classes : kHalf;
    first_ = grid.first_class + in_first - kHalf;
    for (size_t k = 0; k < kHalf; ++k) {
      is_class_[k] = is_class_[k + kHalf] = k + in_first >= kHalf ? -1 : 0;
    }
  }

  static Values lowest() { return Int16Reach::lowest(); }
  Values load(const int16_t* cell) const {
    const olvex::Int64x2 halves = {olvex::load<int64_t>(cell + first_),
                                   olvex::load<int64_t>(cell + last_)};
    return reinterpret_cast<Values>(halves);
  }
  static Values highest(Values some, Values others) { return Int16Reach::highest(some, others); }
  bool reaches(Values highest) const { return olvex::any(reach_(highest) & is_class_); }

  template <typename Look>
  void at_each(const Look& look) const {
    look(0);
  }

 private:
  static const size_t kHalf = 4;

  Int16Reach reach_;
  size_t first_;
  size_t last_;
  olvex::Int16x8 is_class_;
};

// ---- The pass over a layer ----------------------------------------------------------------------

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

// Few cells reach: one branch passes over several that do not, the more the smaller the cells are.
template <typename CellTest, typename Visitor>
void scan(const typename CellTest::Element* values, const CellGrid& grid, const CellTest& test,
          Visitor& visit) {
  const size_t channels = grid.channels;
  const size_t at_once = CellTest::kCellsPerBranch;
  size_t cell = 0;
  const typename CellTest::Element* p = values;
  for (; cell + at_once <= grid.cells; cell += at_once) {
    if (any_reaches<at_once>(p, channels, test)) {
      visit_tested(values, channels, test, cell, cell + at_once, visit);
    }
    p += at_once * channels;
  }
  visit_tested(values, channels, test, cell, grid.cells, visit);
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
    scan(values, grid, WideCell<Fp32Reach>(grid, Fp32Reach(threshold)), visit);
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
