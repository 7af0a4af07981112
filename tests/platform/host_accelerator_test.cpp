// host_accelerator_test.cpp - what the host accelerator computes: frames to network planes, network
// outputs to the library's tensors. host_refusal_test.cpp has what it refuses.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <thread>

#include <gtest/gtest.h>

#include "tests/platform/host_session.h"
#include "tests/support/tiny_onnx.h"

namespace {

using namespace qv_host;
using host_session::Channel;
using host_session::Device;
using Frame = std::vector<unsigned char>;

// ---- frames -----------------------------------------------------------------------------------

constexpr int kWidth = 6;  // pixels; rows of NV12 and of four bytes per pixel get padding
constexpr int kHeight = 2;

// A channel (r, g, b, y for gray, a for alpha) of a test picture in which no two pixels and no two
// channels are alike.
float pixel(int x, int y, char channel) {
  const float red = static_cast<float>(10 + 7 * x + 60 * y);
  const float green = static_cast<float>(200 - 5 * x - 20 * y);
  const float blue = static_cast<float>(90 + 11 * x + y);
  switch (channel) {
    case 'r':
      return red;
    case 'g':
      return green;
    case 'b':
      return blue;
    case 'y':
      return std::round(0.299f * red + 0.587f * green + 0.114f * blue);
    default:
      return 255.f;
  }
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
  for (int y = 0; y < kHeight; ++y) {
    std::size_t offset = pitch * static_cast<std::size_t>(y);
    for (int x = 0; x < kWidth; ++x) {
      for (const char channel : channels) {
        put<Element>(&frame, offset, pixel(x, y, channel));
        offset += sizeof(Element);
      }
    }
  }
  return frame;
}

Description pixel_description(QV_IPU_ELEMENT_FORMAT format, ColourOrder frame_order,
                              ColourOrder network_order) {
  Description description;
  description.kind = OutputKind::kRaw;
  description.input.width = kWidth;
  description.input.height = kHeight;
  description.input.format = format;
  description.input.frame_order = frame_order;
  description.input.network_order = network_order;
  description.input.mean = {{1.f, 2.f, 3.f}};
  description.input.scale = {{0.5f, 0.25f, 2.f}};
  for (std::size_t i = 0; i < 3; ++i) {
    description.raw[i].name = "pixels" + std::to_string(i);
  }
  return description;
}

std::vector<char> network_for(const Description& description) {
  const bool gray = description.input.network_order == ColourOrder::kGray;
  return tiny_onnx::pixel_network(description.input.width, description.input.height, gray ? 1 : 3);
}

TEST(HostAccelerator, frames_of_every_element_format_become_network_planes) {
  const ColourOrder rgb = ColourOrder::kRgb;
  const ColourOrder bgr = ColourOrder::kBgr;
  const ColourOrder gray = ColourOrder::kGray;
  const struct {
    QV_IPU_ELEMENT_FORMAT format;
    ColourOrder frame_order;
    ColourOrder network_order;
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
    const Description description =
        pixel_description(row.format, row.frame_order, row.network_order);
    Channel channel(description, network_for(description));
    EXPECT_EQ(row.format, channel.input().eElmFormat);
    EXPECT_EQ(static_cast<QV_U32>(kHeight), channel.input().u32TensorShape[1]);
    EXPECT_EQ(static_cast<QV_U32>(kWidth), channel.input().u32TensorShape[2]);
    EXPECT_EQ(row.stored.size(), channel.input().u32TensorShape[3]);
    EXPECT_EQ(static_cast<QV_S32>(row.pitch) * kHeight, channel.input().s32AlignedBufSize);
    ASSERT_EQ(0, channel.run(row.format == QV_IPU_FORMAT_FP32
                                 ? interleaved<float>(row.stored, row.pitch)
                                 : interleaved<unsigned char>(row.stored, row.pitch)));
    // Gray values made of 8-bit colours are computed in whole numbers and may differ by one.
    const float tolerance = row.stored != "y" && row.planes == "y" ? 0.5f : 0.f;
    for (int i = 0; i < kWidth * kHeight; ++i) {
      for (std::size_t plane = 0; plane < row.planes.size(); ++plane) {
        const float channel_value = pixel(i % kWidth, i / kWidth, row.planes[plane]);
        const std::size_t index = static_cast<std::size_t>(i) * row.planes.size() + plane;
        EXPECT_NEAR(
            (channel_value - description.input.mean[plane]) * description.input.scale[plane],
            channel.value(2, index), tolerance)
            << "pixel " << i << " plane " << plane;
      }
    }
  }
}

TEST(HostAccelerator, nv12_is_read_with_padded_rows_and_a_padded_luma_plane) {
  const Device device(4);
  Description description =
      pixel_description(QV_IPU_FORMAT_NV12, ColourOrder::kRgb, ColourOrder::kRgb);
  description.input.mean = {{0.f, 0.f, 0.f}};
  description.input.scale = {{1.f, 1.f, 1.f}};
  Channel channel(description, network_for(description));
  EXPECT_EQ(16 * 4 * 3 / 2, channel.input().s32AlignedBufSize);
  EXPECT_EQ(18u, channel.input().u32BufSize);
  EXPECT_EQ(16u, channel.input().u32InputWidthAlignment);
  EXPECT_EQ(4u, channel.input().u32InputHeightAlignment);
  // Three blocks of 2 x 2 pixels in the codes of pure red, green and blue (limited range).
  const unsigned char codes[3][3] = {{81, 90, 240}, {145, 54, 34}, {41, 240, 110}};
  Frame frame(16 * 4 + 16 * 2, 0xEE);
  for (std::size_t x = 0; x < kWidth; ++x) {
    frame[x] = frame[16 + x] = codes[x / 2][0];
    frame[16 * 4 + x] = codes[x / 2][1 + x % 2];
  }
  ASSERT_EQ(0, channel.run(frame));
  for (std::size_t i = 0; i < kWidth * kHeight; ++i) {
    for (std::size_t plane = 0; plane < 3; ++plane) {
      const float expected = i % kWidth / 2 == plane ? 255.f : 0.f;
      EXPECT_NEAR(expected, channel.value(0, i * 3 + plane), 1.f) << "pixel " << i;
    }
  }
}

// ---- raw layers -------------------------------------------------------------------------------

// A U8 frame of cells with one colour each.
Frame cells_frame(int width, int height, int cell, const std::vector<std::array<int, 3>>& colours) {
  Frame frame;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const int index = y / cell * (width / cell) + x / cell;
      for (const int channel : colours[static_cast<std::size_t>(index)]) {
        frame.push_back(static_cast<unsigned char>(channel));
      }
    }
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
  description.raw = {
      {{"stride32", true, 0.25f}, {"stride8", true, 1.f}, {"stride16", true, 1e-3f}}};
  const Frame frame = cells_frame(96, 32, 32, {{{0, 64, 0}}, {{32, 0, 0}}, {{255, 255, 0}}});
  for (const bool nchw : {true, false}) {
    for (RawOutput& layer : description.raw) {
      layer.nchw = nchw;
    }
    const std::vector<char> network = tiny_onnx::raw_network(96, 32, !nchw);
    description.output_format = QV_IPU_FORMAT_FP32;
    Channel real(description, network);
    description.output_format = QV_IPU_FORMAT_INT16;
    Channel integer(description, network);
    ASSERT_EQ(0, real.run(frame));
    ASSERT_EQ(0, integer.run(frame));
    EXPECT_EQ("1x1x3x6", real.output_shape(0));
    EXPECT_EQ("1x4x12x6", real.output_shape(1));
    EXPECT_EQ("1x2x6x6", real.output_shape(2));
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

// ---- the detection stage ----------------------------------------------------------------------

// What the library is to find in row i: the cell it came from, its class and score.
struct Row {
  int cell;
  float class_id;
  float score;
};

struct DetectionCase {
  const char* name;
  void (*adjust)(Description*);
  std::vector<std::array<int, 3>> cells;  // mean of the three planes of the four cells
  std::vector<Row> expected;
};

Description detection_description() {
  Description description;
  description.input.width = 16;
  description.input.height = 16;
  description.input.format = QV_IPU_FORMAT_U8;
  DecodedOutput& decoded = description.decoded;
  decoded.boxes = "boxes";
  decoded.scores = "scores";
  decoded.min_score = 100.f;
  decoded.max_boxes = 5;
  decoded.box_scale = 0.5f;
  decoded.score_scale = 0.5f;
  decoded.keypoint_scale = 1.f / 128.f;
  return description;
}

const DetectionCase kDetectionCases[] = {
    {"best first, least score kept, ties to the lowest class",
     [](Description*) {},
     {{{200, 50, 0}}, {{0, 220, 220}}, {{100, 0, 0}}, {{99, 99, 99}}},
     {{1, 1, 220}, {0, 0, 200}, {2, 0, 100}}},
    {"equal scores keep the network's order",
     [](Description*) {},
     {{{0, 0, 0}}, {{0, 0, 150}}, {{160, 0, 0}}, {{150, 0, 0}}},
     {{2, 0, 160}, {1, 2, 150}, {3, 0, 150}}},
    {"no more than max_boxes",
     [](Description* d) { d->decoded.max_boxes = 1; },
     {{{150, 0, 0}}, {{0, 150, 0}}, {{0, 160, 0}}, {{150, 0, 0}}},
     {{2, 1, 160}}},
    {"the background column is left out",
     [](Description* d) { d->decoded.background = 1; },
     {{{0, 255, 120}}, {{0, 255, 0}}, {{130, 255, 0}}, {{0, 0, 0}}},
     {{2, 0, 130}, {0, 1, 120}}},
    {"nothing found",
     [](Description*) {},
     {{{0, 0, 0}}, {{0, 0, 0}}, {{0, 0, 0}}, {{0, 0, 0}}},
     {}},
};

// Tensors beside the boxes: absent ones are -1.
struct Layout {
  const char* name;
  bool classes;
  int keypoint_values;
  std::vector<const char*> shapes;  // with R for max_boxes
  int class_tensor;
  std::size_t score_tensor;
  int keypoint_tensor;
};

const Layout kLayouts[] = {
    {"boxes and scores", false, 0, {"1x1xRx4", "1x1xRx1", "1xR", "1x1"}, -1, 1, -1},
    {"boxes, classes and scores",
     true,
     0,
     {"1x1xRx4", "1x1xRx1", "1x1xRx1", "1xR", "1x1"},
     1,
     2,
     -1},
    {"boxes, scores and points",
     false,
     15,
     {"1x1xRx4", "1x1xRx1", "1x1xRx15", "1xR", "1x1"},
     -1,
     1,
     2},
};

void check_rows(const Layout& layout, const Channel& channel, const std::vector<Row>& expected,
                std::size_t max_boxes) {
  const std::size_t count_tensor = channel.output_count() - 1;
  EXPECT_EQ(static_cast<float>(expected.size()), channel.value(count_tensor, 0));
  for (std::size_t i = 0; i < max_boxes; ++i) {
    SCOPED_TRACE(i);
    const bool used = i < expected.size();
    const Row row = used ? expected[i] : Row{0, 0.f, 0.f};
    const float size = used ? 8.f : 0.f;
    const float left = static_cast<float>(row.cell % 2) * size;
    const float top = static_cast<float>(row.cell / 2) * size;
    const float box[] = {left, top, left + size, top + size};
    for (std::size_t side = 0; side < 4; ++side) {
      EXPECT_EQ(box[side], channel.value(0, i * 4 + side));
    }
    EXPECT_EQ(row.score, channel.value(layout.score_tensor, i));
    EXPECT_EQ(used ? static_cast<float>(i) : 0.f, channel.value(count_tensor - 1, i));
    if (layout.class_tensor >= 0) {
      EXPECT_EQ(row.class_id, channel.value(static_cast<std::size_t>(layout.class_tensor), i));
    }
    for (int k = 0; k < layout.keypoint_values; ++k) {
      // x and y are fractions of 16 pixels, the third value of a point is its score.
      const float value =
          static_cast<float>((row.cell + 1) * (k + 1)) / (k % 3 == 2 ? 1024.f : 64.f);
      const float step = channel.output(2).eElmFormat == QV_IPU_FORMAT_FP32 ? 0.f : 1.f / 256.f;
      EXPECT_NEAR(used ? value : 0.f, channel.value(2, i * 15 + static_cast<std::size_t>(k)), step);
    }
  }
}

TEST(HostAccelerator, the_detection_stage_hands_over_the_best_candidates_in_every_layout) {
  const Device device;
  for (const Layout& layout : kLayouts) {
    for (const auto format : {QV_IPU_FORMAT_FP32, QV_IPU_FORMAT_INT16}) {
      for (const DetectionCase& row : kDetectionCases) {
        SCOPED_TRACE(std::string(layout.name) + ", format " + std::to_string(format) + ": " +
                     row.name);
        Description description = detection_description();
        description.output_format = format;
        description.decoded.emit_classes = layout.classes;
        description.decoded.keypoints = layout.keypoint_values > 0 ? "points" : "";
        description.decoded.keypoint_values = layout.keypoint_values;
        row.adjust(&description);
        Channel channel(description, tiny_onnx::decoded_network(16, 16, layout.keypoint_values));
        ASSERT_EQ(layout.shapes.size(), channel.output_count());
        const std::string rows = std::to_string(description.decoded.max_boxes);
        for (std::size_t i = 0; i < layout.shapes.size(); ++i) {
          std::string shape = layout.shapes[i];
          const std::size_t mark = shape.find('R');
          EXPECT_EQ(mark == std::string::npos ? shape : shape.replace(mark, 1, rows),
                    channel.output_shape(i));
        }
        // A full frame first: what it leaves behind must be gone after the second.
        ASSERT_EQ(0, channel.run(Frame(16 * 16 * 3, 255)));
        ASSERT_EQ(0, channel.run(cells_frame(16, 16, 8, row.cells)));
        check_rows(layout, channel, row.expected,
                   static_cast<std::size_t>(description.decoded.max_boxes));
      }
    }
  }
}

TEST(HostAccelerator, boxes_may_be_centre_and_size_or_input_pixels_and_scores_nan) {
  const Device device;
  Description description = detection_description();
  description.input.format = QV_IPU_FORMAT_FP32;
  description.decoded.box_order = BoxOrder::kCentreSize;
  Channel centre(description, tiny_onnx::decoded_network(16, 16, 0));
  description.decoded.box_order = BoxOrder::kCornerPairs;
  description.decoded.box_fractions = false;
  Channel pixels(description, tiny_onnx::decoded_network(16, 16, 0));
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
    EXPECT_EQ(1.f, centre.value(4, 0));
    EXPECT_EQ(1.f, centre.value(1, 0));
    EXPECT_EQ(150.f, centre.value(2, 0));
    // In the network: 0.5, 0.5, 1, 1. Its boxes are no numbers either where its scores are not.
    const float centred[] = {0.f, 0.f, 16.f, 16.f};
    const float unscaled[] = {0.5f, 0.5f, 1.f, 1.f};
    for (std::size_t side = 0; side < 4 && first == 0.f; ++side) {
      EXPECT_EQ(centred[side], centre.value(0, side));
      EXPECT_EQ(unscaled[side], pixels.value(0, side));
    }
  }
}

// ---- channels ---------------------------------------------------------------------------------

TEST(HostAccelerator, the_first_output_carries_the_pairs_in_its_name) {
  const Device device;
  Description description = detection_description();
  description.name_pairs = {{"model_out", "zrpcd"}, {"lib_out", "zrpcd"}};
  const Channel channel(description, tiny_onnx::decoded_network(16, 16, 0));
  EXPECT_STREQ("boxes;model_out:zrpcd;lib_out:zrpcd;", channel.output(0).name);
}

TEST(HostAccelerator, two_channels_on_two_threads_do_not_mix_their_results) {
  const Device device;
  const Description description = detection_description();
  Channel channels[] = {{description, tiny_onnx::decoded_network(16, 16, 0)},
                        {description, tiny_onnx::decoded_network(16, 16, 0)}};
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([t, &channel = channels[t]] {
      const unsigned char level = static_cast<unsigned char>(120 + 50 * t);
      const Frame frame(16 * 16 * 3, level);
      for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(0, channel.run(frame));
        ASSERT_EQ(static_cast<float>(level), channel.value(2, 3));
      }
      double conversion_ms = -1.0;
      double network_ms = -1.0;
      QV_HOST_LastInvokeTimes(&conversion_ms, &network_ms);
      EXPECT_GE(conversion_ms, 0.0);
      EXPECT_GT(network_ms, 0.0);
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

}  // namespace
