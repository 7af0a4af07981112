// SPDX-License-Identifier: Apache-2.0
// host_accelerator_test.cpp - what the host accelerator computes: frames to network planes, network
// outputs to the library's tensors. host_refusal_test.cpp has what it refuses.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>

#include <gtest/gtest.h>

#include "tests/platform/host_session.h"
#include "tests/support/tiny_onnx.h"

namespace {

using namespace qv_host;
using host_session::Channel;
using host_session::Device;
using Frame = std::vector<unsigned char>;
using Colour = std::array<unsigned char, 3>;

constexpr int kWidth = 6;  // pixels; rows of NV12 and of four bytes per pixel get padding
constexpr int kHeight = 2;
constexpr int kPixels = kWidth * kHeight;

// A channel (r, g, b, y for gray, a for alpha) of a test picture in which no two pixels and no two
// channels are alike.
float pixel(int i, char channel) {
  const float red = static_cast<float>(10 + 7 * i + 18 * (i / kWidth));
  const float green = static_cast<float>(200 - 5 * i);
  const float blue = static_cast<float>(90 + 11 * i);
  const float gray = std::round(0.299f * red + 0.587f * green + 0.114f * blue);
  const float values[] = {red, green, blue, gray, 255.f};
  return values[std::strchr("rgbya", channel) - "rgbya"];
}

template <typename Element>
void put(Frame* frame, std::size_t offset, float value) {
  const Element element = static_cast<Element>(value);
  std::memcpy(frame->data() + offset, &element, sizeof element);
}

// The picture with interleaved channels and rows at the given pitch.
template <typename Element>
Frame interleaved(const std::string& channels, std::size_t pitch) {
  Frame frame(pitch * kHeight, 0xEE);
  for (std::size_t i = 0; i < kPixels * channels.size(); ++i) {
    const std::size_t row = i / channels.size() / kWidth;
    const std::size_t element = i - row * kWidth * channels.size();
    put<Element>(&frame, pitch * row + element * sizeof(Element),
                 pixel(static_cast<int>(i / channels.size()), channels[i % channels.size()]));
  }
  return frame;
}

Channel pixel_channel(InputDescription input) {
  Description description;
  description.kind = OutputKind::kRaw;
  description.input = input;
  description.input.width = kWidth;
  description.input.height = kHeight;
  for (std::size_t i = 0; i < 3; ++i) {
    description.raw[i].name = "pixels" + std::to_string(i);
  }
  const int planes = input.network_order == ColourOrder::kGray ? 1 : 3;
  return Channel(description, tiny_onnx::pixel_network(kWidth, kHeight, planes));
}

TEST(HostAccelerator, frames_of_every_element_format_become_network_planes) {
  constexpr ColourOrder rgb = ColourOrder::kRgb;
  constexpr ColourOrder bgr = ColourOrder::kBgr;
  constexpr ColourOrder gray = ColourOrder::kGray;
  const struct {
    QV_IPU_ELEMENT_FORMAT format;
    ColourOrder frame_order, network_order;
    std::string stored;  // channels in memory
    std::size_t pitch;   // bytes
    std::string planes;  // channels in the network
  } kRows[] = {
      {QV_IPU_FORMAT_ARGB8888, rgb, rgb, "bgra", 32, "rgb"},
      {QV_IPU_FORMAT_ARGB8888, rgb, bgr, "bgra", 32, "bgr"},
      {QV_IPU_FORMAT_ARGB8888, rgb, gray, "bgra", 32, "y"},
      {QV_IPU_FORMAT_ABGR8888, rgb, rgb, "rgba", 32, "rgb"},
      {QV_IPU_FORMAT_ABGR8888, rgb, bgr, "rgba", 32, "bgr"},
      {QV_IPU_FORMAT_ABGR8888, rgb, gray, "rgba", 32, "y"},
      {QV_IPU_FORMAT_U8, rgb, rgb, "rgb", 18, "rgb"},
      {QV_IPU_FORMAT_U8, bgr, rgb, "bgr", 18, "rgb"},
      {QV_IPU_FORMAT_U8, bgr, gray, "bgr", 18, "y"},
      {QV_IPU_FORMAT_GRAY, rgb, rgb, "y", 6, "yyy"},
      {QV_IPU_FORMAT_GRAY, rgb, gray, "y", 6, "y"},
      {QV_IPU_FORMAT_FP32, rgb, bgr, "rgb", 72, "bgr"},
      {QV_IPU_FORMAT_FP32, rgb, gray, "y", 24, "y"},
  };
  const Device device;
  for (const auto& row : kRows) {
    SCOPED_TRACE(std::to_string(row.format) + ": " + row.stored + " to " + row.planes);
    InputDescription input;
    input.format = row.format;
    input.frame_order = row.frame_order;
    input.network_order = row.network_order;
    input.mean = {{1.f, 2.f, 3.f}};
    input.scale = {{0.5f, 0.25f, 2.f}};
    Channel channel = pixel_channel(input);
    const QV_IPU_TensorDesc_t& tensor = channel.tensors.astQV_InputTensorDescs[0];
    EXPECT_EQ(row.format, tensor.eElmFormat);
    const QV_U32 shape[] = {1, kHeight, kWidth, static_cast<QV_U32>(row.stored.size())};
    EXPECT_TRUE(std::equal(shape, shape + 4, tensor.u32TensorShape));
    EXPECT_EQ(static_cast<QV_S32>(row.pitch) * kHeight, tensor.s32AlignedBufSize);
    ASSERT_EQ(0, channel.run(row.format == QV_IPU_FORMAT_FP32
                                 ? interleaved<float>(row.stored, row.pitch)
                                 : interleaved<unsigned char>(row.stored, row.pitch)));
    // Gray values made of 8-bit colours are computed in whole numbers and may differ by one.
    const float tolerance = row.stored != "y" && row.planes == "y" ? 0.5f : 0.f;
    for (std::size_t i = 0; i < kPixels * row.planes.size(); ++i) {
      const std::size_t plane = i % row.planes.size();
      const float stored = pixel(static_cast<int>(i / row.planes.size()), row.planes[plane]);
      const float expected = (stored - input.mean[plane]) * input.scale[plane];
      EXPECT_NEAR(expected, channel.value(2, i), tolerance) << i;
    }
  }
}

TEST(HostAccelerator, nv12_is_read_with_padded_rows_and_a_padded_luma_plane) {
  const Device device(4);
  Channel channel = pixel_channel(InputDescription());
  const QV_IPU_TensorDesc_t& tensor = channel.tensors.astQV_InputTensorDescs[0];
  const auto facts = Channel::facts_of;
  EXPECT_EQ(" format 1, scale 1, zero 0, run 16, bytes 18 of 96, aligned 16 x 4, layout 0",
            facts(tensor));
  // Three blocks of 2 x 2 pixels in the codes of pure red, green and blue (limited range).
  const unsigned char codes[3][3] = {{81, 90, 240}, {145, 54, 34}, {41, 240, 110}};
  Frame frame(16 * 4 + 16 * 2, 0xEE);
  for (std::size_t x = 0; x < kWidth; ++x) {
    frame[x] = frame[16 + x] = codes[x / 2][0];
    frame[16 * 4 + x] = codes[x / 2][1 + x % 2];
  }
  ASSERT_EQ(0, channel.run(frame));
  for (std::size_t i = 0; i < kPixels * 3; ++i) {
    EXPECT_NEAR(i / 3 % kWidth / 2 == i % 3 ? 255.f : 0.f, channel.value(0, i), 1.f) << i;
  }
}

// A U8 frame of square cells with one colour each.
Frame cells_frame(int width, int height, int cell, const std::vector<Colour>& colours) {
  Frame frame;
  for (int i = 0; i < width * height; ++i) {
    const int index = i / width / cell * (width / cell) + i % width / cell;
    const Colour& colour = colours[static_cast<std::size_t>(index)];
    frame.insert(frame.end(), colour.begin(), colour.end());
  }
  return frame;
}

TEST(HostAccelerator, raw_layers_arrive_cell_by_cell_and_int16_saturates) {
  const Device device;
  Description description;
  description.kind = OutputKind::kRaw;
  description.input.width = 96;
  description.input.height = 32;
  description.input.format = QV_IPU_FORMAT_U8;
  description.input.scale = {{1.f / 64, 1.f / 64, 1.f / 64}};
  const Frame frame = cells_frame(96, 32, 32, {{{0, 64, 0}}, {{32, 0, 0}}, {{255, 255, 0}}});
  for (const bool nchw : {true, false}) {
    description.raw = {
        {{"stride32", nchw, .25f}, {"stride8", nchw, 1.f}, {"stride16", nchw, 1e-3f}}};
    const std::vector<char> network = tiny_onnx::raw_network(96, 32, !nchw);
    description.output_format = QV_IPU_FORMAT_FP32;
    Channel real(description, network);
    description.output_format = QV_IPU_FORMAT_INT16;
    description.name_pairs = {{"k", std::string(127, 'x')}, {"k", std::string(113, 'x')}};
    const std::string longest = output_tensor_names(description)[0];
    EXPECT_EQ(255u, longest.size());
    Channel integer(description, network);
    description.name_pairs.clear();
    ASSERT_EQ(0, real.run(frame));
    ASSERT_EQ(0, integer.run(frame));
    EXPECT_EQ("1x1x3x6 1x4x12x6 1x2x6x6 ", real.output_shapes());
    EXPECT_EQ(
        "stride8 format 5, scale 1, zero 0, run 24, bytes 1152 of 1152, aligned 1 x 1, layout 0",
        Channel::facts_of(real.tensors.astQV_OutputTensorDescs[1]));
    EXPECT_EQ(
        longest + " format 2, scale 0.25, zero 0, run 12, bytes 36 of 36, aligned 1 x 1, layout 0",
        Channel::facts_of(integer.tensors.astQV_OutputTensorDescs[0]));
    const float cells[3][6] = {{-1.f, -1.25f, -1.5f, -1.75f, -10.f, 10.f},
                               {-1.f, -1.25f, -1.5f, -1.75f, 0.f, -10.f},
                               {-1.f, -1.25f, -1.5f, -1.75f, 69.6875f, 69.6875f}};
    for (std::size_t i = 0; i < 18; ++i) {
      EXPECT_EQ(cells[i / 6][i % 6], real.value(0, i)) << i;
      // In steps of 0.25; 69.6875 lies between two of them.
      EXPECT_EQ(i >= 16 ? 69.75f : cells[i / 6][i % 6], integer.value(0, i)) << i;
    }
    // Cell 5 of the last row of the finest layer lies below the second coarse cell.
    EXPECT_EQ(0.f, real.value(1, (3 * 12 + 5) * 6 + 4));
    EXPECT_EQ(-10.f, real.value(1, (3 * 12 + 5) * 6 + 5));
    // Whole steps: halves go away from zero.
    EXPECT_EQ(-2.f, integer.value(1, 2));
    EXPECT_EQ(-1.f, integer.value(1, 1));
    EXPECT_EQ(-10000.f * 1e-3f, integer.value(2, 4));
    EXPECT_EQ(32767.f * 1e-3f, integer.value(2, 5 * 6 + 4));
  }
}

constexpr int kMaxBoxes = 3;

Description scored_description() {
  Description description = host_session::decoded_description();
  description.name_pairs = {{"model_out", "zrpcd"}, {"lib_out", "zrpcd"}};
  description.decoded.min_score = 100.f;
  description.decoded.max_boxes = kMaxBoxes;
  description.decoded.box_scale = 0.5f;
  description.decoded.score_scale = 0.5f;
  description.decoded.keypoint_scale = 1.f / 128.f;
  return description;
}

// What the library is to find in row i: the cell it came from, its class and score.
struct Row {
  int cell;
  float class_id;
  float score;
};

struct DetectionCase {
  const char* name;
  int background;
  std::vector<Colour> cells;  // mean of the three planes of the four cells
  std::vector<Row> expected;
};

const DetectionCase kDetectionCases[] = {
    {"best first, least score kept, ties to the lowest class",
     -1,
     {{{200, 50, 0}}, {{0, 220, 220}}, {{100, 0, 0}}, {{99, 99, 99}}},
     {{1, 1, 220}, {0, 0, 200}, {2, 0, 100}}},
    {"equal scores keep the network's order, no more than max_boxes",
     -1,
     {{{150, 0, 0}}, {{0, 0, 150}}, {{160, 0, 0}}, {{150, 0, 0}}},
     {{2, 0, 160}, {0, 0, 150}, {1, 2, 150}}},
    {"the background column is left out",
     1,
     {{{0, 255, 120}}, {{0, 255, 0}}, {{130, 255, 0}}, {{0, 0, 0}}},
     {{2, 0, 130}, {0, 1, 120}}},
    {"nothing found", -1, std::vector<Colour>(4), {}},
};

struct Layout {
  bool classes;
  int keypoint_values;
  std::string shapes;
};

const Layout kLayouts[] = {{false, 0, "1x1x3x4 1x1x3x1 1x3 1x1 "},
                           {true, 0, "1x1x3x4 1x1x3x1 1x1x3x1 1x3 1x1 "},
                           {false, 15, "1x1x3x4 1x1x3x1 1x1x3x15 1x3 1x1 "}};

void check_rows(const Layout& layout, const Channel& channel, const std::vector<Row>& expected) {
  const std::size_t count_tensor = channel.tensors.u32OutputTensorCount - 1;
  EXPECT_EQ(static_cast<float>(expected.size()), channel.value(count_tensor, 0));
  for (std::size_t i = 0; i < kMaxBoxes; ++i) {
    SCOPED_TRACE(i);
    const bool used = i < expected.size();
    const Row row = used ? expected[i] : Row{0, 0.f, 0.f};
    const float size = used ? 8.f : 0.f;
    for (std::size_t side = 0; side < 4; ++side) {
      const int place = side % 2 == 0 ? row.cell % 2 : row.cell / 2;
      EXPECT_EQ(static_cast<float>(place + (side >= 2)) * size, channel.value(0, i * 4 + side));
    }
    EXPECT_EQ(row.score, channel.value(layout.classes ? 2 : 1, i));
    EXPECT_EQ(used ? static_cast<float>(i) : 0.f, channel.value(count_tensor - 1, i));
    if (layout.classes) {
      EXPECT_EQ(row.class_id, channel.value(1, i));
    }
    const bool real = channel.tensors.astQV_OutputTensorDescs[0].eElmFormat == QV_IPU_FORMAT_FP32;
    for (int k = 0; k < layout.keypoint_values; ++k) {
      // x and y are fractions of 16 pixels, the third value of a point is its score.
      const int value = used ? (row.cell + 1) * (k + 1) : 0;
      EXPECT_NEAR(static_cast<float>(value) / (k % 3 == 2 ? 1024.f : 64.f),
                  channel.value(2, i * 15 + static_cast<std::size_t>(k)), real ? 0. : 1. / 256);
    }
  }
}

TEST(HostAccelerator, the_detection_stage_hands_over_the_best_candidates_in_every_layout) {
  const Device device;
  for (const Layout& layout : kLayouts) {
    const auto network = tiny_onnx::decoded_network(16, 16, layout.keypoint_values);
    for (const auto format : {QV_IPU_FORMAT_FP32, QV_IPU_FORMAT_INT16}) {
      for (const DetectionCase& row : kDetectionCases) {
        SCOPED_TRACE(layout.shapes + ", format " + std::to_string(format) + ": " + row.name);
        Description description = scored_description();
        description.output_format = format;
        description.decoded.emit_classes = layout.classes;
        description.decoded.keypoints = layout.keypoint_values > 0 ? "points" : "";
        description.decoded.keypoint_values = layout.keypoint_values;
        description.decoded.background = row.background;
        Channel channel(description, network);
        EXPECT_STREQ("boxes;model_out:zrpcd;lib_out:zrpcd;",
                     channel.tensors.astQV_OutputTensorDescs[0].name);
        ASSERT_EQ(layout.shapes, channel.output_shapes());
        // A full frame first: its results must not appear in the second.
        ASSERT_EQ(0, channel.run(Frame(16 * 16 * 3, 255)));
        EXPECT_EQ(1u, QV_HOST_LastInvokeDropped());
        ASSERT_EQ(0, channel.run(cells_frame(16, 16, 8, row.cells)));
        check_rows(layout, channel, row.expected);
      }
    }
  }
}

TEST(HostAccelerator, boxes_may_be_centre_and_size_or_input_pixels_and_scores_nan) {
  const Device device;
  const auto network = tiny_onnx::decoded_network(16, 16, 0);
  Description description = scored_description();
  description.input.format = QV_IPU_FORMAT_FP32;
  description.decoded.box_order = BoxOrder::kCentreSize;
  Channel centre(description, network);
  description.decoded.box_order = BoxOrder::kCornerPairs;
  description.decoded.box_fractions = false;
  Channel pixels(description, network);
  description.output_format = QV_IPU_FORMAT_INT16;
  Channel integer(description, network);
  double conversion_ms = -1.0;
  double network_ms = -1.0;
  for (const float first : {0.f, std::numeric_limits<float>::quiet_NaN()}) {
    Frame frame(16 * 16 * 3 * sizeof(float));
    for (std::size_t i = 0; i < 16 * 16; ++i) {
      if (i % 16 >= 8 && i / 16 >= 8) {  // the last cell
        put<float>(&frame, i * 3 * sizeof(float), first);
        put<float>(&frame, (i * 3 + 1) * sizeof(float), 150.f);
      }
    }
    ASSERT_EQ(0, centre.run(frame));
    ASSERT_EQ(0, pixels.run(frame));
    ASSERT_EQ(0, integer.run(frame));
    QV_HOST_LastInvokeTimes(&conversion_ms, &network_ms);
    EXPECT_TRUE(conversion_ms >= 0.0 && network_ms > 0.0) << conversion_ms << ' ' << network_ms;
    EXPECT_EQ(1.f, centre.value(4, 0));
    EXPECT_EQ(1.f, centre.value(1, 0));
    EXPECT_EQ(150.f, centre.value(2, 0));
    // In the network: 0.5, 0.5, 1, 1. Its boxes are no numbers either where its scores are not.
    EXPECT_EQ(first == 0.f ? 0.5f : 0.f, integer.value(0, 0));
    for (std::size_t side = 0; side < 4 && first == 0.f; ++side) {
      EXPECT_EQ(side < 2 ? 0.f : 16.f, centre.value(0, side));
      EXPECT_EQ(side < 2 ? 0.5f : 1.f, pixels.value(0, side));
    }
  }
}

}  // namespace
