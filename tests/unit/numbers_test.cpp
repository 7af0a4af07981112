// SPDX-License-Identifier: Apache-2.0
// numbers_test.cpp - what keeps results the same on every machine: conversions that saturate, and
// arithmetic that is neither fused nor wider than it says. The flags are in cmake/OlvexFlags.cmake.
#include "utils/numeric/saturating_cast.h"

#include <float.h>
#include <math.h>
#include <stdint.h>

#include <tuple>

#include <gtest/gtest.h>

#include "base/tracker/iou_tracker/iout.h"
#include "tests/unit/boxes.h"

namespace {

static_assert(FLT_EVAL_METHOD == 0, "float arithmetic must be done in float");

TEST(SaturatingCast, truncates_and_stays_in_the_range) {
  const std::tuple<double, int32_t, uint32_t, int16_t> rows[] = {
      {0.99, 0, 0, 0},
      {-1.5, -1, 0, -1},
      {-32769.0, -32769, 0, -32768},
      {2147483648.0, INT32_MAX, 2147483648u, 32767},
      {4294967295.5, INT32_MAX, UINT32_MAX, 32767},
      {-2147483649.0, INT32_MIN, 0, -32768},
      {INFINITY, INT32_MAX, UINT32_MAX, 32767},
      {-INFINITY, INT32_MIN, 0, -32768},
      {NAN, 0, 0, 0},
  };
  for (const auto& [value, as_int, as_unsigned, as_short] : rows) {
    EXPECT_EQ(olvex::saturating_cast<int32_t>(value), as_int) << value;
    EXPECT_EQ(olvex::saturating_cast<uint32_t>(value), as_unsigned) << value;
    EXPECT_EQ(olvex::saturating_cast<int16_t>(value), as_short) << value;
  }
}

TEST(Arithmetic, is_not_fused) {
  volatile float input = 1.0f + 0x1p-12f;
  const float here = input;
  EXPECT_EQ(here * here - 1.0f, 0x1p-11f);  // fused: 0x1p-11 + 0x1p-24
  TrackBBox a = make_track_box(0, 0, 0x1.a34p+3f, 0x1.3b999ap+3f);
  TrackBBox b = make_track_box(0, 0, 0x1.8b4cccp+3f, 0x1.a13334p+3f);
  EXPECT_EQ(track_bbox_iou(a, b, true), 0x1.72570ep-1f);  // fused: 0x1.72570ap-1
}

}  // namespace
