// SPDX-License-Identifier: Apache-2.0
// iout.h - the overlap tracker: links the boxes of successive frames into tracks with stable ids,
// and tells tracks that stand still from tracks that move. The detection handle feeds it one frame
// per call (video/det/src/det_refine.cpp).
//
// Greedy matching by intersection over union (E. Bochinski et al., "High-Speed
// Tracking-by-Detection Without Using Image Information", AVSS 2017).
#ifndef BASE_TRACKER_IOU_TRACKER_IOUT_H
#define BASE_TRACKER_IOU_TRACKER_IOUT_H

#include "qv_types.h"

#include "utils/olvex_stl/simplestl.h"
#include "utils/records/det_records.h"
#include "base/tracker/iou_tracker/open_detections.h"
#include "base/tracker/iou_tracker/track_box.h"

// One object followed over frames.
struct Track {
  olvex::vector<TrackBBox> boxes;  // matched boxes, oldest first; never empty in a tracker
  float max_score;                 // best score of all boxes ever added
  int start_frame;                 // 0
  int status_pre;                  // 0
  int status_now;                  // 0
  int alert;                       // 0
  int id;                          // from 1 upwards, never used again
  int lost_times;                  // frames in a row without a match
  bool moved;                      // has moved at least once; stays set
  bool moving;                     // moved at the last classification
  bool double_check;               // examined by the double check in the last frame
  bool pass_double_check;          // confirmed by the double check; stays set

  Track()
      : max_score(0),
        start_frame(0),
        status_pre(0),
        status_now(0),
        alert(0),
        id(0),
        lost_times(0),
        moved(false),
        moving(false),
        double_check(false),
        pass_double_check(false) {}
};

// A detection as the tracker sees it; landmarks stay 0 and key points are not carried over.
TrackBBox to_track_box(const BoxInfo& box);

// Intersection over union, without an extra pixel. 0 for boxes that do not intersect and, with
// same_class, for boxes of different classes. Two empty boxes at one point give NaN.
float track_bbox_iou(TrackBBox& a, TrackBBox& b, bool same_class);

// Area of the intersection; 0 in the cases where track_bbox_iou is.
float track_bbox_intersect(TrackBBox& a, TrackBBox& b, bool same_class);

// Index of the candidate of the same class with the highest overlap, the last of equals; -1 without
// candidates. An overlap of 0 counts: the caller applies its threshold.
int highest_iou(TrackBBox box, olvex::vector<TrackBBox> candidates);

// One tracker follows one stream. No lock: the owner serialises the calls.
class OlvexIouTracker {
 public:
  OlvexIouTracker();

  // Advances by the given frames, oldest first, and rebuilds finished_tracks_.
  void track_iou(olvex::vector<olvex::vector<TrackBBox> > frames);
  // The same by one frame of count boxes.
  void track_frame(const TrackBBox* boxes, size_t count);

  // Sets moved and moving of the finished tracks by comparing the newest box with the one ref_frame
  // boxes back, and copies the flags to the live tracks. A ref_frame of 0 counts as 1. Requires: the
  // finished tracks stand in the order of the live ones, as track_iou and track_frame leave them.
  void static_moving_classify(const IoutStaticParams_t& params);

  float iou_sigma_l_;     // not used by the steps
  float iou_sigma_h_;     // best score that a track needs to be reported
  float iou_sigma_iou_;   // overlap that continues a track
  float iou_sigma_show_;  // not used by the steps
  float iou_t_min_;       // boxes that a track needs to be reported
  float iou_t_max_;       // boxes that a track's history holds
  float erase_min_size_;  // not used by the steps
  int max_lost_times_;    // a track that goes unmatched for longer is deleted
  int track_id_;          // id of the next new track

  olvex::vector<Track> active_tracks_;    // live tracks, in order of creation
  olvex::vector<Track> finished_tracks_;  // copies of those to report after the last call

 private:
  void advance(const TrackBBox* boxes, size_t count);
  bool continue_track(Track& track, const TrackBBox* boxes);
  void match_frame(const TrackBBox* boxes);
  void start_track(const TrackBBox& box);
  void collect_finished();

  OpenDetections detections_;  // of the frame that is being matched
};

#endif  // BASE_TRACKER_IOU_TRACKER_IOUT_H
