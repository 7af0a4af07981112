// box_operations_test.cpp - sort, activations, suppression, and the overlap of stabilisation.
#include "base/postprocess/det_postprocess.h"

#include <math.h>
#include <stdint.h>
#include <string.h>

#include <tuple>
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

}  // namespace
