// ipu_decode_test.cpp - box lists that the accelerator has decoded, in both element types.
#include "base/postprocess/det_postprocess.h"

#include <math.h>
#include <stdint.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/unit/boxes.h"

namespace {

typedef std::vector<std::vector<float>> Tensors;

// The output of one frame; as INT16 each tensor is stored in units of its own scale.
class Outputs {
 public:
  Outputs(const std::vector<int>& channels, const Tensors& tensors, QV_IPU_ELEMENT_FORMAT format)
      : channels_(channels), floats_(tensors), integers_(tensors.size()), scales_(tensors.size()) {
    for (size_t t = 0; t < tensors.size(); ++t) {
      scales_[t] = t + 1 == tensors.size() ? 0.2f : ldexpf(1.0f, -static_cast<int>(t) - 6);
      for (const float value : tensors[t]) {
        const float limited = fminf(fmaxf(value / scales_[t], -32768.0f), 32767.0f);
        integers_[t].push_back(static_cast<int16_t>(lroundf(limited)));
      }
      data_.push_back(format == QV_IPU_FORMAT_INT16 ? static_cast<void*>(integers_[t].data())
                                                    : static_cast<void*>(floats_[t].data()));
    }
    info.data = data_.data();
    info.scalar = scales_.data();
    info.net_out_c = channels_.data();
    info.out_format = format;
    info.num_out_layers = static_cast<int>(tensors.size());
    info.conf_threshold = 0.5f;
    info.nms_threshold = 0.5f;
    info.num_classes = 80;
    info.num_keypoints = 9;
    info.class_specific_nms = 0;  // not read here
  }
  Outputs(const Outputs&) = delete;

  DetDecodeInfo info;

