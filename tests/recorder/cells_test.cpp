// SPDX-License-Identifier: Apache-2.0
// cells_test.cpp - sparse outputs: the cells that the recorder keeps, filled up again, give the boxes of the
// whole layer at every threshold from the floor on, to the bit. docs/recordings.md has the proof.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/postprocess/det_postprocess.h"
#include "base/postprocess/output_tensors.h"
#include "base/sdet/model_words.h"
#include "base/sdet/sdet_model.h"
#include "recorder/recording_format.h"
#include "tests/support/random.h"
#include "tests/support/record.h"
#include "tools/recordings/frame_outputs.h"

extern "C" {
#include "recorder/cells.h"
}

namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

struct Kind {
  int classes, keypoints, values;  // values per key point
};
const Kind kKinds[] = {{1, 0, 0},  {2, 0, 0},  {3, 0, 0},  {4, 0, 0}, {6, 0, 0}, {7, 0, 0},
                       {8, 0, 0},  {10, 0, 0}, {1, 4, 2},  {1, 4, 3}, {1, 5, 2}, {1, 5, 3},
                       {1, 17, 2}, {1, 17, 3}, {1, 21, 2}, {1, 21, 3}};

float logit(float p) {
  return static_cast<float>(std::log(static_cast<double>(p) / (1.0 - static_cast<double>(p))));
}

// Three layers of random cells. Many logits lie at the floor's, a few bits to either side.
class Scene {
 public:
  Scene(Random& random, float floor) : kind_(kKinds[random.below(std::size(kKinds))]) {
    channels_ = 4 + kind_.classes + kind_.keypoints * kind_.values;
    format_ = random.one_in(2) ? QV_IPU_FORMAT_INT16 : QV_IPU_FORMAT_FP32;
    is_likely_ = random.one_in(2);
    size_ = random.between(-0.3f, 1.5f);
    rows_ = 1 + random.below(6);
    columns_ = 1 + random.below(8);
    for (int layer = 0; layer < 3; ++layer) {
      scales_.push_back(random.pick({1.0f / 256, 0.0131f, 1e-3f, 0.5f}));
      layers_.push_back(random_layer(random, floor, rows_ << (2 - layer), columns_ << (2 - layer)));
    }
  }

  // The layers as a recording has them. kept counts the cells with a logit that reaches the floor, dropped those of
  // them that suppression takes.
  std::vector<std::vector<unsigned char>> recorded(float floor, std::size_t& kept,
                                                   std::size_t& dropped) const {
    std::vector<std::vector<unsigned char>> all;
    found_cells found = {};
    std::array<cell_layer, 3> layers = {};
    std::array<std::uint32_t, 3> counts = {};
    for (std::size_t k = 0; k < layers.size(); ++k) {
      layers[k] = describe(k, floor);
      counts[k] = find_cells(&found, &layers[k]);
    }
    if (!found.is_full && kind_.keypoints == 0) {
      drop_suppressed_cells(&found, layers.data(), counts.data());
      dropped += static_cast<std::size_t>(
          std::count_if(found.cell, found.cell + found.count,
                        [](const found_cell& cell) { return cell.is_dropped != 0; }));
    }
    const found_cell* first = found.cell;
    for (std::size_t k = 0; k < layers.size(); first += counts[k], ++k) {
      std::vector<unsigned char> memory(layers_[k].size() * 2 + 4096);
      packer packer;
      packer_start(&packer, memory.data(), static_cast<std::uint32_t>(memory.size()), nullptr);
      const cell_layer& layer = layers[k];
      kept += pack_cells(&packer, &layer, first, counts[k], found.is_full == 0 ? 1 : 0);
      EXPECT_EQ(0, packer.overflowed);
      all.push_back(
          olvex_tools::fill_cells(std::string(memory.begin() + 4, memory.begin() + packer.used),
                                  {layer.cells, layer.channels, layer.classes, layer.element}));
    }
    return all;
  }

  std::size_t cells() const { return static_cast<std::size_t>(rows_ * columns_) * 21; }
  const std::vector<std::vector<unsigned char>>& layers() const { return layers_; }

