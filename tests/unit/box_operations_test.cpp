// box_operations_test.cpp - sort, activations, suppression, and the overlap of stabilisation.
#include "base/postprocess/det_postprocess.h"

#include <math.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

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
TEST(QuickSort, LeavesEqualScoresInItsOwnOrder) {
  struct Row {
    std::vector<float> scores;
    Names order;
  };
  const Row rows[] = {
      {{}, {}},
      {{1}, {0}},
      {{1, 1}, {1, 0}},
      {{1, 1, 1}, {2, 1, 0}},
      {{1, 1, 1, 1}, {2, 3, 0, 1}},
      {{1, 1, 1, 1, 1}, {3, 4, 2, 0, 1}},
      {{5, 9, 5, 9}, {3, 1, 0, 2}},
      {{1, 2, 3, 4}, {3, 2, 1, 0}},
      {{4, 3, 2, 1}, {0, 1, 2, 3}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.scores));
    olvex::vector<BoxInfo> boxes = scored(row.scores);
    qsort_descent_inplace(boxes);
    EXPECT_EQ(names(boxes), row.order);
    for (const BoxInfo& box : boxes) {
      EXPECT_EQ(box.keypts.size(), box.pts) << "key points stay with their box";
    }
  }
}

TEST(QuickSort, SortsOnlyTheGivenRange) {
  olvex::vector<BoxInfo> boxes = scored({1, 2, 3, 4, 5});
  qsort_descent_inplace(boxes, 1, 3);
  EXPECT_EQ(names(boxes), (Names{0, 3, 2, 1, 4}));
}

TEST(QuickSort, SortsRandomListsAndLosesNothingOverNaN) {
  std::mt19937 random(42);
  for (int round = 0; round < 300; ++round) {
    SCOPED_TRACE(round);
    const bool with_nan = round % 2 == 1;
    std::vector<float> scores(random() % 60);
    for (float& score : scores) {
      const auto value = random() % 20;
      score = with_nan && value < 4 ? NAN : static_cast<float>(value);
    }
    olvex::vector<BoxInfo> boxes = scored(scores);
    qsort_descent_inplace(boxes);
    Names order = names(boxes);
    if (!with_nan) {
      EXPECT_TRUE(std::is_sorted(order.begin(), order.end(),
                                 [&](size_t a, size_t b) { return scores[a] > scores[b]; }));
    }
    std::sort(order.begin(), order.end());
    EXPECT_EQ(order, names(scored(scores)));
  }
}

uint32_t bits_of(float value) {
  uint32_t bits;
  memcpy(&bits, &value, sizeof(bits));
  return bits;
}

TEST(Activations, AreTheSameBitsEverywhere) {
  EXPECT_EQ(bits_of(sigmoid(0)), 0x3f000000u);
  EXPECT_EQ(bits_of(sigmoid(1)), 0x3f3b26a8u);
  EXPECT_EQ(bits_of(sigmoid(-2.5f)), 0x3d9b5b88u);
  EXPECT_EQ(sigmoid(-INFINITY), 0.0f);
  EXPECT_EQ(sigmoid(INFINITY), 1.0f);
  EXPECT_TRUE(isnan(sigmoid(NAN)));

  EXPECT_EQ(fast_exp(0), 0.9674530029296875f);
  EXPECT_EQ(fast_exp(1), 2.755202054977417f);
  EXPECT_EQ(bits_of(fast_exp(5.5f)), 0x436f5345u);
  EXPECT_EQ(bits_of(fast_exp(-80)), 0x05c27883u);
  EXPECT_EQ(bits_of(fast_exp(-1000)), 0u);
  EXPECT_EQ(bits_of(fast_exp(1000)), 0xffffffffu);

  float values[] = {1, 2, 3};
  softmax_(values, values, 3);
  EXPECT_EQ(bits_of(values[0]), 0x3db861f3u);
  EXPECT_EQ(bits_of(values[1]), 0x3e7a9a1au);
  EXPECT_EQ(bits_of(values[2]), 0x3f2a4d3bu);
  const float large[] = {100, 0};
  softmax_(large, values, 2);
  EXPECT_TRUE(isnan(values[0]));
  EXPECT_EQ(values[1], 0.0f);
}

