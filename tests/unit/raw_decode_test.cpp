// raw_decode_test.cpp - raw output layers, in both element types.
#include "base/postprocess/det_postprocess.h"

#include <math.h>
#include <stdint.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/unit/boxes.h"

namespace {

const float kScale = 1.0f / 256;
const QV_IPU_ELEMENT_FORMAT kFormats[] = {QV_IPU_FORMAT_FP32, QV_IPU_FORMAT_INT16};

// One layer of cells, in buffers that end with the last element so that a sanitizer sees every
// overread. The elements are real values; as INT16 they are stored in units of kScale.
struct Layer {
  std::vector<float> elements;
  std::vector<int16_t> integers;
  int width, height, channels;
  float scale = kScale;
  void* data = NULL;
  DetDecodeInfo info;

  Layer(int w, int h, int c, const std::vector<float>& values)
      : elements(values), width(w), height(h), channels(c) {
    info.net_in_w = 8 * w;
    info.net_in_h = 8 * h;
    info.net_out_w = &width;
    info.net_out_h = &height;
    info.net_out_c = &channels;
    info.num_out_layers = 1;
    info.num_classes = 2;
    info.conf_threshold = 0.5f;
    info.nms_threshold = 0.5f;
    info.data = &data;
    info.scalar = &scale;
    use(QV_IPU_FORMAT_FP32);
  }
  Layer(const Layer&) = delete;

