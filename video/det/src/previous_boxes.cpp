// SPDX-License-Identifier: Apache-2.0
// previous_boxes.cpp - the previous box that overlaps most, with what depends on one box alone computed
// once. previous_boxes_plain.cpp is the plain version.
#include "video/det/src/previous_boxes.h"

#include "video/det/include/det_schedule.h"

inline PreviousBoxes::Corners::Corners(const BoxInfo& box)
    : x1(truncated(box.x1)),
      y1(truncated(box.y1)),
      x2(truncated(box.x2)),
      y2(truncated(box.y2)),
      area((box.x2 - box.x1) * (box.y2 - box.y1)),
      are_ordinary(box.x1 == box.x1 && box.y1 == box.y1 && box.x2 == box.x2 && box.y2 == box.y2) {}

// iou_ratio() of two boxes with ordinary corners, by the same steps; 0 instead of any ratio that is
// not above 0.
inline float PreviousBoxes::ratio_above_zero(const Corners& a, const Corners& b) {
  const uint32_t width = olvex::min(a.x2, b.x2) - olvex::max(a.x1, b.x1);
  const uint32_t height = olvex::min(a.y2, b.y2) - olvex::max(a.y1, b.y1);
  const float inter = static_cast<float>(height * width);
  const float areas = a.area + b.area - inter;
  const float union_area = static_cast<float>(static_cast<double>(areas) + 1e-6);
  // Boxes that do not intersect in one direction have a huge intersection and a negative union.
  return inter > 0.0f && union_area >= 0.0f ? inter / union_area : 0.0f;
}

PreviousBoxes::PreviousBoxes(const olvex::vector<BoxInfo>& boxes) : boxes_(boxes) {
  for (size_t k = 0; k < boxes.size(); ++k) {
    corners_.push_back(Corners(boxes[k]));
  }
}

PreviousBoxes::Match PreviousBoxes::highest_ratio(const BoxInfo& box) const {
  const Corners corners(box);
  Match best = {0, 0.0f};
  for (size_t k = 0; k < boxes_.size(); ++k) {
    const float ratio = corners.are_ordinary && corners_[k].are_ordinary
                            ? ratio_above_zero(corners, corners_[k])
                            : iou_ratio(box, boxes_[k]);
    if (best.ratio < ratio) {
      best.index = k;
      best.ratio = ratio;
    }
  }
  return best;
}
