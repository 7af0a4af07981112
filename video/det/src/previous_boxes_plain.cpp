// SPDX-License-Identifier: Apache-2.0
// previous_boxes_plain.cpp - the previous box that overlaps most as it is defined: iou_ratio() of each.
#include "video/det/src/previous_boxes.h"

#include "video/det/include/det_schedule.h"

PreviousBoxes::PreviousBoxes(const olvex::vector<BoxInfo>& boxes) : boxes_(boxes) {}

PreviousBoxes::Match PreviousBoxes::highest_ratio(const BoxInfo& box) const {
  Match best = {0, 0.0f};
  for (size_t k = 0; k < boxes_.size(); ++k) {
    const float ratio = iou_ratio(box, boxes_[k]);
    if (best.ratio < ratio) {
      best.index = k;
      best.ratio = ratio;
    }
  }
  return best;
}
