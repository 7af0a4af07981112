// SPDX-License-Identifier: Apache-2.0
// scenes.cpp - draws the layers, boxes and tensors from fixed seeds.
#include "bench/scenes.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <utility>

const std::vector<Library>& libraries() {
  static const std::vector<Library> both = {
      {"plain", plain_routines(), plain_routines_without_log()},
      {"shipped", shipped_routines(), shipped_routines_without_log()}};
  return both;
}

// ---- Tensors ------------------------------------------------------------------------------------

Tensors::Tensors(QV_IPU_ELEMENT_FORMAT format, int classes, int keypoints) {
  info_.out_format = format;
  info_.num_classes = classes;
  info_.num_keypoints = keypoints;
  info_.net_in_w = kInputWidth;
  info_.net_in_h = kInputHeight;
  info_.conf_threshold = kThreshold;
  info_.nms_threshold = kNmsThreshold;
}

void Tensors::add(int width, int height, int channels, const std::vector<float>& values,
                  float scale) {
  std::vector<std::int16_t> integers;
  const void* source = values.data();
  std::size_t size = values.size() * sizeof(float);
  if (info_.out_format == QV_IPU_FORMAT_INT16) {
    for (const float value : values) {
      integers.push_back(static_cast<std::int16_t>(std::lround(value / scale)));
    }
    source = integers.data();
    size = integers.size() * sizeof(std::int16_t);
  }
  lines_.emplace_back((size + sizeof(Line) - 1) / sizeof(Line));
  std::memcpy(lines_.back().data(), source, size);
  outputs_.add(nullptr, scale, width, height, channels,
               {static_cast<std::size_t>(width) * static_cast<std::size_t>(height), values.size(),
                values.size()});
  outputs_.describe(info_);
  use(lines_);
}

void Tensors::use(std::vector<Lines>& lines) {
  for (std::size_t k = 0; k < lines.size(); ++k) {
    outputs_.data[k] = lines[k].data();
  }
}

std::size_t Tensors::bytes() const {
  std::size_t sum = 0;
  for (const Lines& tensor : lines_) {
    sum += tensor.size() * sizeof(Line);
  }
  return sum;
}

// ---- Raw layers ---------------------------------------------------------------------------------

int cell_count(int side) {
  int cells = 0;
  for (const int stride : kStrides) {
    cells += side * kInputWidth / stride * (side * kInputHeight / stride);
  }
  return cells;
}

namespace {

// Which cells are above the threshold: the first of a shuffled list of all of them.
std::vector<bool> choose_cells(int cells, int kept, Random& random) {
  std::vector<int> order(static_cast<std::size_t>(cells));
  for (int i = 0; i < cells; ++i) {
    order[static_cast<std::size_t>(i)] = i;
  }
  std::vector<bool> chosen(order.size(), kept == kAllCells);
  for (int i = 0; i < kept; ++i) {
    const std::size_t at = static_cast<std::size_t>(i);
    std::swap(order[at], order[static_cast<std::size_t>(i + random.below(cells - i))]);
    chosen[static_cast<std::size_t>(order[at])] = true;
  }
  return chosen;
}

void append_cell(const RawScene& scene, bool kept, Random& random, std::vector<float>& values) {
  for (int side = 0; side < 4; ++side) {
    values.push_back(random.between(-2.0f, 0.5f));
  }
  const int best = kept ? random.below(scene.classes) : -1;
  for (int k = 0; k < scene.classes; ++k) {
    values.push_back(k == best ? random.between(0.0f, 3.0f) : random.between(-8.0f, -2.0f));
  }
  for (int k = 0; k < 3 * scene.keypoints; ++k) {
    values.push_back(random.between(-1.0f, 1.0f));
  }
}

}  // namespace

RawLayers::RawLayers(const RawScene& scene)
    : Tensors(scene.format, scene.classes, scene.keypoints) {
  Random random(20240307);
  const std::vector<bool> kept = choose_cells(cell_count(scene.side), scene.kept, random);
  info().net_in_w = scene.side * kInputWidth;
  info().net_in_h = scene.side * kInputHeight;
  std::size_t cell = 0;
  for (const int stride : kStrides) {
    const int width = scene.side * kInputWidth / stride;
    const int height = scene.side * kInputHeight / stride;
    std::vector<float> values;
    for (int i = 0; i < width * height; ++i) {
      append_cell(scene, kept[cell++], random, values);
    }
    add(width, height, 4 + scene.classes + 3 * scene.keypoints, values, 1.0f / 256.0f);
  }
}

void decode(const Routines& routines, DetDecodeInfo& info, olvex::vector<BoxInfo>& out) {
  out.clear();
  routines.decode_layers(info, out);
}

// ---- Boxes --------------------------------------------------------------------------------------

