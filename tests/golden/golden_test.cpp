// SPDX-License-Identifier: Apache-2.0
// golden_test.cpp - fixed tensors through the whole library: every build, compiler and processor
// must report the same boxes, bit for bit. data/boxes.txt holds those of each scenario
// (tests/support/kept_text.h).
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "olvex_det.h"

#include "platform/scripted/qv_scripted.h"
#include "tests/support/kept_text.h"
#include "tests/support/log_lines.h"
#include "tests/support/random.h"
#include "tests/support/record.h"
#include "tests/support/scripted_test.h"
#include "video/det/include/det_schedule.h"

namespace {

const QV_U32 kNetWidth = 320, kNetHeight = 192;
const int kFrames = 8;
const size_t kListedBoxes = 12;

// A multiple of 1/256 in [-range, range).
float value(Random& random, int range) {
  return static_cast<float>(random.below(512 * range) - 256 * range) / 256.0f;
}

struct Scenario {
  const char *name, *header;
  QV_IPU_ELEMENT_FORMAT format;
  int classes, keypoints, values_per_keypoint;
  bool odd;  // some elements are NaN, infinities and denormals
  float threshold;
  DetTrackParams_t options;
  bool strict;
  int list_layout;  // 0: raw layers; 4 or 5: accelerator-decoded with that many tensors
};

const QV_IPU_ELEMENT_FORMAT kFp32 = QV_IPU_FORMAT_FP32, kInt16 = QV_IPU_FORMAT_INT16;
const char kMapped[] = "model_out:zrpcnh;lib_out:zrpcn\n";
const DetTrackParams_t kPlain = {0, 0, 0.0f, 0, 0.0f, 0};
const DetTrackParams_t kTracked = {1, 0, 0.0f, 0, 0.0f, 2};
const DetTrackParams_t kMoving = {1, 1, 0.98f, 0, 0.0f, 0};
const DetTrackParams_t kSteady = {0, 0, 0.0f, 1, 0.5f, 0};
const DetTrackParams_t kTrackedSteady = {1, 0, 0.0f, 1, 0.0f, 0};

const Scenario kScenarios[] = {
    {"raw_fp32", "model_out:zrpcd\n", kFp32, 3, 0, 0, false, 0.4f, kPlain, false, 0},
    {"raw_int16", "model_out:zrpcn\n", kInt16, 6, 0, 0, false, 0.4f, kPlain, false, 0},
    {"raw_fp32_extremes", "model_out:zrpcd\n", kFp32, 3, 0, 0, true, 0.3f, kPlain, false, 0},
    {"keypoints_fp32", "model_out:zrhpd\n", kFp32, 1, 17, 3, false, 0.5f, kPlain, false, 0},
    {"keypoint_pairs_int16", "model_out:zrlpd\n", kInt16, 1, 4, 2, false, 0.5f, kPlain, false, 0},
    {"tracked", "model_out:zrpcd\n", kFp32, 3, 0, 0, false, 0.6f, kTracked, false, 0},
    {"moving_only", "", kFp32, 2, 0, 0, false, 0.6f, kMoving, false, 0},
    {"strict_mapped", kMapped, kInt16, 7, 0, 0, false, 0.5f, kTracked, true, 0},
    {"steady", "model_out:zrpd\n", kFp32, 1, 0, 0, false, 0.6f, kSteady, false, 0},
    {"tracked_steady", "model_out:zrpcn\n", kInt16, 6, 0, 0, false, 0.6f, kTrackedSteady, false, 0},
    {"list_fp32", "", kFp32, 5, 0, 0, false, 0.3f, kTracked, false, 5},
    {"list_int16", "model_out:zrpd\n", kInt16, 1, 0, 0, false, 0.3f, kPlain, false, 4},
};

void add_tensor(const Scenario& s, const std::vector<QV_U32>& shape, float scale,
                qv_scripted::Network& network) {
  network.outputs.push_back(qv_scripted::nhwc_tensor("out", shape, s.format, scale));
}

qv_scripted::Bytes encoded(const Scenario& s, const std::vector<float>& values, float scale) {
  if (s.format == kFp32) {
    return qv_scripted::to_bytes(values);
  }
  std::vector<int16_t> integers;
  for (const float value : values) {
    integers.push_back(static_cast<int16_t>(value / scale));
  }
  return qv_scripted::to_bytes(integers);
}

// One raw layer: most logits low, a few high ones that drift slowly over the frames, so that tracks
// form. Every 97th cell holds a tie.
std::vector<float> raw_layer(const Scenario& s, uint32_t seed, int frame, int cells, int channels) {
  Random random(seed);
  std::vector<float> values;
  for (int cell = 0; cell < cells; ++cell) {
    const bool hit = random.one_in(23);
    for (int k = 0; k < channels; ++k) {
      float v = value(random, 2);
      if (k >= 4 && k < 4 + s.classes) {
        v = hit ? value(random, 3) + 1.0f : -6.0f;
        if (cell % 97 == 0) {
          v = 2.0f;
        }
      } else if (k < 4) {
        v += static_cast<float>(frame % 5) / 64.0f;
      }
      values.push_back(v);
    }
  }
  const float extremes[] = {NAN, INFINITY, -INFINITY, 1e-40f, 3e38f, -3e38f};
  for (size_t i = 7; s.odd && i < values.size(); i += 131) {
    values[i] = extremes[(i / 131) % 6];
  }
  return values;
}

const float kRawScale = 1.0f / 256.0f;
const float kListScales[] = {1.0f / 16.0f, 1.0f / 16384.0f};

void add_raw_network(const Scenario& s, qv_scripted::Network& network) {
  const int channels = 4 + s.classes + s.keypoints * s.values_per_keypoint;
  std::vector<int> cells;
  for (const QV_U32 stride : {8u, 16u, 32u}) {
    const QV_U32 w = kNetWidth / stride;
    const QV_U32 h = kNetHeight / stride;
    add_tensor(s, {1, h, w, static_cast<QV_U32>(channels)}, kRawScale, network);
    cells.push_back(static_cast<int>(w * h));
  }
  for (int frame = 0; frame < kFrames; ++frame) {
    qv_scripted::Frame layers;
    for (size_t l = 0; l < cells.size(); ++l) {
      const uint32_t seed = 77u + 13u * static_cast<uint32_t>(l);
      layers.push_back(encoded(s, raw_layer(s, seed, frame, cells[l], channels), kRawScale));
    }
    network.frames.push_back(layers);
  }
}

void add_list_network(const Scenario& s, qv_scripted::Network& network) {
  const QV_U32 rows = 60;
  const bool has_classes = s.list_layout == 5;
  add_tensor(s, {1, 1, rows, 4}, kListScales[0], network);
  if (has_classes) {
    add_tensor(s, {1, 1, rows, 1}, 1.0f, network);
  }
  add_tensor(s, {1, 1, rows, 1}, kListScales[1], network);
  add_tensor(s, {1, rows}, 1.0f, network);
  add_tensor(s, {1, 1}, 1.0f, network);
  for (int frame = 0; frame < kFrames; ++frame) {
    Random random(5);
    std::vector<float> boxes, classes, scores, indices;
    for (QV_U32 row = 0; row < rows; ++row) {
      const float x = static_cast<float>(random.below(250));
      const float y = static_cast<float>(random.below(150));
      const float drift = static_cast<float>(frame * static_cast<int>(row % 5));
      boxes.insert(boxes.end(), {x + drift, y, x + drift + 30.0f + value(random, 8), y + 40.0f});
      classes.push_back(static_cast<float>(random.below(5)));
      scores.push_back(static_cast<float>(random.below(256)) / 256.0f);
      indices.push_back(static_cast<float>((row * 7) % rows));
    }
    const float count = static_cast<float>(40 + frame);
    qv_scripted::Frame tensors = {encoded(s, boxes, kListScales[0]),
                                  encoded(s, scores, kListScales[1]), encoded(s, indices, 1.0f),
                                  encoded(s, {count}, 1.0f)};
    if (has_classes) {
      tensors.insert(tensors.begin() + 1, encoded(s, classes, 1.0f));
    }
    network.frames.push_back(tensors);
  }
}

// FNV-1a of all numbers.
uint64_t digest(const Record& record) {
  uint64_t digest = 14695981039346656037u;
  for (const uint64_t number : record.numbers) {
    for (int shift = 0; shift < 64; shift += 8) {
      digest = (digest ^ (number >> shift & 0xffu)) * 1099511628211u;
    }
  }
  return digest;
}

// The first boxes of a frame in full, a line each, and a digest of all that came so far.
void write_frame(const DetHandle& handle, const Box_t* boxes, QV_S32 count, Record& record,
                 std::ostringstream& text) {
  const size_t start = record.numbers.size() + 1, values = 7;
  record.add_boxes(boxes, count);
  text << "boxes " << std::dec << count << " list " << handle.mLastOutput_.size() << std::hex;
  const size_t end = std::min(record.numbers.size(), start + kListedBoxes * values);
  for (size_t k = start; k < end; ++k) {
    text << ((k - start) % values == 0 ? "\n " : " ") << record.numbers[k];
  }
  record.add_boxes(handle.mLastOutput_);
  text << "\ndigest " << digest(record) << '\n';
}

// All messages but the measured times.
void write_log(const std::string& log, Record& record, std::ostringstream& text) {
  EXPECT_EQ("", unknown_lines(log));
  const std::vector<std::string> lines = log_lines(log);
  for (const std::string& line : lines) {
    for (const char c : line.find("cost time") == std::string::npos ? line : "") {
      record.add(static_cast<unsigned char>(c));
    }
  }
  text << "log lines " << std::dec << lines.size() << "\ndigest " << std::hex << digest(record)
       << '\n';
}

std::string run_scenario(const Scenario& s) {
  testing::internal::CaptureStdout();
  qv_scripted::Network network;
  network.inputs.push_back(qv_scripted::picture_input(QV_IPU_FORMAT_NV12, kNetWidth, kNetHeight));
  if (s.list_layout == 0) {
    add_raw_network(s, network);
  } else {
    add_list_network(s, network);
  }
  std::vector<char> picture(static_cast<size_t>(network.inputs[0].s32AlignedBufSize));
  qv_scripted::add_network(network);

  const std::string model = testing::TempDir() + "golden_" + s.name + ".model";
  std::ofstream(model, std::ios::binary)
      << s.header << OLVEX_OFFLINE_MODEL_START << std::string(60, '.');

  void* handle = nullptr;
  ALGO_DET_CreateHandle(&handle);
  DetectionInfo_t info = {"", "", s.threshold, {1920, 1080}, 0};
  std::snprintf(info.model, sizeof(info.model), "%s", model.c_str());
  EXPECT_EQ(ALGO_DET_InitHandle(handle, &info), 0);
  ALGO_DET_SetTracker2(handle, s.options);
  if (s.strict) {
    ALGO_DET_SetStrictMode(handle, {1});
  }
  Record record;
  std::ostringstream text;
  std::vector<Box_t> boxes(ALGO_DET_MAX_BOXES);
  for (int frame = 0; frame < kFrames; ++frame) {
    ALGO_Input_t input = {picture.data(), 0, static_cast<QV_U32>(picture.size()),
                          40ull * static_cast<QV_U64>(frame)};
    QV_S32 count = -1;
    EXPECT_EQ(ALGO_DET_Run(handle, &input, boxes.data(), &count), 0);
    write_frame(*static_cast<DetHandle*>(handle), boxes.data(), count, record, text);
  }
  EXPECT_EQ(ALGO_DET_DeinitHandle(handle), 0);
  write_log(testing::internal::GetCapturedStdout(), record, text);
  std::remove(model.c_str());
  return text.str();
}

class Golden : public ScriptedTest {};

TEST_F(Golden, boxes_are_the_same_bits_everywhere) {
  for (const Scenario& scenario : kScenarios) {
    SCOPED_TRACE(scenario.name);
    const std::string result = run_scenario(scenario);
    check_violations();
    qv_scripted::reset();

    expect_kept(OLVEX_GOLDEN_DATA "/boxes.txt", scenario.name, result);
  }
}

}  // namespace
