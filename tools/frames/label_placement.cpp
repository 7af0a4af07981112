// SPDX-License-Identifier: Apache-2.0
// label_placement.cpp - tries places around each box, the nearest first. Declared in label_placement.h.
#include "tools/frames/label_placement.h"

#include <algorithm>
#include <cstdint>

namespace olvex_tools {

namespace {

// Hiding a label takes a box's name away, hiding a box only a part of the picture.
constexpr std::int64_t kLabelWeight = 16;
// Of more boxes than this each label stays at its box: there is no room apart from them, and looking for some would take
// longer than the frame's network.
constexpr std::size_t kCrowd = 64;

class Placement {
 public:
  Placement(const std::vector<LabelledBox>& boxes, cv::Size picture)
      : boxes_(boxes), picture_({0, 0}, picture) {}

  std::vector<cv::Rect> all() {
    for (std::size_t index = 0; index < boxes_.size(); ++index) {
      taken_.push_back(place(index));
    }
    return taken_;
  }

 private:
  cv::Rect place(std::size_t index) {
    index_ = index;
    least_ = -1;
    const cv::Rect box = boxes_[index].box & picture_;
    const cv::Size label = boxes_[index].label;
    const int farthest = boxes_.size() > kCrowd ? 0 : kFarthestLabel;
    for (int distance = 0; distance <= farthest && least_ != 0; ++distance) {
      is_near_ = distance == 0;
      try_around(box, label, distance * label.height);
      if (distance == 0 && least_ != 0) {
        try_inside(box, label);
      }
    }
    return best_;
  }

  // Above and below the box from its left edge on, then beside it from its upper edge on.
  void try_around(const cv::Rect& box, cv::Size label, int distance) {
    const int above = box.y - distance - label.height;
    const int below = box.y + box.height + distance;
    const int left = box.x - distance - label.width;
    const int right = box.x + box.width + distance;
    for (const int top : {above, below}) {
      for (const int x : steps(box.x, box.width, label.width, distance)) {
        consider({{x, top}, label});
      }
    }
    for (const int x : {right, left}) {
      for (const int y : steps(box.y, box.height, label.height, distance)) {
        consider({{x, y}, label});
      }
    }
  }

  void try_inside(const cv::Rect& box, cv::Size label) {
    for (const int y : {box.y, box.y + box.height - label.height}) {
      for (const int x : {box.x, box.x + box.width - label.width}) {
        consider({{x, y}, label});
      }
    }
  }

  // From the edge's beginning to its end, and beyond both as far as the label still touches.
  static std::vector<int> steps(int begin, int length, int label, int distance) {
    const int end = begin + length - label;
    const int step = std::max(1, label / 4);
    std::vector<int> positions = {begin};
    if (end != begin) {
      positions.push_back(end);
    }
    for (int position = begin + step; position < end; position += step) {
      positions.push_back(position);
    }
    for (int position = std::min(begin, end) - step; position >= begin - label - distance;
         position -= step) {
      positions.push_back(position);
    }
    for (int position = std::max(begin, end) + step; position <= begin + length + distance;
         position += step) {
      positions.push_back(position);
    }
    return positions;
  }

  void consider(cv::Rect area) {
    area.x = std::clamp(area.x, 0, std::max(0, picture_.width - area.width));
    area.y = std::clamp(area.y, 0, std::max(0, picture_.height - area.height));
    if (least_ == 0) {
      return;
    }
    const std::int64_t hidden = hidden_by(area);
    // Apart from its box a label is harder to read than where it hides something.
    if (least_ < 0 || hidden == 0 || (hidden < least_ && is_near_)) {
      least_ = hidden;
      best_ = area;
    }
  }

  std::int64_t hidden_by(const cv::Rect& area) const {
    std::int64_t hidden = 0;
    for (const cv::Rect& label : taken_) {
      hidden += kLabelWeight * (label & area).area();
    }
    for (std::size_t other = 0; other < boxes_.size(); ++other) {
      hidden += other == index_ ? 0 : (boxes_[other].box & area).area();
    }
    return hidden;
  }

  const std::vector<LabelledBox>& boxes_;
  cv::Rect picture_;
  std::vector<cv::Rect> taken_;
  std::size_t index_ = 0;
  bool is_near_ = true;
  std::int64_t least_ = -1;  // what the best place hides; -1: there is none yet
  cv::Rect best_;
};

}  // namespace

std::vector<cv::Rect> place_labels(const std::vector<LabelledBox>& boxes, cv::Size picture) {
  return Placement(boxes, picture).all();
}

}  // namespace olvex_tools