 private:
  std::vector<int> channels_;
  Tensors floats_;
  std::vector<std::vector<int16_t>> integers_;
  std::vector<float> scales_;
  std::vector<void*> data_;
};

// Four rows of boxes; the last one overlaps the first.
const std::vector<float> kBoxes = {0, 0, 8, 8, 20, 0, 28, 8, 40, 0, 48.5f, 8, 0, 1, 8, 9};

// What is expected of one box: its row in kBoxes, its score and its label.
struct Hit {
  int row;
  float score;
  int label;
};

void expect_hits(const olvex::vector<BoxInfo>& boxes, const std::vector<Hit>& hits) {
  ASSERT_EQ(boxes.size(), hits.size());
  for (size_t i = 0; i < hits.size(); ++i) {
    const float* corners = &kBoxes[static_cast<size_t>(4 * hits[i].row)];
    EXPECT_TRUE(boxes[i].x1 == corners[0] && boxes[i].y1 == corners[1]) << i;
    EXPECT_TRUE(boxes[i].x2 == corners[2] && boxes[i].y2 == corners[3]) << i;
    EXPECT_TRUE(boxes[i].score == hits[i].score && boxes[i].label == hits[i].label) << i;
    EXPECT_TRUE(boxes[i].pts == 0 && boxes[i].track_id == 0) << i;
  }
}

TEST(IpuDecode, ReadsEachLayout) {
  typedef std::vector<float> T;
  const T scores = {0.75f, 0.5f, 0.484375f, 0.625f}, equal = {0.75f, 0.75f, 0.75f, 0.625f};
  const T classes = {2.5f, 0, 0, 1.375f}, order = {1, 0, 2, 3}, points(40, 0.0f);
  const T wide = {0, 0, 8, 8, -1, 20, 0, 28, 8, -1};
  const float inf = INFINITY;
  const std::vector<int> a = {4, 1, 0, 1}, a5 = {5, 1, 0, 1};
  const std::vector<int> b = {4, 1, 1, 1, 1}, c = {4, 1, 10, 1, 1};
  const std::vector<Hit> both = {{0, 0.75f, 0}, {1, 0.5f, 0}};
  struct Row {
    const char* name;
    std::vector<int> channels;
    Tensors tensors;
    int num_rows;
    std::vector<Hit> hits;  // by falling score
  };
  const Row rows[] = {
      {"A, score equal to the threshold", a, {kBoxes, scores, order, {2}}, 0, both},
      {"A, score below the threshold", a, {kBoxes, scores, {2}, {1}}, 0, {}},
      {"A, five values per row", a5, {wide, scores, {1}, {1}}, 0, {{1, 0.5f, 0}}},
      {"index rounds half up", a, {kBoxes, scores, {0.5f}, {1}}, 0, {{1, 0.5f, 0}}},
      {"count 2.6", a, {kBoxes, scores, {1, 0, 3}, {2.6f}}, 0, both},
      {"count 2.4 is 2", a, {kBoxes, equal, {3, 1, 0}, {2.4f}}, 0, {{1, 0.75f, 0}, {3, 0.625f, 0}}},
      {"count 0", a, {kBoxes, scores, order, {0}}, 0, {}},
      {"count negative", a, {kBoxes, scores, order, {-3}}, 0, {}},
      {"one class suppresses", a, {kBoxes, scores, {3, 0}, {2}}, 0, {{0, 0.75f, 0}}},
      {"two classes do not",
       b,
       {kBoxes, classes, scores, {0, 3}, {2}},
       0,
       {{0, 0.75f, 3}, {3, 0.625f, 1}}},
      {"C", c, {kBoxes, scores, points, {1}, {1}}, 0, {{1, 0.5f, 0}}},
      {"beyond the known rows", a, {kBoxes, scores, {3, -2, 1, 0}, {9}}, 3, {{1, 0.5f, 0}}},
      {"beyond any number", a, {kBoxes, scores, {0, 1, -300, inf}, {inf}}, 4, both},
      {"no rows at all", a, {{}, {}, {}, {2}}, -1, {}},
  };
  for (const Row& row : rows) {
    for (const QV_IPU_ELEMENT_FORMAT format : {QV_IPU_FORMAT_FP32, QV_IPU_FORMAT_INT16}) {
      SCOPED_TRACE(std::string(row.name) + ", format " + std::to_string(format));
      Outputs outputs(row.channels, row.tensors, format);
      outputs.info.num_rows = row.num_rows;
      olvex::vector<BoxInfo> boxes = list_of({make_box(1, 2, 3, 4)});
      testing::internal::CaptureStdout();
      EXPECT_EQ(ipu_decode(outputs.info, boxes), 0);
      const std::string type = format == QV_IPU_FORMAT_FP32 ? "fp32" : "int16";
      EXPECT_EQ(captured_messages().find("DLA_INFO: enter ipu " + type + " decode\n"), 0u);
      expect_hits(boxes, row.hits);
      EXPECT_EQ(outputs.info.num_classes, -1);
      EXPECT_EQ(outputs.info.num_keypoints, row.name[0] == 'C' ? 5 : 0);
    }
  }
}

TEST(IpuDecode, KnowsKeyPointsByTheirChannels) {
  struct Row {
    int channels;
    size_t num_keypoints;
    bool has_score;
  };
  const Row rows[] = {
      {15, 5, true}, {10, 5, false}, {8, 4, false}, {12, 4, true}, {51, 17, true}, {63, 21, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.channels);
    std::vector<float> points;  // each value is its own position
    for (int i = 0; i < 2 * row.channels; ++i) {
      points.push_back(static_cast<float>(i));
    }
    Outputs outputs({4, 1, row.channels, 1, 1}, {kBoxes, {0, 1}, points, {1}, {1}},
                    QV_IPU_FORMAT_FP32);
    olvex::vector<BoxInfo> boxes;
    testing::internal::CaptureStdout();
    EXPECT_EQ(ipu_decode(outputs.info, boxes), 0);
    EXPECT_NE(captured_messages().find(
                  "DLA_DEBUG: num_classes = -1\nDLA_DEBUG: num_keypoints = " +
                  std::to_string(row.num_keypoints) + "\nDLA_DEBUG: output_kpt_score = " +
                  std::to_string(row.has_score) + "\nDLA_DEBUG: num_boxes = 1\n"),
              std::string::npos);
    ASSERT_EQ(boxes.size(), 1u);
    ASSERT_EQ(boxes[0].keypts.size(), row.num_keypoints);
    const KeyPt_t& last = boxes[0].keypts[row.num_keypoints - 1];
    const float end = static_cast<float>(2 * row.channels);
    EXPECT_EQ(last.x, end - (row.has_score ? 3 : 2));
    EXPECT_EQ(last.y, end - (row.has_score ? 2 : 1));
    EXPECT_EQ(last.score, row.has_score ? end - 1 : 1.0f);
  }
}

TEST(IpuDecode, RefusesWhatItDoesNotKnow) {
  struct Row {
    const char* name;
    std::vector<int> channels;
    int format, result;
    std::string messages;
  };
  const std::string fp32 = "DLA_INFO: enter ipu fp32 decode\n";
  const std::string int16 = "DLA_INFO: enter ipu int16 decode\n";
  const std::string layout = "DLA_ERROR: unknown output channel combinations: ";
  const std::string points = "DLA_ERROR:  unknown keypoint tensor channel number ";
  const std::string type = "DLA_ERROR: unknown out tensors format!\nDLA_ERROR: info.out_format = ";
  const Row rows[] = {
      {"A with a channel count", {4, 1, 1, 1}, 5, 12, fp32 + layout + "4 1 1 1\n"},
      {"A with two scores", {4, 2, 0, 1}, 5, 12, fp32 + layout + "4 2 0 1\n"},
      {"B with two classes", {4, 2, 1, 1, 1}, 2, 12, int16 + layout + "4 2 1 1\n"},
      {"three tensors", {4, 1, 0}, 5, 12, fp32 + layout + "4 1 0 0\n"},
      {"six tensors", {4, 1, 1, 1, 1, 1}, 5, 12, fp32 + layout + "4 1 1 1\n"},
      {"rows too short for a box", {3, 1, 0, 1}, 5, 12, fp32 + layout + "3 1 0 1\n"},
      {"9 key-point channels", {4, 1, 9, 1, 1}, 2, 12, int16 + points + "9\n"},
      {"other element type", {4, 1, 0, 1}, 4, 13, type + "4\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Outputs outputs(row.channels, Tensors(row.channels.size(), std::vector<float>(8, 1.0f)),
                    static_cast<QV_IPU_ELEMENT_FORMAT>(row.format));
    olvex::vector<BoxInfo> boxes = list_of({make_box(1, 2, 3, 4)});
    testing::internal::CaptureStdout();
    EXPECT_EQ(ipu_decode(outputs.info, boxes), row.result);
    EXPECT_EQ(captured_messages(), row.messages);
    EXPECT_TRUE(boxes.empty());
  }
}

TEST(IpuDecode, TypedFormsAppendAndDoNotSuppress) {
  Outputs outputs({4, 1, 0, 1}, {kBoxes, {0.5f, 0, 0, 0.75f}, {0, 3}, {2}}, QV_IPU_FORMAT_FP32);
  olvex::vector<BoxInfo> boxes = list_of({make_box(20, 0, 28, 8, 1)});
  testing::internal::CaptureStdout();
  EXPECT_EQ(ipu_decode_fp32(outputs.info, boxes), 0);
  testing::internal::GetCapturedStdout();
  expect_hits(boxes, {{1, 1, 0}, {0, 0.5f, 0}, {3, 0.75f, 0}});
}

}  // namespace
