// SPDX-License-Identifier: Apache-2.0
// ipu_decode_test.cpp - box lists that the accelerator has decoded, in both element types.
#include "base/postprocess/det_postprocess.h"

#include <math.h>

#include <algorithm>
#include <numeric>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "base/postprocess/output_tensors.h"
#include "tests/unit/boxes.h"

namespace {

typedef std::vector<float> Values;

// The output of one frame.
struct Outputs {
  std::vector<Tensor> tensors;
  OutputTensors outputs = {};
  DetDecodeInfo info;

  Outputs(const std::vector<int>& c, const std::vector<Values>& values,
          QV_IPU_ELEMENT_FORMAT format) {
    info.out_format = format;
    for (size_t k = 0; k < values.size(); ++k) {
      const bool is_count = k + 1 == values.size();
      const float scale = is_count ? 0.2f : ldexpf(1, -6 - static_cast<int>(k));
      tensors.push_back(Tensor(values[k], scale));
      outputs.add(tensors.back().data(format), scale, 0, 0, c[k],
                  {4, values[k].size(), values[k].size()});
    }
    outputs.describe(info);
    info.memory = NULL;
    info.conf_threshold = info.nms_threshold = 0.5f;
    info.num_classes = 80;
    info.num_keypoints = 9;
    info.class_specific_nms = 0;  // not read here
  }
  Outputs(const Outputs&) = delete;
};

// Four rows; the last one overlaps the first.
const Values kBoxes = {0, 0, 8, 8, 20, 0, 28, 8, 40, 0, 48.5f, 8, 0, 1, 8, 9};

Values numbers(const olvex::vector<BoxInfo>& boxes) {
  Values result;
  for (const BoxInfo& box : boxes) {
    const float label = static_cast<float>(box.label);
    result.insert(result.end(), {box.x1, box.y1, box.x2, box.y2, box.score, label});
  }
  return result;
}

TEST(IpuDecode, reads_each_layout) {
  const Values scores = {0.75f, 0.5f, 0.484375f, 0.625f};
  const Values classes = {2.5f, 0, 0, 1.375f}, order = {1, 0, 2, 3}, points(40, 0.0f);
  const Values wide = {0, 0, 8, 8, -1, 20, 0, 28, 8, -1};
  const Values short_boxes = {1, 2, 3, 20, 0, 28};  // behind its second row there is nothing
  const BoxInfo beyond = make_box(20, 0, 28, 0, 0.5f);
  const BoxInfo before = make_box(0, 0, 0, 8, 0.5f);  // from the element before the first one on
  const std::vector<int> a = {4, 1, 0, 1}, b = {4, 1, 1, 1, 1}, c = {4, 1, 10, 1, 1};
  const BoxInfo one = make_box(0, 0, 8, 8, 0.75f), one_of_3 = make_box(0, 0, 8, 8, 0.75f, 3);
  const BoxInfo two = make_box(20, 0, 28, 8, 0.5f), last_of_1 = make_box(0, 1, 8, 9, 0.625f, 1);
  const struct {
    const char* name;
    std::vector<int> channels;
    std::vector<Values> tensors;
    size_t num_rows;            // 0: the memory is not known
    std::vector<BoxInfo> hits;  // by falling score
  } rows[] = {
      {"A, score equal to the threshold", a, {kBoxes, scores, order, {2}}, 0, {one, two}},
      {"A, score below the threshold", a, {kBoxes, scores, {2}, {1}}, 0, {}},
      {"A, five values per row", {5, 1, 0, 1}, {wide, scores, {1}, {1}}, 0, {two}},
      {"index rounds half up", a, {kBoxes, scores, {0.5f}, {1}}, 0, {two}},
      {"count 2.6", a, {kBoxes, scores, {1, 0, 3}, {2.6f}}, 0, {one, two}},
      {"count 1.4 is 1", a, {kBoxes, scores, {1, 0}, {1.4f}}, 0, {two}},
      {"count negative", a, {kBoxes, scores, order, {-3}}, 0, {}},
      {"one class suppresses", a, {kBoxes, scores, {3, 0}, {2}}, 0, {one}},
      {"two do not", b, {kBoxes, classes, scores, {0, 3}, {2}}, 0, {one_of_3, last_of_1}},
      {"C", c, {kBoxes, scores, points, {1}, {1}}, 0, {two}},
      {"beyond the known rows", a, {kBoxes, scores, {3, -2, 1, 0}, {9}}, 3, {one, two}},
      {"endless", a, {kBoxes, scores, {0, 1, -300, INFINITY}, {INFINITY}}, 4, {one, two}},
      {"more indices than rows", a, {kBoxes, scores, {2, 2, 2, 2, 1, 0}, {6}}, 4, {one, two}},
      {"A, three values per row", {3, 1, 0, 1}, {short_boxes, scores, {1}, {1}}, 4, {beyond}},
      {"A, a negative number", {-1, 1, 0, 1}, {kBoxes, scores, {1}, {1}}, 4, {before}},
      {"A, no values in a row", {0, 1, 0, 1}, {kBoxes, scores, {0}, {1}}, 4, {one}},
  };
  for (const auto& row : rows) {
    for (const QV_IPU_ELEMENT_FORMAT format : {QV_IPU_FORMAT_FP32, QV_IPU_FORMAT_INT16}) {
      SCOPED_TRACE(std::string(row.name) + ", format " + std::to_string(format));
      Outputs outputs(row.channels, row.tensors, format);
      for (OutputMemory& memory : outputs.outputs.memory) {
        memory.rows = row.num_rows;
      }
      outputs.info.memory = row.num_rows == 0 ? NULL : outputs.outputs.memory;
      olvex::vector<BoxInfo> boxes = list_of({make_box(1, 2, 3, 4)});
      EXPECT_EQ(ipu_decode(outputs.info, boxes), 0);
      EXPECT_EQ(numbers(boxes), numbers(list_of(row.hits)));
      EXPECT_EQ(outputs.info.num_classes, -1);
      const bool has_points = std::count(row.channels.begin(), row.channels.end(), 10) == 1;
      EXPECT_EQ(outputs.info.num_keypoints, has_points ? 5 : 0);
    }
  }
}

TEST(IpuDecode, knows_key_points_by_their_channels) {
  const std::tuple<int, size_t, bool> rows[] = {{15, 5, true}, {10, 5, false}, {8, 4, false},
                                                {12, 4, true}, {51, 17, true}, {63, 21, true}};
  for (const auto& [channels, num_keypoints, has_score] : rows) {
    SCOPED_TRACE(channels);
    Values points(static_cast<size_t>(2 * channels));
    std::iota(points.begin(), points.end(), 0.0f);  // each value is its own position
    Outputs outputs({4, 1, channels, 1, 1}, {kBoxes, {0, 1}, points, {1}, {1}}, QV_IPU_FORMAT_FP32);
    olvex::vector<BoxInfo> boxes;
    testing::internal::CaptureStdout();
    EXPECT_EQ(ipu_decode(outputs.info, boxes), 0);
    const std::string line = "output_kpt_score = " + std::to_string(has_score) + "\n";
    EXPECT_NE(testing::internal::GetCapturedStdout().find(line), std::string::npos);
    ASSERT_EQ(boxes.size(), 1u);
    ASSERT_EQ(boxes[0].keypts.size(), num_keypoints);
    const KeyPt_t& last = boxes[0].keypts[num_keypoints - 1];
    const float x = static_cast<float>(2 * channels - (has_score ? 3 : 2));
    EXPECT_TRUE(last.x == x && last.y == x + 1);
    EXPECT_EQ(last.score, has_score ? x + 2 : 1.0f);
  }
}

TEST(IpuDecode, refuses_what_it_does_not_know) {
  const QV_IPU_ELEMENT_FORMAT fp32 = QV_IPU_FORMAT_FP32, int16 = QV_IPU_FORMAT_INT16;
  const std::string layout = "unknown output channel combinations: ";
  const std::string type = "unknown out tensors format!\ninfo.out_format = ";
  const struct {
    const char* name;
    std::vector<int> channels;
    QV_IPU_ELEMENT_FORMAT format;
    int result;
    std::string errors;
  } rows[] = {
      {"A with a channel count", {4, 1, 1, 1}, fp32, 12, layout + "4 1 1 1\n"},
      {"A with two scores", {4, 2, 0, 1}, fp32, 12, layout + "4 2 0 1\n"},
      {"B with two classes", {4, 2, 1, 1, 1}, int16, 12, layout + "4 2 1 1\n"},
      {"C without a value per point", {4, 1, 0, 1, 1}, fp32, 12, layout + "4 1 0 1\n"},
      {"no tensor", {}, fp32, 12, layout + "0 0 0 0\n"},
      {"one tensor", {4}, int16, 12, layout + "4 0 0 0\n"},
      {"three tensors", {4, 1, 0}, fp32, 12, layout + "4 1 0 0\n"},
      {"six tensors", {4, 1, 1, 1, 1, 1}, fp32, 12, layout + "4 1 1 1\n"},
      {"points", {4, 1, 9, 1, 1}, int16, 12, " unknown keypoint tensor channel number 9\n"},
      {"type", {4, 1, 0, 1}, QV_IPU_FORMAT_INT8, 13, type + "4\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Outputs outputs(row.channels, std::vector<Values>(row.channels.size(), Values(8, 1.0f)),
                    row.format);
    olvex::vector<BoxInfo> boxes = list_of({make_box(1, 2, 3, 4)});
    testing::internal::CaptureStdout();
    EXPECT_EQ(ipu_decode(outputs.info, boxes), row.result);
    EXPECT_EQ(captured_errors(), row.errors);
    EXPECT_TRUE(boxes.empty());
  }
}

// By the platform's word. Of each tensor the first row is there, or all of it but one element.
TEST(IpuDecode, refuses_buffers_that_end_before_what_is_read) {
  const Values column = {0.5f, 0.5f, 0.5f, 0.5f}, points(40, 0.5f);
  const std::pair<std::vector<int>, std::vector<Values>> kLayouts[] = {
      {{4, 1, 0, 1}, {kBoxes, column, {0, 3}, {2}}},
      {{4, 1, 1, 1, 1}, {kBoxes, column, column, {0, 3}, {2}}},
      {{4, 1, 10, 1, 1}, {kBoxes, column, points, {0, 3}, {2}}}};
  for (const auto& [channels, tensors] : kLayouts) {
    for (size_t t = 0; t < tensors.size(); ++t) {
      SCOPED_TRACE(std::to_string(channels.size()) + " tensors, short: " + std::to_string(t));
      Outputs outputs(channels, tensors, QV_IPU_FORMAT_FP32);
      outputs.info.memory = outputs.outputs.memory;
      olvex::vector<BoxInfo> boxes;
      EXPECT_EQ(ipu_decode(outputs.info, boxes), 0);
      EXPECT_FALSE(boxes.empty());
      --outputs.outputs.memory[t].readable;
      testing::internal::CaptureStdout();
      EXPECT_EQ(ipu_decode(outputs.info, boxes), 12);
      EXPECT_EQ(captured_errors(), "shape of model output tensor might be wrong, please check!\n");
      EXPECT_TRUE(boxes.empty());
      // Nothing of the short part is asked for: the list names the first row only.
      *static_cast<float*>(outputs.outputs.data[tensors.size() - 1]) = 1;
      EXPECT_EQ(ipu_decode(outputs.info, boxes), t + 1 == tensors.size() ? 12 : 0);
    }
  }
}

TEST(IpuDecode, typed_forms_append_and_do_not_suppress) {
  Outputs outputs({4, 1, 0, 1}, {kBoxes, {0.5f, 0, 0, 0.75f}, {0, 3}, {2}}, QV_IPU_FORMAT_FP32);
  olvex::vector<BoxInfo> boxes = list_of({make_box(20, 0, 28, 8, 1)});
  EXPECT_EQ(ipu_decode_fp32(outputs.info, boxes), 0);
  EXPECT_EQ(numbers(boxes), (Values{20, 0, 28, 8, 1, 0,  //
                                    0, 0, 8, 8, 0.5f, 0, 0, 1, 8, 9, 0.75f, 0}));
}

}  // namespace
