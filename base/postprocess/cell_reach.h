// SPDX-License-Identifier: Apache-2.0
// cell_reach.h - whether any class logit of a cell reaches the threshold, several logits at a time. For
// cell_scan.h, which passes over the cells of a layer.
#ifndef BASE_POSTPROCESS_CELL_REACH_H
#define BASE_POSTPROCESS_CELL_REACH_H

#include <float.h>
#include <math.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#if defined(__arm__) && defined(__ARM_NEON)
#include <arm_neon.h>
#elif defined(__x86_64__)
#include <immintrin.h>
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

// The highest values of several cells are found first, lane by lane, and compared with the threshold at the
// end: one operation for each vector less than comparing each. A test has
//   kCellsPerBranch    how many cells are asked at once,
//   kChains            by how many independent chains of maxima
//   lowest()           what is below every threshold, in all lanes
//   load(values)       the lanes that begin there
//   highest(some, others)
//   at_each(look)      calls look(offset) for what has to be loaded of a cell
//   reaches(highest)   whether any lane does

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

// Set by tests, which try what a processor without the wider vectors runs.
inline bool& leaves_wider_lanes_unused() {
  static bool value = false;
  return value;
}

#if defined(__x86_64__)
inline bool has_wider_lanes() {
  return __builtin_cpu_supports("avx") != 0 && !leaves_wider_lanes_unused();
}

// For processors with vectors of eight floats: at least as many classes.
class WiderFp32Cell : public WideCell<Fp32Reach> {
 public:
  WiderFp32Cell(const CellGrid& grid, float threshold)
      : WideCell<Fp32Reach>(grid, Fp32Reach(threshold)), threshold_(threshold) {}

  // pass_over for four cells, as above: the same maxima, and the same comparison.
  __attribute__((target("avx"))) size_t pass_over_cells(const float* values, const CellGrid& grid,
                                                        size_t cell) const {
    const size_t last = grid.first_class + grid.num_classes - kLanes;
    for (; cell + 4 <= grid.cells; cell += 4) {
      const float* const p[4] = {values + cell * grid.channels, values + (cell + 1) * grid.channels,
                                 values + (cell + 2) * grid.channels,
                                 values + (cell + 3) * grid.channels};
      __m256 chains[4];
      for (size_t c = 0; c < 4; ++c) {
        chains[c] = _mm256_max_ps(_mm256_loadu_ps(p[c] + last), _mm256_set1_ps(-INFINITY));
      }
      for (size_t k = grid.first_class; k < last; k += kLanes) {
#pragma GCC unroll 4
        for (size_t c = 0; c < 4; ++c) {
          chains[c] = _mm256_max_ps(_mm256_loadu_ps(p[c] + k), chains[c]);
        }
      }
      const __m256 highest =
          _mm256_max_ps(_mm256_max_ps(chains[0], chains[1]), _mm256_max_ps(chains[2], chains[3]));
      const __m256 reached = _mm256_cmp_ps(highest, _mm256_set1_ps(threshold_), _CMP_GE_OQ);
      if (_mm256_movemask_ps(reached) != 0) {
        break;
      }
    }
    return cell;
  }

 private:
  static const size_t kLanes = 8;

  float threshold_;
};
#endif

}  // namespace cell_scan

#endif  // BASE_POSTPROCESS_CELL_REACH_H
