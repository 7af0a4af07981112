// SPDX-License-Identifier: Apache-2.0
// saturating_cast.h - the one conversion from floating point to integers.
//
// The camera's processor converts with saturation; C++ leaves a value outside the range undefined,
// and other processors give other bits. Every conversion whose range is not proven goes through
// here.
#ifndef UTILS_NUMERIC_SATURATING_CAST_H
#define UTILS_NUMERIC_SATURATING_CAST_H

#include <limits>

namespace olvex {

// Truncates toward zero; a value outside the range of Integer gives its nearest end, NaN gives 0.
// Requires: Integer has at most 32 bits, so that its range is exact in double.
template <typename Integer>
Integer saturating_cast(double value) {
  static_assert(sizeof(Integer) <= 4, "the range must be exact in double");
  const Integer lowest = std::numeric_limits<Integer>::min();
  const Integer highest = std::numeric_limits<Integer>::max();
  if (value != value) {
    return 0;
  }
  if (value <= static_cast<double>(lowest)) {
    return lowest;
  }
  if (value >= static_cast<double>(highest)) {
    return highest;
  }
  return static_cast<Integer>(value);
}

}  // namespace olvex

#endif  // UTILS_NUMERIC_SATURATING_CAST_H
