// SPDX-License-Identifier: Apache-2.0
// raw_decode_test.cpp - raw output layers, in both element types.
#include "base/postprocess/det_postprocess.h"

#include <math.h>

#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "base/postprocess/output_tensors.h"
#include "tests/unit/boxes.h"

namespace {

typedef std::vector<float> Values;

// One layer of cells of stride 8.
struct Layer {
  float scale = 1.0f / 256;
  Tensor cells;
  OutputTensors outputs = {};
  DetDecodeInfo info;
  olvex::vector<BoxInfo> boxes;

  Layer(int w, int h, const Values& values, QV_IPU_ELEMENT_FORMAT format) : cells(values, scale) {
    for (int layer = 0; layer < 2; ++layer) {  // the second one is the same
      outputs.add(cells.data(format), scale, w, h, static_cast<int>(values.size()) / (w * h),
                  OutputMemory());
    }
    outputs.describe(info);
    info.memory = NULL;
    info.net_in_w = 8 * w;
    info.net_in_h = 8 * h;
    info.num_out_layers = 1;
    info.num_classes = 2;
    info.conf_threshold = info.nms_threshold = 0.5f;
    info.out_format = format;
  }
  Layer(const Layer&) = delete;

  int decode(int index = 0) { return det_decode_one_layer(info, index, boxes); }
};

// One cell with one value per side and two classes.
TEST(RawDecode, picks_the_best_class_from_the_threshold_on) {
  const float inf = INFINITY;
  const struct {
    const char* name;
    float conf_threshold, logit0, logit1;
    int label;  // -1: dropped
    float score;
  } rows[] = {
      {"logit equal to the threshold", 0.5f, 0, -1, 0, 0.5f},
      {"logit just below the threshold", 0.5f, -1.0f / 256, -1, -1, 0},
      {"second class is better", 0.5f, 0, 1, 1, sigmoid(1)},
      {"lowest class of equals", 0.5f, 1, 1, 0, sigmoid(1)},
      {"threshold 0 keeps all", 0, -100, -90, 1, 0},
      {"threshold 1 keeps none", 1, 100, 100, -1, 0},
      {"threshold above 1 keeps none", 1.5f, 100, 100, -1, 0},
      {"threshold 1 keeps infinity", 1, 0, inf, 1, 1},
      {"threshold 0 keeps minus infinity", 0, -inf, -inf, 0, 0},
      {"minus infinity", 0.5f, -inf, -inf, -1, 0},
      {"NaN is never better", 0.5f, NAN, 0, 1, 0.5f},
      {"nothing but NaN", 0.5f, NAN, NAN, -1, 0},
      {"nothing but NaN at threshold 0", 0, NAN, NAN, 0, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Layer layer(1, 1, {0, 0, 0, 0, row.logit0, row.logit1}, QV_IPU_FORMAT_FP32);
    layer.info.conf_threshold = row.conf_threshold;
    EXPECT_EQ(layer.decode(), 0);
    ASSERT_EQ(layer.boxes.size(), row.label < 0 ? 0u : 1u);
    if (row.label >= 0) {
      EXPECT_TRUE(layer.boxes[0].label == row.label && layer.boxes[0].score == row.score);
    }
  }
}

// The only cell to pass is row 1, column 2 of a 3 x 2 grid: its centre is (20, 12).
TEST(RawDecode, places_boxes_and_key_points) {
  const float low = -100, high = 100;  // sigmoid 0 and 1
  Values uniform(66, 0.0f), peaks(66, low);
  uniform[64] = peaks[64] = -1;  // the logit of class 0
  peaks[1] = peaks[16 + 2] = peaks[32 + 3] = peaks[48 + 15] = peaks[65] = 0;
  const Values triples = {0, 0, 0, 0, -1, 0, 0.5f, 0.25f, 0, -1, 1, low};
  const Values pairs = {0, 0, 0, 0, -1, 0, 0.5f, 0.25f, low, 1}, square = {-12, -20, 52, 44};
  const Values triple_points = {24, 12, 0.5f, 0, 24, 0}, pair_points = {24, 12, 1, -1584, 24, 1};
  const Values int16_points = {24, 12, 0, -1584, 24, 0.5f};  // the last one has nothing behind it
  const struct {
    const char* name;
    int reg_max, num_keypoints;
    Values cell, corners, fp32_points, int16_points;
  } rows[] = {
      {"left and right", 1, 0, {low, 0, high, low, -1, 0}, {20, -20, 148, 12}, {}, {}},
      {"top and bottom", 1, 0, {low, high, 0, 0, -1, 0}, {20, -116, 52, 44}, {}, {}},
      {"16 equal bins: 7.5 strides", 16, 0, uniform, {-40, -48, 80, 72}, {}, {}},
      {"16 bins with peaks at 1, 2, 3 and 15", 16, 0, peaks, {12, -4, 44, 132}, {}, {}},
      {"triples", 1, 2, triples, square, triple_points, triple_points},
      {"pairs", 1, 2, pairs, square, pair_points, int16_points},
  };
  for (const auto& row : rows) {
    for (const QV_IPU_ELEMENT_FORMAT format : {QV_IPU_FORMAT_FP32, QV_IPU_FORMAT_INT16}) {
      SCOPED_TRACE(std::string(row.name) + ", format " + std::to_string(format));
      Values cells(5 * row.cell.size(), -50.0f);
      cells.insert(cells.end(), row.cell.begin(), row.cell.end());
      Layer layer(3, 2, cells, format);
      layer.info.reg_max = row.reg_max;
      layer.info.num_keypoints = row.num_keypoints;
      EXPECT_EQ(layer.decode(), 0);
      ASSERT_EQ(layer.boxes.size(), 1u);
      const BoxInfo& box = layer.boxes[0];
      EXPECT_EQ((Values{box.x1, box.y1, box.x2, box.y2}), row.corners);
      EXPECT_EQ(box.label, 1);
      Values points;
      for (const KeyPt_t& point : box.keypts) {
        points.insert(points.end(), {point.x, point.y, point.score});
      }
      EXPECT_EQ(points, format == QV_IPU_FORMAT_FP32 ? row.fp32_points : row.int16_points);
    }
  }
}

TEST(RawDecode, int16_pair_takes_its_score_from_the_next_cell) {
  Layer layer(2, 1, {-100, 0, 0, 0, 0, 0, 0, 0, 100, 0, 0, 0, 0, 0, 0, 0}, QV_IPU_FORMAT_INT16);
  layer.info.num_keypoints = 1;
  EXPECT_EQ(layer.decode(), 0);
  ASSERT_EQ(layer.boxes.size(), 2u);
  EXPECT_EQ(layer.boxes[0].keypts[0].score, 1.0f);  // sigmoid of the next cell's 100
  EXPECT_EQ(layer.boxes[1].keypts[0].score, 0.5f);  // behind the last cell: 0
}

TEST(RawDecode, refuses_layers_that_do_not_fit) {
  typedef DetDecodeInfo I;
  const char kIndex[] = "illegal access to out layer", kShape[] = "Mismatch between input shape(";
  const char kCell[] = "mismatch between out shape(", kType[] = "Not implemented out format: 4 !";
  const std::tuple<const char*, int, int, const char*, void (*)(I&)> rows[] = {
      {"as it should be", 0, 0, "", [](I&) {}},
      {"layer too large", 1, 2, kIndex, [](I&) {}},
      {"layer negative", -1, 2, kIndex, [](I&) {}},
      {"other multiple in height", 0, 12, kShape, [](I& i) { i.net_out_h[0] = 1; }},
      {"height no multiple", 0, 12, kShape, [](I& i) { i.net_in_h = 17; }},
      {"width no multiple", 0, 12, kShape, [](I& i) { i.net_in_w = 35; }},
      {"no columns", 0, 12, kShape, [](I& i) { i.net_out_w[0] = 0; }},
      {"no rows", 0, 12, kShape, [](I& i) { i.net_out_h[0] = 0; }},
      {"a channel too many", 0, 12, kCell, [](I& i) { i.net_out_c[0] = 7; }},
      {"too few for a pair", 0, 12, kCell, [](I& i) { i.num_keypoints = 1; }},
      {"minus a triple", 0, 12, kCell, [](I& i) { i.num_keypoints = -1, i.net_out_c[0] = 3; }},
      {"negative classes", 0, 12, kCell, [](I& i) { i.num_classes = -1, i.net_out_c[0] = 3; }},
      {"no bins", 0, 12, kCell, [](I& i) { i.reg_max = 0, i.net_out_c[0] = 2; }},
      {"element type", 0, 2, kType, [](I& i) { i.out_format = QV_IPU_FORMAT_INT8; }},
  };
  for (const auto& [name, index, result, error, change] : rows) {
    SCOPED_TRACE(name);
    Layer layer(4, 2, Values(4 * 2 * 6, -9.0f), QV_IPU_FORMAT_FP32);
    change(layer.info);
    testing::internal::CaptureStdout();
    EXPECT_EQ(layer.decode(index), result);
    const std::string errors = captured_errors();
    EXPECT_EQ(errors.find(error), 0u) << errors;
    EXPECT_EQ(errors.empty(), result == 0);
  }
}

TEST(RawDecode, goes_on_behind_a_layer_that_fails) {
  // Both cells pass, with boxes that overlap by 57 / 73 and have different labels.
  Layer layer(2, 1, {0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 2}, QV_IPU_FORMAT_FP32);
  layer.outputs.channels[0] = 7;
  layer.info.num_out_layers = 2;
  for (const QV_BOOL class_specific : {QV_BOOL{1}, QV_BOOL{0}}) {
    layer.info.class_specific_nms = class_specific;
    olvex::vector<BoxInfo> boxes = list_of({make_box(1, 2, 3, 4)});
    det_postprocess(layer.info, boxes);
    ASSERT_EQ(boxes.size(), class_specific ? 2u : 1u);
    EXPECT_EQ(boxes[0].label, 1) << "the better one comes first";
  }
}

}  // namespace
