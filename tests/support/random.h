// SPDX-License-Identifier: Apache-2.0
// random.h - numbers drawn from a seed, the same on every machine and in every run. For the tests and
// the benchmarks.
#ifndef TESTS_SUPPORT_RANDOM_H
#define TESTS_SUPPORT_RANDOM_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>

class Random {
 public:
  explicit Random(std::uint64_t seed) : state_(seed) {}

  std::uint32_t next() {  // 31 bits
    state_ = state_ * 6364136223846793005u + 1442695040888963407u;
    return static_cast<std::uint32_t>(state_ >> 33);
  }
  int below(int count) { return static_cast<int>(next() % static_cast<std::uint32_t>(count)); }
  bool one_in(int count) { return below(count) == 0; }
  bool chance(int percent) { return below(100) < percent; }
  float between(float low, float high) {
    return low + (high - low) * static_cast<float>(next() >> 7) / 16777216.0f;
  }
  template <class Value>
  Value pick(std::initializer_list<Value> values) {
    return values.begin()[next() % values.size()];
  }

 private:
  std::uint64_t state_;
};

#endif  // TESTS_SUPPORT_RANDOM_H
