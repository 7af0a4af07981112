// SPDX-License-Identifier: Apache-2.0
// lanes.h - several numbers side by side, in the compilers' portable vector types. Operators work
// lane by lane and round like those on single numbers, so the same expression on lanes and on one
// number gives the same bits.
//
// Floats are kFloatLanes numbers. On 32-bit ARM that is one: its vector unit flushes denormal
// numbers to zero, so compilers take float lanes apart again there, at a cost.
#ifndef UTILS_NUMERIC_LANES_H
#define UTILS_NUMERIC_LANES_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

namespace olvex {

typedef int32_t Int32x4 __attribute__((vector_size(16)));
typedef int16_t Int16x8 __attribute__((vector_size(16)));
typedef int64_t Int64x2 __attribute__((vector_size(16)));

#if defined(__arm__)
typedef float Floats;
typedef bool FloatsMask;  // of a comparison
typedef int32_t FloatsInt32;
const size_t kFloatLanes = 1;

inline Floats splat(float value) {
  return value;
}
inline FloatsInt32 splat(int32_t value) {
  return value;
}
inline void set_lane(Floats& lanes, size_t /*lane*/, float value) {
  lanes = value;
}
inline void set_lane(FloatsInt32& lanes, size_t /*lane*/, int32_t value) {
  lanes = value;
}
inline float get_lane(Floats lanes, size_t /*lane*/) {
  return lanes;
}
inline int32_t get_lane(FloatsInt32 lanes, size_t /*lane*/) {
  return lanes;
}
#else
typedef float Floats __attribute__((vector_size(16)));
typedef Int32x4 FloatsInt32;
typedef Int32x4 FloatsMask;
const size_t kFloatLanes = 4;

inline Floats splat(float value) {
  const Floats lanes = {value, value, value, value};
  return lanes;
}
inline FloatsInt32 splat(int32_t value) {
  const FloatsInt32 lanes = {value, value, value, value};
  return lanes;
}
inline void set_lane(Floats& lanes, size_t lane, float value) {
  lanes[lane] = value;
}
inline void set_lane(FloatsInt32& lanes, size_t lane, int32_t value) {
  lanes[lane] = value;
}
inline float get_lane(Floats lanes, size_t lane) {
  return lanes[lane];
}
inline int32_t get_lane(FloatsInt32 lanes, size_t lane) {
  return lanes[lane];
}
#endif

// Reads lanes from memory of any alignment.
template <typename Lanes, typename Element>
Lanes load(const Element* from) {
  Lanes lanes;
  memcpy(&lanes, from, sizeof(lanes));
  return lanes;
}

// The higher of each two numbers; NaN in the first is passed over.
// Requires: no NaN in the second.
template <typename Lanes>
Lanes highest(Lanes some, Lanes others) {
  return some > others ? some : others;
}
#if defined(__SSE2__)
// The instruction does just that, which compilers do not see where a number is constant.
inline Floats highest(Floats some, Floats others) {
  return __builtin_ia32_maxps(some, others);
}
#endif

// Whether any lane of a comparison's result is set.
inline bool any(bool mask) {
  return mask;
}
inline bool any(Int32x4 mask) {
#if defined(__SSE2__)
  return __builtin_ia32_movmskps(reinterpret_cast<Floats>(mask)) != 0;  // sign bits
#else
  const Int64x2 halves = reinterpret_cast<Int64x2>(mask);
  return (halves[0] | halves[1]) != 0;
#endif
}
inline bool any(Int16x8 mask) {
  // A set lane need not have the sign bit of its pair.
  const Int32x4 pairs = reinterpret_cast<Int32x4>(mask);
  return any(pairs | (pairs << 16));
}

// Bit k is set when lane k is.
inline unsigned int bits_of(bool mask) {
  return mask ? 1 : 0;
}
inline unsigned int bits_of(Int32x4 mask) {
#if defined(__SSE2__)
  return static_cast<unsigned int>(__builtin_ia32_movmskps(reinterpret_cast<Floats>(mask)));
#else
  const Int32x4 bits = {1, 2, 4, 8};
  const Int32x4 set = mask & bits;
  return static_cast<unsigned int>(set[0] | set[1] | set[2] | set[3]);
#endif
}

// Whether all lanes are set.
inline bool all(bool mask) {
  return mask;
}
inline bool all(Int32x4 mask) {
  return bits_of(mask) == 15;
}

}  // namespace olvex

#endif  // UTILS_NUMERIC_LANES_H
