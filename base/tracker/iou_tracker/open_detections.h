// SPDX-License-Identifier: Apache-2.0
// open_detections.h - the detections of one frame that no track has taken yet, laid out for
// comparing several at once with a track's last box. The tracker (iout.h) owns one.
// open_detections_plain.cpp says which detection a box gets; open_detections.cpp finds the same one faster
// and ships.
#ifndef BASE_TRACKER_IOU_TRACKER_OPEN_DETECTIONS_H
#define BASE_TRACKER_IOU_TRACKER_OPEN_DETECTIONS_H

#include <stddef.h>
#include <stdint.h>

#include "utils/numeric/lanes.h"
#include "utils/olvex_stl/scratch.h"
#include "base/tracker/iou_tracker/track_box.h"

class OpenDetections {
 public:
  OpenDetections() : num_lanes_(0), num_open_(0), boxes_(NULL) {}

  // Index of a detection in its frame, -1: none, and its overlap with the box that was asked for.
  struct Match {
    int index;
    float iou;
  };

  // Begins a frame: all of its boxes are open. The memory of the last frame is used again.
  void open(const TrackBBox* boxes, size_t count);

  // The open detection that highest_iou() chooses for the box, and track_bbox_iou() with it.
  //
  // Deliberate: of equal overlaps the last, and an overlap of 0 counts, but NaN does not.
  Match highest_iou(const TrackBBox& box) const;

  // Closes a detection that a track continues with.
  void take(int index);

  // The open detections, by index.
  size_t size() const { return places_.size(); }
  bool is_open(size_t index) const { return places_[index] != kTaken; }

 private:
  static const uint32_t kTaken = 0xffffffffu;

  // Detections side by side. A lane without one has NaN for its left edge and its overlap with what
  // it does not intersect, so that it is never the highest.
  struct Block {
    olvex::Floats minx;
    olvex::Floats maxx;
    olvex::Floats miny;
    olvex::Floats maxy;
    olvex::Floats area;
    olvex::Floats apart;  // overlap with a box that the detection does not intersect: 0
    olvex::FloatsInt32 class_id;
    olvex::FloatsInt32 index;
  };

  struct Asking;

  static olvex::FloatsMask apart(const Block& b, const Asking& a);
  static olvex::Floats ratio(const Block& b, const Asking& a);
  Match last_without_overlap(const Asking& asking) const;
  void append(const TrackBBox& box, size_t index);
  void close_gaps();

  olvex::scratch<Block> blocks_;
  olvex::scratch<uint32_t> places_;  // of each detection: its lane, counted over all blocks
  size_t num_lanes_;                 // lanes that hold or held a detection
  size_t num_open_;
  const TrackBBox* boxes_;
};

#endif  // BASE_TRACKER_IOU_TRACKER_OPEN_DETECTIONS_H
