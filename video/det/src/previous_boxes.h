// SPDX-License-Identifier: Apache-2.0
// previous_boxes.h - the boxes of the previous frame, for look-up by the stabiliser.
// previous_boxes_plain.cpp says which one it gets; previous_boxes.cpp finds the same one faster and ships.
#ifndef VIDEO_DET_SRC_PREVIOUS_BOXES_H
#define VIDEO_DET_SRC_PREVIOUS_BOXES_H

#include <stddef.h>
#include <stdint.h>

#include "utils/numeric/saturating_cast.h"
#include "utils/olvex_stl/scratch.h"
#include "utils/olvex_stl/simplestl.h"
#include "utils/records/det_records.h"

// A coordinate as iou_ratio (det_schedule.h) takes it.
inline uint32_t truncated(float position) {
  return olvex::saturating_cast<uint32_t>(static_cast<double>(position));
}

class PreviousBoxes {
 public:
  struct Match {
    size_t index;
    float ratio;  // 0: none of the boxes has more
  };

  // The boxes stay the caller's and are not to change.
  explicit PreviousBoxes(const olvex::vector<BoxInfo>& boxes);

  // The box with the highest iou_ratio() of the given one and it.
  //
  // Deliberate: only a ratio above the best so far counts, so that among equal ones the first box wins.
  Match highest_ratio(const BoxInfo& box) const;

 private:
  // What iou_ratio() needs of one box, taken once. Ordinary corners are numbers: truncating them and
  // taking the larger or smaller are then done in either order with the same result.
  struct Corners {
    explicit Corners(const BoxInfo& box);

    uint32_t x1;
    uint32_t y1;
    uint32_t x2;
    uint32_t y2;
    float area;
    bool are_ordinary;
  };

  static float ratio_above_zero(const Corners& a, const Corners& b);

  const olvex::vector<BoxInfo>& boxes_;
  olvex::scratch<Corners> corners_;  // of each box; the plain version needs none
};

#endif  // VIDEO_DET_SRC_PREVIOUS_BOXES_H