olvex::vector<BoxInfo> crowded_boxes(int count, int which) {
  // A detector gives several boxes per object, and more of them once the picture is full.
  const int objects = std::clamp(count / 8, 2, 60);
  Random random(42 + static_cast<std::uint64_t>(which));
  olvex::vector<BoxInfo> centres;
  for (int i = 0; i < objects; ++i) {
    BoxInfo box;
    const float width = random.between(16, 120), height = random.between(16, 120);
    box.x1 = random.between(0, kInputWidth - width);
    box.y1 = random.between(0, kInputHeight - height);
    box.x2 = box.x1 + width;
    box.y2 = box.y1 + height;
    box.label = random.below(3);
    centres.push_back(box);
  }
  olvex::vector<BoxInfo> boxes;
  for (int i = 0; i < count; ++i) {
    BoxInfo box(centres[static_cast<std::size_t>(random.below(objects))]);
    const float reach = 0.2f * std::min(box.x2 - box.x1, box.y2 - box.y1);
    for (float* edge : {&box.x1, &box.y1, &box.x2, &box.y2}) {
      *edge += random.between(-reach, reach);
    }
    // Now and then a detector takes an object for another class.
    box.label = random.below(10) == 0 ? random.below(3) : box.label;
    box.score = random.between(kThreshold, 1.0f);
    boxes.push_back(box);
  }
  return boxes;
}

olvex::vector<BoxInfo> apart_boxes(int count, int moment) {
  const int columns = static_cast<int>(std::ceil(std::sqrt(count * 5.0 / 3.0)));
  const int rows = (count + columns - 1) / columns;
  const float cell_width = static_cast<float>(kInputWidth) / static_cast<float>(columns);
  const float cell_height = static_cast<float>(kInputHeight) / static_cast<float>(rows);
  // There and back within a third of the cell: every other object stands still.
  const int half = kMoments / 2;
  const int step = moment % kMoments < half ? moment % kMoments : kMoments - moment % kMoments;
  const float shift = cell_width / 3.0f * static_cast<float>(step) / static_cast<float>(half);
  Random random(7);
  Random flicker(static_cast<std::uint64_t>(moment % kMoments));
  olvex::vector<BoxInfo> boxes;
  for (int i = 0; i < count; ++i) {
    BoxInfo box;
    const bool moves = i % 2 == 0;
    box.x1 = static_cast<float>(i % columns) * cell_width + random.between(0, cell_width / 8) +
             (moves ? shift : 0.0f);
    box.y1 = static_cast<float>(i / columns) * cell_height + random.between(0, cell_height / 4);
    box.x2 = box.x1 + random.between(0.4f, 0.5f) * cell_width;
    box.y2 = box.y1 + random.between(0.5f, 0.7f) * cell_height;
    box.label = random.below(3);
    box.score = random.between(0.6f, 0.9f) + flicker.between(-0.05f, 0.05f);
    boxes.push_back(box);
  }
  return boxes;
}

TrackFrames tracker_frame(int count, int moment) {
  olvex::vector<BoxInfo> boxes = apart_boxes(count, moment);
  std::vector<TrackBBox> sorted;
  for (const BoxInfo& box : boxes) {
    TrackBBox track_box;
    track_box.x = box.x1;
    track_box.y = box.y1;
    track_box.w = box.x2 - box.x1;
    track_box.h = box.y2 - box.y1;
    track_box.score = box.score;
    track_box.class_id = box.label;
    sorted.push_back(track_box);
  }
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const TrackBBox& a, const TrackBBox& b) { return a.score > b.score; });
  olvex::vector<TrackBBox> frame;
  for (const TrackBBox& box : sorted) {
    frame.push_back(box);
  }
  TrackFrames frames;
  frames.push_back(frame);
  return frames;
}

DecodedRows::DecodedRows(QV_IPU_ELEMENT_FORMAT format, int rows, int keypoint_channels)
    : Tensors(format, -1, 0) {
  const olvex::vector<BoxInfo> list = apart_boxes(rows);
  Random random(5);
  std::vector<float> boxes, classes, scores, points, indices;
  for (const BoxInfo& box : list) {
    boxes.insert(boxes.end(), {box.x1, box.y1, box.x2, box.y2});
    classes.push_back(static_cast<float>(box.label));
    scores.push_back(box.score);
    indices.push_back(static_cast<float>(indices.size()));
    for (int k = 0; k < keypoint_channels; ++k) {
      points.push_back(random.between(0, kInputHeight));
    }
  }
  add(rows, 1, 4, boxes, 1.0f / 32.0f);
  if (keypoint_channels == 0) {
    add(rows, 1, 1, classes, 1.0f);
  }
  add(rows, 1, 1, scores, 1.0f / 16384.0f);
  if (keypoint_channels > 0) {
    add(rows, 1, keypoint_channels, points, 1.0f / 32.0f);
  }
  add(1, rows, 1, indices, 1.0f);
  add(1, 1, 1, {static_cast<float>(rows)}, 1.0f);
}

// ---- Tracker ------------------------------------------------------------------------------------

constexpr float kHistory = 10.0f;  // boxes

SteadyTracker::SteadyTracker(const Routines& routines, int count)
    : routines_(routines),
      tracker_(routines.create_tracker(1.0f, kHistory, 0.3f, 10)),
      count_(count) {
  for (int moment = 0; moment < kMoments; ++moment) {
    frames_.push_back(tracker_frame(count, moment));
  }
  for (int frame = 0; frame < 2 * kMoments; ++frame) {
    track();
  }
}

void SteadyTracker::track() {
  routines_.track(tracker_, frames_[next_]);
  next_ = (next_ + 1) % frames_.size();
}

bool SteadyTracker::is_steady() const {
  bool steady = tracks().size() == static_cast<std::size_t>(count_);
  for (const Track& track : tracks()) {
    steady = steady && static_cast<float>(track.boxes.size()) == kHistory && track.id <= count_;
  }
  return steady;
}
