// stable_box_test.cpp - the self-contained stabiliser.
#include "base/postprocess/det_postprocess.h"

#include <math.h>

#include <vector>

#include <gtest/gtest.h>

#include "tests/unit/boxes.h"

namespace {

typedef std::vector<float> Corners;

Corners corners(const BoxInfo& box) {
  return {box.x1, box.y1, box.x2, box.y2};
}

TEST(StableBox, HoldsCornersStrictlyAboveItsThreshold) {
  const BoxInfo square = make_box(0, 0, 100, 100);
  const BoxInfo close = make_box(0, 0, 100, 80), as_close = make_box(0, 20, 100, 100);
  const BoxInfo closer = make_box(0, 0, 100, 90);
  const float above_63 = nextafterf(63, 64);
  struct Row {
    const char* name;
    std::vector<BoxInfo> previous;
    BoxInfo next;
    Corners result;
  };
  const Row rows[] = {
      {"first call", {}, square, {0, 0, 100, 100}},
      {"identical", {square}, square, {0, 0, 100, 100}},
      {"overlap 0.63", {square}, make_box(0, 0, 100, 63), {0, 0, 100, 63}},
      {"overlap just above", {square}, make_box(0, 0, 100, above_63), {0, 0, 100, 100}},
      {"apart", {square}, make_box(200, 0, 300, 100), {200, 0, 300, 100}},
      {"apart in both directions", {square}, make_box(101, 101, 201, 201), {101, 101, 201, 201}},
      {"first of equals", {close, as_close}, square, {0, 0, 100, 80}},
      {"the higher of two", {close, closer}, square, {0, 0, 100, 90}},
      {"class does not count", {make_box(0, 0, 9, 9, 0.9f, 5)}, make_box(0, 0, 9, 8), {0, 0, 9, 9}},
      {"no area", {make_box(5, 5, 5, 5)}, make_box(5, 5, 5, 5.5f), {5, 5, 5, 5.5f}},
      {"smaller than the constant",
       {make_box(0, 0, 1e-4f, 1e-4f)},
       make_box(0, 0, 1e-4f, 9e-5f),
       {0, 0, 1e-4f, 9e-5f}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    OLVEX_StableBox stabiliser;
    stabiliser.stable_box(to_list(row.previous));
    const olvex::vector<BoxInfo> result = stabiliser.stable_box(list_of({row.next}));
    ASSERT_EQ(result.size(), 1u);
    EXPECT_EQ(corners(result[0]), row.result);
  }
}

TEST(StableBox, ReplacesNothingButTheCornersAndRemembersTheResult) {
  OLVEX_StableBox stabiliser;
  stabiliser.stable_box(list_of({make_box(0, 0, 100, 100, 0.1f, 1, 11)}));
  BoxInfo next = make_box(0, 0, 100, 70, 0.2f, 2, 22);
  next.track_id = 5;
  next.keypts.resize(3, KeyPt_t());
  const olvex::vector<BoxInfo> held = stabiliser.stable_box(list_of({next, next}));
  ASSERT_EQ(held.size(), 2u);
  for (const BoxInfo& box : held) {
    EXPECT_EQ(corners(box), (Corners{0, 0, 100, 100}));
    EXPECT_TRUE(box.score == 0.2f && box.label == 2 && box.pts == 22 && box.track_id == 5);
    EXPECT_EQ(box.keypts.size(), 3u);
  }
  // Held against the box as it was returned: the overlap is 0.64 with it and 0.91 with the input.
  EXPECT_EQ(corners(stabiliser.stable_box(list_of({make_box(0, 0, 100, 64)}))[0]),
            (Corners{0, 0, 100, 100}));
  stabiliser.stable_box(list_of<BoxInfo>({}));
  EXPECT_EQ(corners(stabiliser.stable_box(list_of({next}))[0]), (Corners{0, 0, 100, 70}));
}

}  // namespace
