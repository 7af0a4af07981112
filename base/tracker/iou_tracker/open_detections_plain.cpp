// SPDX-License-Identifier: Apache-2.0
// open_detections_plain.cpp - one box against the open detections of a frame as the result is defined:
// track_bbox_iou() of each. Needs no lanes: a place that is not kTaken is open.
#include "base/tracker/iou_tracker/open_detections.h"

#include "base/tracker/iou_tracker/iout.h"

void OpenDetections::open(const TrackBBox* boxes, size_t count) {
  boxes_ = boxes;
  places_.resize(count);
  for (size_t k = 0; k < count; ++k) {
    places_[k] = static_cast<uint32_t>(k);
  }
}

void OpenDetections::take(int index) {
  places_[static_cast<size_t>(index)] = kTaken;
}

OpenDetections::Match OpenDetections::highest_iou(const TrackBBox& box) const {
  TrackBBox asking(box);
  Match best = {-1, 0.0f};
  for (size_t k = 0; k < places_.size(); ++k) {
    TrackBBox detection(boxes_[k]);
    const float iou = track_bbox_iou(asking, detection, true);
    if (is_open(k) && best.iou <= iou) {
      best.index = static_cast<int>(k);
      best.iou = iou;
    }
  }
  return best;
}
