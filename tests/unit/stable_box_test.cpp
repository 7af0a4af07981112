// stable_box_test.cpp - the self-contained stabiliser.
#include "base/postprocess/det_postprocess.h"

#include <math.h>

#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "tests/unit/boxes.h"

namespace {

void expect_corners(const BoxInfo& box, const BoxInfo& expected) {
  EXPECT_TRUE(box.x1 == expected.x1 && box.y1 == expected.y1);
  EXPECT_TRUE(box.x2 == expected.x2 && box.y2 == expected.y2);
}

TEST(StableBox, holds_corners_strictly_above_its_threshold) {
  const BoxInfo square = make_box(0, 0, 100, 100), thin = make_box(0, 0, 1.71e-7f, 1);
  const BoxInfo close = make_box(0, 0, 100, 80), as_close = make_box(0, 20, 100, 100);
  const BoxInfo closer = make_box(0, 0, 100, 90), point = make_box(5, 5, 5, 5);
  const BoxInfo far_off = make_box(10, 20, 30, 60);
  // Last the index of the previous box that is held; -1: none.
  const std::tuple<const char*, std::vector<BoxInfo>, BoxInfo, int> rows[] = {
      {"first call", {}, square, -1},
      {"overlap 0.63", {square}, make_box(0, 0, 100, 63), -1},
      {"overlap just above", {square}, make_box(0, 0, 100, nextafterf(63, 64)), 0},
      {"apart in both directions", {square}, make_box(101, 101, 201, 201), -1},
      {"first of equals", {close, as_close}, square, 0},
      {"the higher of two", {close, closer}, square, 1},
      {"class does not count", {make_box(0, 0, 9, 9, 0.9f, 5)}, make_box(0, 0, 9, 8), 0},
      {"away from the origin", {far_off}, make_box(10, 20, 30, 50), 0},
      {"half of it", {far_off}, make_box(10, 20, 30, 40), -1},
      {"no area", {point}, make_box(5, 5, 5, 5.5f), -1},
      {"the constant decides", {thin}, make_box(0, 0, 1.71e-7f, 1.001f), 0},
      {"on its other side", {thin}, make_box(0, 0, 1.7e-7f, 1.001f), -1},
  };
  for (const auto& [name, previous, next, held] : rows) {
    SCOPED_TRACE(name);
    OLVEX_StableBox stabiliser;
    stabiliser.stable_box(list_of(previous));
    const olvex::vector<BoxInfo> result = stabiliser.stable_box(list_of({next}));
    ASSERT_EQ(result.size(), 1u);
    expect_corners(result[0], held < 0 ? next : previous[static_cast<size_t>(held)]);
  }
}

TEST(StableBox, replaces_nothing_but_the_corners_and_remembers_the_result) {
  OLVEX_StableBox stabiliser;
  const BoxInfo first = make_box(0, 0, 100, 100, 0.1f, 1, 11);
  stabiliser.stable_box(list_of({first}));
  BoxInfo next = make_box(0, 0, 100, 70, 0.2f, 2, 22);
  next.track_id = 5;
  next.keypts.resize(3, KeyPt_t());
  const olvex::vector<BoxInfo> held = stabiliser.stable_box(list_of({next, next}));
  ASSERT_EQ(held.size(), 2u);
  expect_corners(held[0], first);
  expect_corners(held[1], first);
  EXPECT_TRUE(held[1].score == 0.2f && held[1].label == 2 && held[1].pts == 22);
  EXPECT_TRUE(held[1].track_id == 5 && held[1].keypts.size() == 3);
  // Held against the box as it was returned: the overlap is 0.64 with it and 0.91 with the input.
  expect_corners(stabiliser.stable_box(list_of({make_box(0, 0, 100, 64)}))[0], first);
  stabiliser.stable_box(list_of({}));
  expect_corners(stabiliser.stable_box(list_of({next}))[0], next);
}

}  // namespace