TEST(Nms, ErasesFromTheThresholdOn) {
  const float half = 0.5f;
  const float above_half = nextafterf(half, 1.0f);
  struct Row {
    const char* name;
    std::vector<BoxInfo> boxes;
    float threshold;
    unsigned char class_specific;
    Names kept;
  };
  const BoxInfo whole = make_box(0, 0, 9, 9, 0.9f, 0, 1);
  const BoxInfo whole_again = make_box(0, 0, 9, 9, 0.8f, 0, 2);
  const BoxInfo whole_other = make_box(0, 0, 9, 9, 0.8f, 1, 2);
  const BoxInfo upper_half = make_box(0, 0, 9, 4, 0.8f, 0, 2);
  const BoxInfo shares_a_column = make_box(9, 0, 18, 9, 0.8f, 0, 2);
  const BoxInfo next_to = make_box(10, 0, 19, 9, 0.8f, 0, 2);
  const BoxInfo both_apart = make_box(20, 20, 29, 29, 0.8f, 0, 2);
  const BoxInfo no_number = make_box(NAN, 0, 9, 9, 0.8f, 0, 2);
  const BoxInfo no_area = make_box(3, 3, 2, 2, 0.9f, 0, 1);
  const BoxInfo no_area_again = make_box(3, 3, 2, 2, 0.8f, 0, 2);
  const BoxInfo right = make_box(4, 0, 13, 9, 0.8f, 0, 2);
  const BoxInfo far_right = make_box(8, 0, 17, 9, 0.7f, 0, 3);
  const Row rows[] = {
      {"nothing", {}, half, 1, {}},
      {"the better one stays", {whole_again, whole}, half, 1, {1}},
      {"identical at threshold 1", {whole, whole_again}, 1.0f, 1, {1}},
      {"ratio equal to the threshold", {whole, upper_half}, half, 1, {1}},
      {"ratio just below the threshold", {whole, upper_half}, above_half, 1, {1, 2}},
      {"one common column is an overlap of 10 / 190", {whole, shares_a_column}, 0.05f, 1, {1}},
      {"neighbours do not overlap", {whole, next_to}, 0.001f, 1, {1, 2}},
      {"apart in both directions", {whole, both_apart}, 0.001f, 1, {1, 2}},
      {"other label, specific", {whole, whole_other}, half, 1, {1, 2}},
      {"other label, any flag but 0 is specific", {whole, whole_other}, half, 2, {1, 2}},
      {"other label, not specific", {whole, whole_other}, half, 0, {1}},
      {"other label, threshold 0", {whole, whole_other}, 0.0f, 1, {1}},
      {"ratio NaN from a corner", {whole, no_number}, 0.0f, 0, {1, 2}},
      {"ratio NaN from empty boxes", {no_area, no_area_again}, 0.0f, 0, {1, 2}},
      {"an erased box erases nothing", {whole, right, far_right}, 0.4f, 1, {1, 3}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    olvex::vector<BoxInfo> boxes = to_list(row.boxes);
    testing::internal::CaptureStdout();
    nms(boxes, row.threshold, row.class_specific);
    EXPECT_EQ(captured_messages(), "DLA_INFO: nms, NMS_THRESH: " + std::to_string(row.threshold) +
                                       "\nDLA_INFO: qsort_descent_inplace\n"
                                       "DLA_INFO: do nms now!\n");
    EXPECT_EQ(names(boxes), row.kept);
  }
}

TEST(Nms, AgreesWithItsIndexReturningForm) {
  std::mt19937 random(7);
  for (int round = 0; round < 200; ++round) {
    SCOPED_TRACE(round);
    const auto below = [&random](unsigned n) { return static_cast<float>(random() % n); };
    olvex::vector<BoxInfo> boxes;
    for (auto n = random() % 40; n > 0; --n) {
      const float x = random() % 50 == 0 ? NAN : below(40);
      const float y = below(40);
      boxes.push_back(make_box(x, y, x + below(30) - 2, y + below(30) - 2, below(8) / 8,
                               static_cast<int>(random() % 3), n));
    }
    olvex::vector<BoxInfo> kept(boxes);
    olvex::vector<int> picked = list_of({99});
    const float threshold = below(11) / 10;
    const unsigned char class_specific = round % 2 == 0;
    testing::internal::CaptureStdout();
    nms(kept, threshold, class_specific);
    testing::internal::GetCapturedStdout();
    nms_sorted_bboxes(boxes, picked, threshold, class_specific);
    Names picked_names;
    for (const int index : picked) {
      picked_names.push_back(boxes[static_cast<size_t>(index)].pts);
    }
    EXPECT_EQ(picked_names, names(kept));
  }
}

TEST(IouRatio, TruncatesTheIntersectionAndWraps) {
  struct Row {
    const char* name;
    BoxInfo a, b;
    uint32_t ratio_bits;
  };
  const Row rows[] = {
      {"identical", make_box(0, 0, 9, 9), make_box(0, 0, 9, 9), bits_of(1.0f)},
      {"fractions", make_box(0, 0, 10.9f, 10.9f), make_box(0.5f, 0.5f, 10, 10), 0x3f6abbb2u},
      {"negative corners count as 0", make_box(-5, -5, 4, 4), make_box(-5, -5, 4, 4),
       bits_of(16.0f / 146.0f)},
      {"apart in x: 2 x (2 - 10) wraps to 2^32 - 16", make_box(0, 0, 2, 2), make_box(10, 0, 12, 2),
       bits_of(-1.0f)},
      {"apart in both: (2 - 10)^2 is 64", make_box(0, 0, 2, 2), make_box(10, 10, 12, 12),
       bits_of(-64.0f / 56.0f)},
      {"empty", make_box(3, 3, 3, 3), make_box(3, 3, 3, 3), 0u},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(bits_of(iou_ratio(row.a, row.b)), row.ratio_bits) << row.name;
  }
}

TEST(Overlap, IsMeasuredInThreeWays) {
  const BoxInfo a = make_box(0, 0, 9.5f, 7, 0.9f, 0, 1);
  const BoxInfo b = make_box(0, 0, 9.5f, 3.5f, 0.8f, 0, 2);
  TrackBBox track_a = make_track_box(0, 0, 9.5f, 7);
  TrackBBox track_b = make_track_box(0, 0, 9.5f, 3.5f);
  EXPECT_EQ(track_bbox_iou(track_a, track_b, true), 0.5f);  // 33.25 / 66.5
  EXPECT_EQ(iou_ratio(a, b), 27.0f / 72.75f);               // 9 x 3 whole pixels
  const float inclusive = 0.5625f;                          // 10.5 x 4.5 / (10.5 x 8)
  for (const float threshold : {inclusive, nextafterf(inclusive, 1.0f)}) {
    olvex::vector<BoxInfo> boxes = list_of({a, b});
    olvex::vector<int> picked;
    nms_sorted_bboxes(boxes, picked, threshold, 1);
    EXPECT_EQ(picked.size(), threshold == inclusive ? 1u : 2u);
  }
}

}  // namespace
