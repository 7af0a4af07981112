// SPDX-License-Identifier: Apache-2.0
// open_detections.cpp - one box against the open detections of a frame. open_detections_plain.cpp
// is the plain version.
#include "base/tracker/iou_tracker/open_detections.h"

#include <math.h>

using olvex::Floats;
using olvex::FloatsInt32;
using olvex::FloatsMask;
using olvex::kFloatLanes;

void OpenDetections::open(const TrackBBox* boxes, size_t count) {
  blocks_.clear();
  places_.resize(count);
  num_lanes_ = 0;
  num_open_ = count;
  for (size_t k = 0; k < count; ++k) {
    append(boxes[k], k);
  }
  boxes_ = boxes;
}

void OpenDetections::append(const TrackBBox& box, size_t index) {
  const size_t lane = num_lanes_ % kFloatLanes;
  if (lane == 0) {
    Block blank = Block();
    blank.minx = olvex::splat(NAN);
    blank.apart = olvex::splat(NAN);
    blocks_.push_back(blank);
  }
  Block& block = blocks_[num_lanes_ / kFloatLanes];
  const float maxx = box.x + box.w;
  const float maxy = box.y + box.h;
  olvex::set_lane(block.minx, lane, box.x);
  olvex::set_lane(block.maxx, lane, maxx);
  olvex::set_lane(block.miny, lane, box.y);
  olvex::set_lane(block.maxy, lane, maxy);
  olvex::set_lane(block.area, lane, (maxx - box.x) * (maxy - box.y));
  olvex::set_lane(block.apart, lane, 0.0f);
  olvex::set_lane(block.class_id, lane, static_cast<int32_t>(box.class_id));
  olvex::set_lane(block.index, lane, static_cast<int32_t>(index));
  places_[index] = static_cast<uint32_t>(num_lanes_);
  ++num_lanes_;
}

void OpenDetections::take(int index) {
  const size_t place = places_[static_cast<size_t>(index)];
  Block& block = blocks_[place / kFloatLanes];
  olvex::set_lane(block.minx, place % kFloatLanes, NAN);
  olvex::set_lane(block.apart, place % kFloatLanes, NAN);
  places_[static_cast<size_t>(index)] = kTaken;
  --num_open_;
  if (2 * num_open_ < num_lanes_) {
    close_gaps();
  }
}

// Half of the lanes are closed: compacts the open detections, in their order.
void OpenDetections::close_gaps() {
  blocks_.clear();
  num_lanes_ = 0;
  for (size_t k = 0; k < places_.size(); ++k) {
    if (places_[k] != kTaken) {
      append(boxes_[k], k);
    }
  }
}

// A track's last box, against all lanes.
struct OpenDetections::Asking {
  explicit Asking(const TrackBBox& box)
      : minx(olvex::splat(box.x)),
        maxx(olvex::splat(box.x + box.w)),
        miny(olvex::splat(box.y)),
        maxy(olvex::splat(box.y + box.h)),
        area((maxx - minx) * (maxy - miny)),
        class_id(olvex::splat(static_cast<int32_t>(box.class_id))) {}

  Floats minx;
  Floats maxx;
  Floats miny;
  Floats maxy;
  Floats area;
  FloatsInt32 class_id;
};

// Each step of the next two is the one of track_bbox_iou() in iout.cpp, with the operands in the
// same order.
olvex::FloatsMask OpenDetections::apart(const Block& b, const Asking& a) {
  return (b.maxx < a.minx) | (a.maxx < b.minx) | (b.maxy < a.miny) | (a.maxy < b.miny) |
         (b.class_id != a.class_id);
}

// Of detections that are not apart.
Floats OpenDetections::ratio(const Block& b, const Asking& a) {
  const Floats width = (b.maxx > a.maxx ? a.maxx : b.maxx) - (b.minx < a.minx ? a.minx : b.minx);
  const Floats height = (b.maxy > a.maxy ? a.maxy : b.maxy) - (b.miny < a.miny ? a.miny : b.miny);
  const Floats intersection = width * height;
  return intersection / (a.area + b.area - intersection);
}

OpenDetections::Match OpenDetections::highest_iou(const TrackBBox& box) const {
  const Asking asking(box);
  const Floats nothing = olvex::splat(-1.0f);
  // The best of each lane: of equal overlaps the last, as lanes are visited in order.
  Floats best_iou = Floats();
  FloatsInt32 best_index = olvex::splat(static_cast<int32_t>(-1));
  for (size_t k = 0; k < blocks_.size(); ++k) {
    const Block& block = blocks_[k];
    const FloatsMask are_apart = apart(block, asking);
    if (olvex::all(are_apart)) {
      continue;
    }
    const Floats iou = are_apart ? nothing : ratio(block, asking);
    const FloatsMask is_best = best_iou <= iou;
    best_iou = is_best ? iou : best_iou;
    best_index = is_best ? block.index : best_index;
  }
  Match match = {-1, 0.0f};
  for (size_t lane = 0; lane < kFloatLanes; ++lane) {
    const int index = olvex::get_lane(best_index, lane);
    const float iou = olvex::get_lane(best_iou, lane);
    if (iou > match.iou || (iou == match.iou && index > match.index)) {
      match.index = index;
      match.iou = iou;
    }
  }
  return match.iou > 0.0f ? match : last_without_overlap(asking);
}

// The last open detection with an overlap of 0: what is left when none is above.
OpenDetections::Match OpenDetections::last_without_overlap(const Asking& asking) const {
  for (size_t k = blocks_.size(); k-- > 0;) {
    const Block& block = blocks_[k];
    const Floats iou = apart(block, asking) ? block.apart : ratio(block, asking);
    for (size_t lane = kFloatLanes; lane-- > 0;) {
      if (olvex::get_lane(iou, lane) >= 0.0f) {
        const Match match = {olvex::get_lane(block.index, lane), olvex::get_lane(iou, lane)};
        return match;
      }
    }
  }
  const Match none = {-1, 0.0f};
  return none;
}