  void use(QV_IPU_ELEMENT_FORMAT format) {
    info.out_format = format;
    if (format == QV_IPU_FORMAT_INT16) {
      for (const float element : elements) {
        integers.push_back(static_cast<int16_t>(lroundf(element / kScale)));
      }
      data = integers.data();
    } else {
      data = elements.data();
    }
  }
};

struct Decoded {
  int result;
  olvex::vector<BoxInfo> boxes;
  std::string messages;
};

Decoded decode(Layer& layer, int index = 0) {
  Decoded decoded;
  testing::internal::CaptureStdout();
  decoded.result = det_decode_one_layer(layer.info, index, decoded.boxes);
  decoded.messages = captured_messages();
  return decoded;
}

// One cell of stride 8 with one value per side and two classes.
TEST(RawDecode, PicksTheBestClassFromTheThresholdOn) {
  const float inf = INFINITY;
  struct Row {
    const char* name;
    float conf_threshold;
    float logit0, logit1;
    int label;  // -1: dropped
    float score;
  };
  const Row rows[] = {
      {"logit equal to the threshold", 0.5f, 0, -1, 0, 0.5f},
      {"logit just below the threshold", 0.5f, -kScale, -1, -1, 0},
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
  for (const Row& row : rows) {
    for (const QV_IPU_ELEMENT_FORMAT format : kFormats) {
      SCOPED_TRACE(std::string(row.name) + ", format " + std::to_string(format));
      const std::vector<float> cell = {0, 0, 0, 0, row.logit0, row.logit1};
      if (format == QV_IPU_FORMAT_INT16 && !isfinite(row.logit0 + row.logit1)) {
        continue;
      }
      Layer layer(1, 1, 6, cell);
      layer.info.conf_threshold = row.conf_threshold;
      layer.use(format);
      const Decoded decoded = decode(layer);
      EXPECT_EQ(decoded.result, 0);
      ASSERT_EQ(decoded.boxes.size(), row.label < 0 ? 0u : 1u);
      if (row.label >= 0) {
        EXPECT_EQ(decoded.boxes[0].label, row.label);
        EXPECT_EQ(decoded.boxes[0].score, row.score);
      }
    }
  }
}

// The only cell to pass is row 1, column 2 of a 3 x 2 grid of stride 8: its centre is (20, 12).
TEST(RawDecode, PlacesBoxesAndKeyPoints) {
  typedef std::vector<float> T;
  const float low = -100, high = 100;  // sigmoid 0 and 1
  const T zero(4, 0.0f), uniform(64, 0.0f), square = {-12, -20, 52, 44};
  T peaks(64, low);  // one bin per side: 1, 2, 3 and 15
  peaks[1] = peaks[16 + 2] = peaks[32 + 3] = peaks[48 + 15] = 0;
  const T triples = {0.5f, 0.25f, 0, -1, 1, low}, triple_points = {24, 12, 0.5f, 0, 24, 0};
  const T pairs = {0.5f, 0.25f, low, 1}, fp32_points = {24, 12, 1, -1584, 24, 1};
  const T int16_points = {24, 12, 0, -1584, 24, 0.5f};  // the last one has nothing behind it
  struct Row {
    const char* name;
    int reg_max, num_keypoints;
    T sides, keypoints, corners, fp32_points, int16_points;
  };
  const Row rows[] = {
      {"one value 0: 4 strides", 1, 0, zero, {}, square, {}, {}},
      {"left and right", 1, 0, {low, 0, high, low}, {}, {20, -20, 148, 12}, {}, {}},
      {"top and bottom", 1, 0, {low, high, 0, 0}, {}, {20, -116, 52, 44}, {}, {}},
      {"16 equal bins: 7.5 strides", 16, 0, uniform, {}, {-40, -48, 80, 72}, {}, {}},
      {"16 bins with a peak each", 16, 0, peaks, {}, {12, -4, 44, 132}, {}, {}},
      {"triples", 1, 2, zero, triples, square, triple_points, triple_points},
      {"pairs", 1, 2, zero, pairs, square, fp32_points, int16_points},
  };
  for (const Row& row : rows) {
    for (const QV_IPU_ELEMENT_FORMAT format : kFormats) {
      SCOPED_TRACE(std::string(row.name) + ", format " + std::to_string(format));
      T cell(row.sides);
      cell.insert(cell.end(), {-1, 0});
      cell.insert(cell.end(), row.keypoints.begin(), row.keypoints.end());
      T cells(5 * cell.size(), -50.0f);
      cells.insert(cells.end(), cell.begin(), cell.end());
      Layer layer(3, 2, static_cast<int>(cell.size()), cells);
      layer.info.reg_max = row.reg_max;
      layer.info.num_keypoints = row.num_keypoints;
      layer.use(format);
      const bool fp32 = format == QV_IPU_FORMAT_FP32;
      const Decoded decoded = decode(layer);
      EXPECT_EQ(decoded.messages,
                "DLA_INFO: num_classes = 2; num_keypoints = " + std::to_string(row.num_keypoints) +
                    "\nDLA_INFO: executing " + (fp32 ? "FP32" : "INT16") + " decode...\n");
      ASSERT_EQ(decoded.boxes.size(), 1u);
      const BoxInfo& box = decoded.boxes[0];
      EXPECT_EQ((T{box.x1, box.y1, box.x2, box.y2}), row.corners);
      EXPECT_TRUE(box.label == 1 && box.pts == 0 && box.track_id == 0);
      T points;
      for (const KeyPt_t& point : box.keypts) {
        points.insert(points.end(), {point.x, point.y, point.score});
      }
      EXPECT_EQ(points, fp32 ? row.fp32_points : row.int16_points);
    }
  }
}

TEST(RawDecode, Int16PairTakesItsScoreFromTheNextCell) {
  Layer layer(2, 1, 8, {-100, 0, 0, 0, 0, 0, 0, 0, 100, 0, 0, 0, 0, 0, 0, 0});
  layer.info.num_keypoints = 1;
  layer.use(QV_IPU_FORMAT_INT16);
  const Decoded decoded = decode(layer);
  ASSERT_EQ(decoded.boxes.size(), 2u);
  EXPECT_EQ(decoded.boxes[0].keypts[0].score, 1.0f);  // sigmoid of the next cell's 100
  EXPECT_EQ(decoded.boxes[1].keypts[0].score, 0.5f);  // behind the last cell: 0
}

TEST(RawDecode, RefusesLayersThatDoNotFit) {
  struct Row {
    const char* name;
    int index, net_w, width, height, channels, reg_max, classes, keypoints, format, result;
    const char* message;
  };
  const char kIndex[] = "DLA_ERROR: illegal access to out layer";
  const char kShape[] = "DLA_ERROR: Mismatch between input shape(";
  const char kChannels[] = "DLA_ERROR: mismatch between out shape(";
  const Row rows[] = {
      {"equal multiple", 0, 640, 80, 48, 6, 1, 2, 0, 5, 0, "DLA_INFO"},
      {"other multiple in height", 0, 640, 80, 24, 6, 1, 2, 0, 5, 12, kShape},
      {"height no multiple", 0, 640, 80, 40, 6, 1, 2, 0, 5, 12, kShape},
      {"width no multiple", 0, 644, 80, 48, 6, 1, 2, 0, 5, 12, kShape},
      {"no columns", 0, 640, 0, 48, 6, 1, 2, 0, 5, 12, kShape},
      {"no rows", 0, 640, 80, 0, 6, 1, 2, 0, 5, 12, kShape},
      {"layer too large", 1, 640, 80, 48, 6, 1, 2, 0, 5, 2, kIndex},
      {"layer negative", -1, 640, 80, 48, 6, 1, 2, 0, 5, 2, kIndex},
      {"a channel too many", 0, 640, 80, 48, 7, 1, 2, 0, 5, 12, kChannels},
      {"neither triples nor pairs", 0, 640, 80, 48, 10, 1, 2, 1, 5, 12, kChannels},
      {"negative key points", 0, 640, 80, 48, 3, 1, 2, -1, 5, 12, kChannels},
      {"negative classes", 0, 640, 80, 48, 3, 1, -1, 0, 5, 12, kChannels},
      {"no bins", 0, 640, 80, 48, 2, 0, 2, 0, 5, 12, kChannels},
      {"other element type", 0, 640, 80, 48, 6, 1, 2, 0, 4, 2, "DLA_INFO"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const int size = row.width * row.height * row.channels;
    Layer layer(row.width, row.height, row.channels,
                std::vector<float>(static_cast<size_t>(size), -9.0f));
    layer.info.net_in_w = row.net_w;
    layer.info.net_in_h = 384;
    layer.info.reg_max = row.reg_max;
    layer.info.num_classes = row.classes;
    layer.info.num_keypoints = row.keypoints;
    layer.use(static_cast<QV_IPU_ELEMENT_FORMAT>(row.format));
    const Decoded decoded = decode(layer, row.index);
    EXPECT_EQ(decoded.result, row.result);
    EXPECT_EQ(decoded.messages.find(row.message), 0u) << decoded.messages;
    EXPECT_EQ(
        decoded.messages.find("DLA_ERROR: Not implemented out format: 4 !\n") != std::string::npos,
        row.format == 4);
  }
}

TEST(RawDecode, GoesOnBehindALayerThatFails) {
  // Both cells pass, with boxes that overlap by 57 / 73 and have different labels.
  std::vector<float> elements = {0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 2};
  int width[] = {3, 2}, height[] = {1, 1}, channels[] = {6, 6};
  void* data[] = {elements.data(), elements.data()};
  Layer layer(2, 1, 6, {});
  layer.info.net_out_w = width;
  layer.info.net_out_h = height;
  layer.info.net_out_c = channels;
  layer.info.data = data;
  layer.info.num_out_layers = 2;
  for (const QV_BOOL class_specific : {QV_BOOL{1}, QV_BOOL{0}}) {
    layer.info.class_specific_nms = class_specific;
    olvex::vector<BoxInfo> boxes = list_of({make_box(1, 2, 3, 4)});
    testing::internal::CaptureStdout();
    det_postprocess(layer.info, boxes);
    EXPECT_EQ(captured_messages().find("DLA_INFO: det_postprocess\nDLA_ERROR: Mismatch"), 0u);
    ASSERT_EQ(boxes.size(), class_specific ? 2u : 1u);
    EXPECT_EQ(boxes[0].label, 1) << "the better one comes first";
  }
}

}  // namespace
