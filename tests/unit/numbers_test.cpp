// numbers_test.cpp - what keeps results the same on every machine: conversions that saturate, and
// arithmetic that is neither fused nor wider than it says. The flags are in cmake/OlvexFlags.cmake.
#include "utils/numeric/saturating_cast.h"

#include <float.h>
#include <math.h>
#include <stdint.h>
#include <string.h>

#include <gtest/gtest.h>

#include "base/tracker/iou_tracker/iout.h"
#include "tests/unit/boxes.h"

namespace {

static_assert(FLT_EVAL_METHOD == 0, "float arithmetic must be done in float");

TEST(SaturatingCast, TruncatesAndStaysInTheRange) {
  struct Row {
    double value;
    int32_t as_int;
    uint32_t as_unsigned;
    int16_t as_short;
  };
  const Row rows[] = {
      {0.99, 0, 0, 0},
      {-0.99, 0, 0, 0},
      {-1.5, -1, 0, -1},
      {32767.9, 32767, 32767, 32767},
      {-32769.0, -32769, 0, -32768},
      {2147483647.9, INT32_MAX, 2147483647u, 32767},
      {2147483648.0, INT32_MAX, 2147483648u, 32767},
      {4294967295.5, INT32_MAX, UINT32_MAX, 32767},
      {-2147483649.0, INT32_MIN, 0, -32768},
      {INFINITY, INT32_MAX, UINT32_MAX, 32767},
      {-INFINITY, INT32_MIN, 0, -32768},
      {NAN, 0, 0, 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.value);
    EXPECT_EQ(olvex::saturating_cast<int32_t>(row.value), row.as_int);
    EXPECT_EQ(olvex::saturating_cast<uint32_t>(row.value), row.as_unsigned);
    EXPECT_EQ(olvex::saturating_cast<int16_t>(row.value), row.as_short);
  }
}

TEST(Arithmetic, IsNotFusedHere) {
  volatile float input = 1.0f + 0x1p-12f;
  const float a = input;
  EXPECT_EQ(a * a - 1.0f, 0x1p-11f);  // fused: 0x1p-11 + 0x1p-24
}

TEST(Arithmetic, IsNotFusedInTheLibrary) {
  TrackBBox a = make_track_box(0, 0, 0x1.a34p+3f, 0x1.3b999ap+3f);
  TrackBBox b = make_track_box(0, 0, 0x1.8b4cccp+3f, 0x1.a13334p+3f);
  EXPECT_EQ(track_bbox_iou(a, b, true), 0x1.72570ep-1f);  // fused: 0x1.72570ap-1
}

}  // namespace
