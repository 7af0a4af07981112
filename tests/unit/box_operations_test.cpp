// SPDX-License-Identifier: Apache-2.0
// box_operations_test.cpp - operations on boxes: sort, activations, suppression, the overlap of
// stabilisation and the stabiliser by itself, and tracks confirmed by boxes of other classes.
#include "base/postprocess/det_postprocess.h"

#include <math.h>
#include <stdint.h>
#include <string.h>

#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "base/tracker/iou_tracker/iout.h"
#include "tests/unit/boxes.h"
#include "video/det/include/det_schedule.h"

namespace {

typedef std::vector<unsigned long long> Names;

Names names(const olvex::vector<BoxInfo>& boxes) {
  Names result;
  for (const BoxInfo& box : boxes) {
    result.push_back(box.pts);
  }
  return result;
}

olvex::vector<BoxInfo> scored(const std::vector<float>& scores) {
  olvex::vector<BoxInfo> boxes;
  for (const float score : scores) {
    BoxInfo box = make_box(0, 0, 1, 1, score, 0, boxes.size());
    box.keypts.resize(boxes.size(), KeyPt_t());
    boxes.push_back(box);
  }
  return boxes;
}

// Worked out by hand with the partition around the middle element.
TEST(QuickSort, leaves_equal_scores_in_its_own_order) {
  const std::tuple<std::vector<float>, Names> rows[] = {
      {{}, {}},
      {{1, 1}, {1, 0}},
      {{1, 1, 1, 1}, {2, 3, 0, 1}},
      {{1, 1, 1, 1, 1}, {3, 4, 2, 0, 1}},
      {{5, 9, 5, 9}, {3, 1, 0, 2}},
      {{4, 3, 2, 1}, {0, 1, 2, 3}},
      {{3, 1, 4, 1, 5, 9, 2, 6, 5, 3}, {5, 7, 4, 8, 2, 0, 9, 6, 3, 1}},
      {{NAN, 1, NAN, 2, NAN}, {3, 4, 2, 0, 1}},
  };
  for (const auto& [scores, order] : rows) {
    olvex::vector<BoxInfo> boxes = scored(scores);
    qsort_descent_inplace(boxes);
    EXPECT_EQ(names(boxes), order);
    for (const BoxInfo& box : boxes) {
      EXPECT_EQ(box.keypts.size(), box.pts) << "key points stay with their box";
    }
  }
  olvex::vector<BoxInfo> boxes = scored({1, 2, 3, 4, 5});
  qsort_descent_inplace(boxes, 1, 3);
  EXPECT_EQ(names(boxes), (Names{0, 3, 2, 1, 4}));
}

uint32_t bits_of(float value) {
  uint32_t bits;
  memcpy(&bits, &value, sizeof(bits));
  return bits;
}

TEST(Activations, are_the_same_bits_everywhere) {
  float soft[3], overflowed[2];
  softmax_(std::vector<float>({1, 2, 3}).data(), soft, 3);
  softmax_(std::vector<float>({100, 0}).data(), overflowed, 2);
  const std::tuple<float, uint32_t> rows[] = {
      {sigmoid(0), 0x3f000000u},  {sigmoid(1), 0x3f3b26a8u},        {sigmoid(-2.5f), 0x3d9b5b88u},
      {sigmoid(-INFINITY), 0u},   {sigmoid(INFINITY), 0x3f800000u}, {fast_exp(0), 0x3f77ab00u},
      {fast_exp(1), 0x4030553bu}, {fast_exp(5.5f), 0x436f5345u},    {fast_exp(-80), 0x05c27883u},
      {fast_exp(-1000), 0u},      {fast_exp(1000), 0xffffffffu},    {soft[0], 0x3db861f3u},
      {soft[1], 0x3e7a9a1au},     {soft[2], 0x3f2a4d3bu},           {overflowed[1], 0u}};
  for (const auto& [value, bits] : rows) {
    EXPECT_EQ(bits_of(value), bits) << value;
  }
  EXPECT_TRUE(isnan(sigmoid(NAN)) && isnan(overflowed[0]));
}

TEST(Nms, erases_from_the_threshold_on) {
  const BoxInfo whole = make_box(0, 0, 9, 9, 0.9f, 0, 1), far = make_box(8, 0, 17, 9, 0.7f, 0, 3);
  const BoxInfo no_area = make_box(3, 3, 2, 2, 0.9f, 0, 1), half = make_box(0, 0, 9, 4, 0.7f, 0, 3);
  const auto second = [](float x1, float y1, float x2, float y2, int label = 0) {
    return make_box(x1, y1, x2, y2, 0.8f, label, 2);
  };
  const std::tuple<const char*, std::vector<BoxInfo>, float, unsigned char, Names> rows[] = {
      {"nothing", {}, 0.5f, 1, {}},
      {"the better one stays", {second(0, 0, 9, 9), whole}, 1, 1, {1}},
      {"ratio equal to the threshold", {whole, second(0, 0, 9, 4)}, 0.5f, 1, {1}},
      {"ratio below", {whole, second(0, 0, 9, 4)}, nextafterf(0.5f, 1), 1, {1, 2}},
      {"one common column is 10 / 190", {whole, second(9, 0, 18, 9)}, 0.05f, 1, {1}},
      {"neighbours do not overlap", {whole, second(10, 0, 19, 9)}, 0.001f, 1, {1, 2}},
      {"apart in both directions", {whole, second(20, 20, 29, 29)}, 0.001f, 1, {1, 2}},
      {"any flag but 0 is specific", {whole, second(0, 0, 9, 9, 1)}, 0.5f, 2, {1, 2}},
      {"other label, not specific", {whole, second(0, 0, 9, 9, 1)}, 0.5f, 0, {1}},
      {"other label, threshold 0", {whole, second(0, 0, 9, 9, 1)}, 0, 1, {1}},
      {"ratio NaN from a corner", {whole, second(NAN, 0, 9, 9)}, 0, 0, {1, 2}},
      {"ratio NaN from empty boxes", {no_area, second(3, 3, 2, 2)}, 0, 0, {1, 2}},
      {"each box has its own area", {whole, second(0, 0, 9, 9), half}, 0.4f, 1, {1}},
      {"an erased box erases nothing", {whole, second(4, 0, 13, 9), far}, 0.4f, 1, {1, 3}},
  };
  for (const auto& [name, given, threshold, class_specific, kept] : rows) {
    olvex::vector<BoxInfo> boxes = list_of(given);
    olvex::vector<int> picked(1, 99);
    nms_sorted_bboxes(boxes, picked, threshold, class_specific);
    Names picked_names;
    for (const int index : picked) {
      picked_names.push_back(boxes[static_cast<size_t>(index)].pts);
    }
    EXPECT_EQ(picked_names, kept) << name;
    boxes = list_of(given);
    nms(boxes, threshold, class_specific);
    EXPECT_EQ(names(boxes), kept) << name;
  }
}

TEST(IouRatio, truncates_the_intersection_and_wraps) {
  const BoxInfo corner = make_box(0, 0, 2, 2), outside = make_box(-5, -5, 4, 4);
  const BoxInfo point = make_box(3, 3, 3, 3), fractions = make_box(0, 0, 10.9f, 10.9f);
  const std::tuple<const char*, BoxInfo, BoxInfo, uint32_t> rows[] = {
      {"fractions", fractions, make_box(0.5f, 0.5f, 10, 10), 0x3f6abbb2u},
      {"negative corners count as 0", outside, outside, bits_of(16.0f / 146.0f)},
      {"2 x (2 - 10) wraps to 2^32 - 16", corner, make_box(10, 0, 12, 2), bits_of(-1.0f)},
      {"(2 - 10)^2 is 64", corner, make_box(10, 10, 12, 12), bits_of(-64.0f / 56.0f)},
      {"empty", point, point, 0u},
  };
  for (const auto& [name, a, b, ratio_bits] : rows) {
    EXPECT_EQ(bits_of(iou_ratio(a, b)), ratio_bits) << name;
  }
}

// ---- The stabiliser by itself -------------------------------------------------------------------

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

// ---- Confirmation of tracks by boxes of other classes -------------------------------------------

Track make_track(int id, const TrackBBox& box) {
  Track track;
  track.id = id;
  track.boxes.push_back(make_track_box(-500, -500, 1, 1));  // the newest box counts
  track.boxes.push_back(box);
  return track;
}

// Checks tracks of class 1 against boxes of classes 2 and 3.
void check(OlvexIouTracker* tracker, const std::vector<BoxInfo>& detections) {
  DetDoubleCheckParams_t params;
  params.check_target_class = 1;
  params.check_with_classes = list_of<int>({2, 3});
  olvex::vector<BoxInfo> boxes = list_of(detections);
  do_double_check(boxes.data(), static_cast<int>(boxes.size()), tracker, params);
}

const TrackBBox kTarget = make_track_box(0, 0, 10, 10, 0.9f, 1);
const BoxInfo kConfirming = make_box(2, 2, 6, 6, 0.9f, 2);

TEST(DoubleCheck, confirms_by_the_covered_part_of_a_confident_box) {
  const Track target = make_track(7, kTarget);
  const Track bystander = make_track(7, make_track_box(0, 0, 10, 10, 0.9f, 2));
  Track confirmed(target), moved(target);
  confirmed.pass_double_check = true;
  moved.moved = true;
  const BoxInfo more_out = make_box(5.01f, 0, 15.01f, 10, 0.9f, 3);
  const std::tuple<const char*, Track, std::vector<BoxInfo>, bool, bool> rows[] = {
      {"nothing detected", target, {}, true, false},
      {"covered", target, {kConfirming}, true, true},
      {"covered by the threshold exactly", target, {make_box(5, 0, 15, 10, 0.9f, 3)}, true, true},
      {"covered by less", target, {more_out}, true, false},
      {"lies in a large one", target, {make_box(-100, -100, 100, 100, 0.9f, 2)}, true, false},
      {"score equal to the threshold", target, {make_box(2, 2, 6, 6, 0.5f, 2)}, true, true},
      {"score below the threshold", target, {make_box(2, 2, 6, 6, 0.499f, 2)}, true, false},
      {"class that does not confirm", target, {make_box(2, 2, 6, 6, 0.9f, 4)}, true, false},
      {"box without area", target, {make_box(5, 5, 5, 5, 0.9f, 2)}, true, false},
      {"second of two", target, {more_out, kConfirming}, true, true},
      {"track of another class", bystander, {kConfirming}, false, false},
      {"confirmed before", confirmed, {}, false, true},
      {"has moved", moved, {kConfirming}, false, false},
      {"has no box", Track(), {kConfirming}, false, false},
  };
  for (const auto& [name, track, detections, examined, passed] : rows) {
    SCOPED_TRACE(name);
    OlvexIouTracker tracker;
    tracker.active_tracks_.push_back(track);
    tracker.active_tracks_[0].double_check = true;
    tracker.finished_tracks_ = tracker.active_tracks_;
    check(&tracker, detections);
    EXPECT_EQ(tracker.finished_tracks_[0].double_check, examined);
    EXPECT_TRUE(tracker.active_tracks_[0].double_check) << "a reset is not written back";
    EXPECT_EQ(tracker.finished_tracks_[0].pass_double_check, passed);
    EXPECT_EQ(tracker.active_tracks_[0].pass_double_check, passed);
  }
  check(NULL, {kConfirming});
}

TEST(DoubleCheck, copies_flags_to_as_many_live_tracks_as_are_reported) {
  OlvexIouTracker tracker;
  tracker.active_tracks_.push_back(make_track(1, make_track_box(100, 0, 10, 10, 0.9f, 1)));
  tracker.active_tracks_.push_back(make_track(2, kTarget));
  tracker.finished_tracks_.push_back(tracker.active_tracks_[1]);
  check(&tracker, {kConfirming});
  EXPECT_TRUE(tracker.finished_tracks_[0].pass_double_check);
  EXPECT_FALSE(tracker.active_tracks_[1].pass_double_check);

  tracker.finished_tracks_ = tracker.active_tracks_;
  check(&tracker, {kConfirming});
  EXPECT_TRUE(tracker.active_tracks_[1].pass_double_check);
  EXPECT_TRUE(tracker.active_tracks_[0].double_check);
  EXPECT_FALSE(tracker.active_tracks_[0].pass_double_check);
}

TEST(Records, start_blank_or_with_their_defaults) {
  const TrackBBox track_box;
  const std::vector<char> zeros(sizeof(track_box));
  EXPECT_EQ(memcmp(&track_box, zeros.data(), sizeof(track_box)), 0);
  const BoxInfo box;
  EXPECT_EQ((std::vector<float>{box.x1, box.y1, box.x2, box.y2, box.score}), std::vector<float>(5));
  EXPECT_TRUE(box.label == 0 && box.pts == 0 && box.track_id == 0);
  EXPECT_EQ(KeyPt_t().score, -1.0f);
  const DetStableBboxParams_t steady;
  EXPECT_TRUE(steady.stable_bbox == 0 && steady.stable_sensitive == 0.63f);
  const IoutStaticParams_t still;
  EXPECT_TRUE(still.ignore_static_objects == 0 && still.static_sensitive == 0.85f);
  EXPECT_EQ(still.ref_frame, 5);
  const DetDoubleCheckParams_t strict;
  EXPECT_TRUE(strict.enable == 0 && strict.check_target_class == -1);
  EXPECT_TRUE(strict.overlap_threshold == 0.5f && strict.check_class_conf_threshold == 0.5f);
  const IouTrackerParams_t tracker;
  EXPECT_TRUE(tracker.enable == 0 && tracker.ignore_frame_number == 1);
  EXPECT_EQ(tracker.max_lost_times, 10);
  const DetDecodeInfo decoding;
  EXPECT_TRUE(decoding.num_classes == -1 && decoding.reg_max == 1 && decoding.memory == NULL);
  EXPECT_EQ(decoding.class_specific_nms, 1);
  const DetInfo_t info;
  EXPECT_TRUE(info.model_buffer == nullptr && info.model_buffer_len == 0);
  EXPECT_TRUE(info.had_create_device == 0 && info.threshold == 0.0f);
}

}  // namespace