  // is_by_class: suppression among boxes of one class only.
  std::vector<std::uint64_t> boxes(const std::vector<std::vector<unsigned char>>& layers,
                                   float threshold, bool is_by_class) const {
    OutputTensors outputs = OutputTensors();
    for (std::size_t k = 0; k < layers.size(); ++k) {
      const int shift = 2 - static_cast<int>(k);
      outputs.add(const_cast<unsigned char*>(layers[k].data()), scales_[k], columns_ << shift,
                  rows_ << shift, channels_, OutputMemory());
    }
    DetDecodeInfo info;
    outputs.describe(info);
    info.memory = nullptr;
    info.out_format = format_;
    info.net_in_w = columns_ * 32;
    info.net_in_h = rows_ * 32;
    info.num_classes = kind_.classes;
    info.num_keypoints = kind_.keypoints;
    info.conf_threshold = threshold;
    info.nms_threshold = 0.45f;
    info.class_specific_nms = is_by_class ? 1 : 0;
    info.reg_max = 1;
    olvex::vector<BoxInfo> found;
    det_postprocess(info, found);
    Record record;
    record.add_boxes(found);
    return record.numbers;
  }

 private:
  std::size_t element() const { return format_ == QV_IPU_FORMAT_INT16 ? 2 : 4; }

  // Of a network's kind: boxes that cover each other, and few equal logits.
  float likely_value(Random& random, float low, std::size_t channel) const {
    if (random.one_in(1000)) {
      return random.pick({kNaN, kInfinity, 40.0f});
    }
    if (channel < RECORDING_FIRST_CLASS) {
      return size_ + random.between(-0.4f, 0.4f);
    }
    const auto logits =
        static_cast<std::uint64_t>(cells()) * static_cast<std::uint64_t>(kind_.classes);
    return random.below(static_cast<int>(logits)) < 60 ? random.between(low, 6.0f)
                                                       : random.between(-12.0f, low);
  }

  float random_value(Random& random, float floor, std::size_t channel) const {
    const float low = logit(floor);
    if (is_likely_) {
      return likely_value(random, low, channel);
    }
    switch (random.below(10)) {
      case 0:
        return std::nextafter(low, random.one_in(2) ? kInfinity : -kInfinity);
      case 1:
        return low;
      case 2:
        return random.pick({kNaN, -kNaN, kInfinity, -kInfinity, 0.0f, -0.0f, 1e-40f, -1e-40f});
      case 3:
        return random.between(-3.0f, 6.0f);
      default:
        return random.between(-12.0f, low);
    }
  }

  std::vector<unsigned char> random_layer(Random& random, float floor, int rows, int columns) {
    const std::size_t count = static_cast<std::size_t>(rows * columns * channels_);
    std::vector<unsigned char> bytes(count * element());
    for (std::size_t k = 0; k < count; ++k) {
      const float value = random_value(random, floor, k % static_cast<std::size_t>(channels_));
      const float steps = value / scales_.back();
      const auto integer = static_cast<std::int16_t>(
          !(std::fabs(steps) < 32767.0f) ? random.pick({-32768, 32767, 0}) : std::lround(steps));
      std::memcpy(&bytes[k * element()],
                  format_ == QV_IPU_FORMAT_INT16 ? static_cast<const void*>(&integer)
                                                 : static_cast<const void*>(&value),
                  element());
    }
    return bytes;
  }

  cell_layer describe(std::size_t k, float floor) const {
    const float cut = cut_below_logit(floor);
    const int shift = 2 - static_cast<int>(k);
    cell_layer layer = {};
    layer.columns = static_cast<std::uint32_t>(columns_ << shift);
    layer.stride = 32u >> shift;
    layer.scale = scales_[k];
    layer.data = layers_[k].data();
    layer.element = static_cast<std::uint32_t>(element());
    layer.channels = static_cast<std::uint32_t>(channels_);
    layer.cells = static_cast<std::uint32_t>(layers_[k].size() / element()) / layer.channels;
    layer.classes = classes_by_channels(layer.channels, &layer.has_pairs);
    layer.has_pairs = layer.has_pairs && format_ == QV_IPU_FORMAT_INT16;
    layer.cut = format_ == QV_IPU_FORMAT_INT16
                    ? static_cast<std::uint32_t>(integer_cut(cut, scales_[k]))
                    : bits_of(cut);
    return layer;
  }

  Kind kind_;
  QV_IPU_ELEMENT_FORMAT format_;
  bool is_likely_;
  float size_;  // of the boxes, as a distance
  int rows_, columns_, channels_;
  std::vector<float> scales_;
  std::vector<std::vector<unsigned char>> layers_;
};

