// SPDX-License-Identifier: Apache-2.0
// decimal_text_test.cpp - decimal_text.h against printf: floats of all magnitudes, ties and their neighbours,
// doubles. OLVEX_FLOAT_STEP in the environment says how many floats lie between two that are tried; 1 tries all.
#include "utils/log/decimal_text.h"

#include <math.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/random.h"

namespace {

const uint32_t kFloat2To32 = 0x4f800000;  // the bits of 2^32

// Says how the text differs from printf's; empty when it does not.
std::string difference(double value) {
  char ours[olvex::kLongestDecimal + 1] = "(none)";
  char theirs[sizeof(ours)];
  char* const end = olvex::write_six_decimals(ours, value, ".");
  if (end != nullptr) {
    *end = 0;
  }
  snprintf(theirs, sizeof(theirs), "%f", value);
  if (strcmp(ours, theirs) == 0) {
    return "";
  }
  char exactly[64];
  snprintf(exactly, sizeof(exactly), "%a: ", value);
  return std::string(exactly) + ours + ", and not " + theirs;
}

double float_of(uint32_t bits) {
  float value;
  memcpy(&value, &bits, sizeof(value));
  return static_cast<double>(value);
}

// Tries the floats of both signs below 2^32 whose bits are first, first + step, ...
void try_floats(uint64_t first, uint64_t step, std::string& found) {
  for (uint64_t bits = first; bits < kFloat2To32 && found.empty(); bits += step) {
    const double value = float_of(static_cast<uint32_t>(bits));
    found = difference(value);
    if (found.empty()) {
      found = difference(-value);
    }
  }
}

TEST(DecimalText, of_floats_is_that_of_printf) {
  const char* const setting = getenv("OLVEX_FLOAT_STEP");
  const uint64_t step = setting == nullptr ? OLVEX_FLOAT_STEP : strtoull(setting, nullptr, 0);
  ASSERT_GT(step, 0u);
  const size_t count = std::max(1u, std::thread::hardware_concurrency());
  std::vector<std::string> found(count);
  std::vector<std::thread> threads;
  for (size_t k = 0; k < count; ++k) {
    threads.emplace_back(try_floats, k * step, count * step, std::ref(found[k]));
  }
  for (size_t k = 0; k < count; ++k) {
    threads[k].join();
    EXPECT_EQ(found[k], "");
  }
}

// A value, its neighbours, and the same below zero.
void try_around(double value) {
  for (const double near : {value, nextafter(value, 0.0), nextafter(value, INFINITY)}) {
    EXPECT_EQ(difference(near), "");
    EXPECT_EQ(difference(-near), "");
  }
}

// Halves of the last decimal are whole 128ths.
TEST(DecimalText, of_doubles_is_that_of_printf) {
  for (const double whole : {0.0, 1.0, 9.0, 10.0, 99.0, 999.0, 1000.0, 9999.0, 4294967293.0}) {
    for (int k = 0; k <= 128; ++k) {
      try_around(whole + k / 128.0);
    }
  }
  for (const double value :
       {0.0009765625, 0.9999995, 4999.9999995, 4294967294.9999990, 5e-324, 2e-308}) {
    try_around(value);
  }
  Random random(1);
  for (int k = 0; k < 200000; ++k) {
    const double mantissa = 0.5 + random.next() / 4294967296.0 + random.next() / 9007199254740992.0;
    EXPECT_EQ(difference(ldexp(mantissa, 32 - random.below(44))), "");
  }
}

TEST(DecimalText, is_not_written_for_what_is_left_to_printf) {
  for (const double value : {4294967295.0, 4294967296.0, 1e300, HUGE_VAL, nan(""), 5e-7, 1e-4}) {
    for (const double either : {value, -value}) {
      char text[olvex::kLongestDecimal] = "kept";
      EXPECT_EQ(olvex::write_six_decimals(text, either, "."), nullptr);
      EXPECT_STREQ(text, "kept");
    }
  }
}

TEST(DecimalText, of_integers_is_that_of_printf) {
  for (int64_t power = 1; power <= INT32_MAX; power *= 10) {
    for (const int64_t number : {power - 1, power, -power, 0 - power + 1, int64_t{INT32_MIN}}) {
      char ours[16] = {};
      olvex::write_signed(ours, static_cast<int32_t>(number));
      EXPECT_EQ(ours, std::to_string(number));
    }
  }
}

}  // namespace
