// SPDX-License-Identifier: Apache-2.0
// compare_outlines.cpp - what a run changed of the first one's boxes, and outlines around it. Declared in compare.h.
#include <algorithm>

#include <opencv2/imgproc.hpp>

#include "tools/common/box.h"
#include "tools/common/text.h"
#include "tools/compare/compare.h"
#include "tools/frames/annotation.h"

namespace olvex_tools {

namespace {

// Counterparts that overlap by less have moved; smaller steps are those of any tracker.
constexpr double kMovedOverlap = 0.8;

// Blue, green, red.
const cv::Scalar kGained(60, 255, 60);
const cv::Scalar kMoved(0, 230, 255);
const cv::Scalar kLost(40, 40, 255);
const cv::Scalar kEdge(0, 0, 0);

bool has_moved(const Detection& box, const FrameRecord& first) {
  return std::none_of(first.detections.begin(), first.detections.end(),
                      [&box](const Detection& other) {
                        return are_counterparts(box, other) &&
                               (box.width == 0 || box.height == 0 ||
                                overlap(box_of(box), box_of(other)) >= kMovedOverlap);
                      });
}

class Outliner {
 public:
  // unit: pixels of the picture that become one of the tile.
  Outliner(const FrameRecord& record, double unit, cv::Mat* picture)
      : across_(static_cast<double>(picture->cols) / record.width),
        down_(static_cast<double>(picture->rows) / record.height),
        unit_(unit),
        picture_(*picture) {}

  // A little outside the box, so that its own outline stays beside it.
  void outline(const Detection& box, const cv::Scalar& colour, bool crossed_out) {
    const double distance = 3 * unit_;
    const cv::Point upper_left(scaled(box.x - distance / across_, across_),
                               scaled(box.y - distance / down_, down_));
    const cv::Point lower_right(
        scaled(static_cast<double>(box.x) + box.width + distance / across_, across_),
        scaled(static_cast<double>(box.y) + box.height + distance / down_, down_));
    // On a dark edge the colours stand out from any picture.
    for (const auto& [line, width] : {std::make_pair(kEdge, 5.0), std::make_pair(colour, 3.0)}) {
      const int thickness = std::max(1, scaled(width, unit_));
      cv::rectangle(picture_, upper_left, lower_right, line, thickness);
      if (crossed_out) {
        cv::line(picture_, upper_left, lower_right, line, thickness);
        cv::line(picture_, {upper_left.x, lower_right.y}, {lower_right.x, upper_left.y}, line,
                 thickness);
      }
    }
  }

 private:
  double across_;
  double down_;
  double unit_;
  cv::Mat& picture_;
};

}  // namespace

FrameChanges changes_of(const FrameRecord& first, const FrameRecord& other) {
  FrameChanges changes;
  for (const Detection& box : other.detections) {
    if (!has_counterpart(box, first)) {
      changes.gained.push_back(&box);
    } else if (has_moved(box, first)) {
      changes.moved.push_back(&box);
    }
  }
  for (const Detection& box : first.detections) {
    if (!has_counterpart(box, other)) {
      changes.lost.push_back(&box);
    }
  }
  return changes;
}

cv::Mat outlined(const cv::Mat& picture, const FrameRecord& record, const FrameChanges& changes,
                 int tile_width) {
  cv::Mat result = picture.clone();
  Outliner outliner(record, static_cast<double>(picture.cols) / tile_width, &result);
  for (const Detection* box : changes.lost) {
    outliner.outline(*box, kLost, true);
  }
  for (const Detection* box : changes.moved) {
    outliner.outline(*box, kMoved, false);
  }
  for (const Detection* box : changes.gained) {
    outliner.outline(*box, kGained, false);
  }
  return result;
}

std::string text_of_changes(const FrameChanges& changes) {
  std::string text;
  for (const auto& [boxes, word] :
       {std::make_pair(&changes.gained, " gained"), std::make_pair(&changes.lost, " lost"),
        std::make_pair(&changes.moved, " moved")}) {
    text += boxes->empty() ? "" : ", " + std::to_string(boxes->size()) + word;
  }
  return text;
}

}  // namespace olvex_tools