TEST(Cells, GiveTheBoxesOfTheWholeLayersFromTheFloorOn) {
  std::size_t kept = 0;
  std::size_t cells = 0;
  std::size_t boxes = 0;
  std::size_t dropped = 0;
  std::string wrong;
  testing::internal::CaptureStdout();                            // the library's log
  const std::uint64_t scenes = sizeof(void*) == 4 ? 200 : 1000;  // an emulator takes its time
  for (std::uint64_t seed = 0; seed < scenes; ++seed) {
    Random random(seed);
    const float floor =
        random.pick({0.05f, 0.25f, 0.5f, 1e-6f, 1e-40f, random.between(1e-3f, 0.5f)});
    const Scene scene(random, floor);
    const auto recorded = scene.recorded(floor, kept, dropped);
    cells += scene.cells();
    for (const float threshold : {floor, std::nextafter(floor, 1.0f), random.between(floor, 1.0f),
                                  0.999999f, 1.0f, kNaN, 1.5f, -0.5f}) {
      const bool is_by_class = random.below(2) == 0;
      const auto whole = scene.boxes(scene.layers(), threshold, is_by_class);
      if (whole != scene.boxes(recorded, threshold, is_by_class)) {
        wrong += "seed " + std::to_string(seed) + " at " + std::to_string(threshold) + "\n";
      }
      boxes += static_cast<std::size_t>(whole[0]);
    }
  }
  testing::internal::GetCapturedStdout();
  EXPECT_EQ("", wrong);
  EXPECT_LT(kept, cells * 3 / 4);
  EXPECT_GT(boxes, 10 * scenes);
  EXPECT_GT(dropped, scenes);
}

// A gap that 16 bits do not hold.
TEST(Cells, KeepACellInEachLongRow) {
  const std::uint32_t cells = 200000;
  std::vector<float> values(cells * 5, -9.0f);
  values[199999 * 5 + 4] = 3.0f;
  cell_layer layer = {};
  layer.data = reinterpret_cast<unsigned char*>(values.data());
  layer.element = 4;
  layer.cells = cells;
  layer.channels = 5;
  layer.classes = 1;
  layer.cut = bits_of(cut_below_logit(0.05f));
  std::vector<unsigned char> memory(4096);
  packer packer;
  packer_start(&packer, memory.data(), 4096, nullptr);
  EXPECT_EQ(1u, pack_cells(&packer, &layer, nullptr, 0, 0));
  const auto filled = olvex_tools::fill_cells(
      std::string(memory.begin() + 4, memory.begin() + packer.used), {cells, 5, 1, 4});
  float last;
  std::memcpy(&last, &filled[(199999 * 5 + 4) * sizeof last], sizeof last);
  EXPECT_EQ(3.0f, last);
}

// Cells of so many channels have the classes that the library would take, whatever word a model has.
TEST(Cells, HaveTheClassesThatTheLibraryConcludes) {
  for (int channels = 0; channels <= 300; ++channels) {
    int has_pairs = 0;
    const int classes =
        static_cast<int>(classes_by_channels(static_cast<std::uint32_t>(channels), &has_pairs));
    const auto check = [&](int num_classes, int num_keypoints) {
      const int rest = channels - 4 - num_classes;
      if (rest == 3 * num_keypoints || rest == 2 * num_keypoints) {
        EXPECT_EQ(num_classes, classes) << channels;
        EXPECT_EQ(num_keypoints > 0 && rest == 2 * num_keypoints, has_pairs != 0) << channels;
      }
    };
    for (const ModelWord& word : kModelWords) {
      check(word.num_classes, word.num_keypoints);
    }
    int num_classes = -1;
    int num_keypoints = 0;
    if (det_class_keypoint_guess(channels, num_classes, num_keypoints) == 0) {
      check(num_classes, num_keypoints);
    }
  }
}

TEST(Cells, AreCutBelowTheLibrarysOwnThreshold) {
  for (float floor = 0.5f; floor > 0.0f; floor *= 0.5f) {
    EXPECT_LT(cut_below_logit(floor), logit(floor) - 0.001f) << floor;
    EXPECT_GT(cut_below_logit(floor), logit(floor) - 0.01f) << floor;
  }
}

TEST(Cells, RefuseDamage) {
  const std::string cell = std::string("\0\0\1\0", 4) + std::string(20, 'x');
  const olvex_tools::CellLayout layout = {2, 5, 1, 4};
  EXPECT_NO_THROW(olvex_tools::fill_cells(cell, layout));
  for (std::size_t size = 1; size < cell.size(); ++size) {
    EXPECT_THROW(olvex_tools::fill_cells(cell.substr(0, size), layout), std::runtime_error) << size;
  }
  for (const std::size_t at : {0u, 2u, 3u}) {
    std::string wrong = cell;
    wrong[at] = 9;
    EXPECT_THROW(olvex_tools::fill_cells(wrong, layout), std::runtime_error) << at;
  }
}

}  // namespace
