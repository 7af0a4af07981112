// SPDX-License-Identifier: Apache-2.0
// iout.cpp - matching, creation and removal of tracks, static/moving classification.
#include "base/tracker/iou_tracker/iout.h"

#include <string.h>

#include <type_traits>

#include "utils/log/olvex_log.h"

OLVEX_LOG_CLOCK;

namespace {

// The corners of two boxes, and the area of their intersection.
struct Overlap {
  float minx1, maxx1, miny1, maxy1;
  float minx2, maxx2, miny2, maxy2;
  float intersection;
};

// False for boxes of different classes, where that counts, and for boxes that are apart. Boxes that only
// touch have an intersection of 0.
bool overlap_of(const TrackBBox& a, const TrackBBox& b, bool same_class, Overlap& overlap) {
  if (same_class && a.class_id != b.class_id) {
    return false;
  }
  overlap.minx1 = a.x;
  overlap.maxx1 = a.x + a.w;
  overlap.miny1 = a.y;
  overlap.maxy1 = a.y + a.h;
  overlap.minx2 = b.x;
  overlap.maxx2 = b.x + b.w;
  overlap.miny2 = b.y;
  overlap.maxy2 = b.y + b.h;
  if (overlap.maxx2 < overlap.minx1 || overlap.maxx1 < overlap.minx2 ||
      overlap.maxy2 < overlap.miny1 || overlap.maxy1 < overlap.miny2) {
    return false;
  }
  overlap.intersection =
      (olvex::min(overlap.maxx2, overlap.maxx1) - olvex::max(overlap.minx2, overlap.minx1)) *
      (olvex::min(overlap.maxy2, overlap.maxy1) - olvex::max(overlap.miny2, overlap.miny1));
  return true;
}

}  // namespace

TrackBBox to_track_box(const BoxInfo& box) {
  TrackBBox track_box;
  track_box.x = box.x1;
  track_box.y = box.y1;
  track_box.w = box.x2 - box.x1;
  track_box.h = box.y2 - box.y1;
  track_box.score = box.score;
  track_box.class_id = box.label;
  track_box.pts = box.pts;
  return track_box;
}

// Deliberate: no extra pixel, unlike suppression, and a class switch, unlike stabilisation: the
// measures are part of each stage's results.
float track_bbox_iou(TrackBBox& a, TrackBBox& b, bool same_class) {
  Overlap overlap;
  if (!overlap_of(a, b, same_class, overlap)) {
    return 0.0f;
  }
  return overlap.intersection /
         ((overlap.maxx1 - overlap.minx1) * (overlap.maxy1 - overlap.miny1) +
          (overlap.maxx2 - overlap.minx2) * (overlap.maxy2 - overlap.miny2) - overlap.intersection);
}

float track_bbox_intersect(TrackBBox& a, TrackBBox& b, bool same_class) {
  Overlap overlap;
  return overlap_of(a, b, same_class, overlap) ? overlap.intersection : 0.0f;
}

int highest_iou(TrackBBox box, olvex::vector<TrackBBox> candidates) {
  int best = -1;
  float best_iou = 0.0f;
  for (size_t k = 0; k < candidates.size(); ++k) {
    const float iou = track_bbox_iou(box, candidates[k], true);
    // Deliberate: less or equal, so that equal overlaps go to the later candidate. Which one it is
    // decides the box and the score that the track continues with.
    if (best_iou <= iou) {
      best = static_cast<int>(k);
      best_iou = iou;
    }
  }
  return best;
}

OlvexIouTracker::OlvexIouTracker()
    : iou_sigma_l_(0.0f),
      iou_sigma_h_(0.2f),
      iou_sigma_iou_(0.3f),
      iou_sigma_show_(0.5f),
      iou_t_min_(1.0f),
      iou_t_max_(10.0f),
      erase_min_size_(15.0f),
      max_lost_times_(10),
      track_id_(1) {}

namespace {

static_assert(std::is_trivially_copyable<TrackBBox>::value, "histories are copied by their bytes");

// The newest box of a track whose history is full takes the place of the oldest: the list neither
// grows nor shrinks.
void replace_oldest(olvex::vector<TrackBBox>& history, const TrackBBox& newest) {
  const size_t last = history.size() - 1;
  memmove(history.data(), history.data() + 1, last * sizeof(TrackBBox));
  history[last] = newest;
}

// Copies a track, which has a box at least; a history of the same length is copied in place, without reserving again.
void copy_track(const Track& from, Track& to) {
  if (from.boxes.size() != to.boxes.size()) {
    to = from;
    return;
  }
  memcpy(to.boxes.data(), from.boxes.data(), from.boxes.size() * sizeof(TrackBBox));
  to.max_score = from.max_score;
  to.start_frame = from.start_frame;
  to.status_pre = from.status_pre;
  to.status_now = from.status_now;
  to.alert = from.alert;
  to.id = from.id;
  to.lost_times = from.lost_times;
  to.moved = from.moved;
  to.moving = from.moving;
  to.double_check = from.double_check;
  to.pass_double_check = from.pass_double_check;
}

// Clears the finished tracks when an allocation failure ends a frame early: they are always a subset
// of the live ones.
class FinishedGuard {
 public:
  explicit FinishedGuard(olvex::vector<Track>& finished) : finished_(finished), is_done_(false) {}
  ~FinishedGuard() {
    if (!is_done_) {
      finished_.clear();
    }
  }
  FinishedGuard(const FinishedGuard&) = delete;
  FinishedGuard& operator=(const FinishedGuard&) = delete;

  void done() { is_done_ = true; }

 private:
  olvex::vector<Track>& finished_;
  bool is_done_;
};

// Index of the live track with that id, from first on and before end; end when there is none.
size_t find_live(const olvex::vector<Track>& live, int id, size_t first, size_t end) {
  size_t k = first;
  while (k < end && live[k].id != id) {
    ++k;
  }
  return k;
}

}  // namespace

// Continues a live track with its best detection, which is closed then. False when none overlaps
// enough.
bool OlvexIouTracker::continue_track(Track& track, const TrackBBox* boxes) {
  const OpenDetections::Match best = detections_.highest_iou(track.boxes[track.boxes.size() - 1]);
  if (best.index < 0) {
    return false;
  }
  OLVEX_DEBUG_FORMAT("max_iou = %f\n", static_cast<double>(best.iou));
  if (!(best.iou >= iou_sigma_iou_)) {
    return false;
  }
  const TrackBBox& detection = boxes[best.index];
  // Deliberate: the cap is tested on the size before the detection joins, so that the history holds
  // iou_t_max_ boxes, and grows by none once it is full.
  if (static_cast<float>(track.boxes.size()) >= iou_t_max_) {
    replace_oldest(track.boxes, detection);
  } else {
    track.boxes.push_back(detection);
  }
  if (track.max_score < detection.score) {
    track.max_score = detection.score;
  }
  detections_.take(best.index);
  track.lost_times = 0;
  return true;
}

// Lets the live tracks choose in order of creation.
void OlvexIouTracker::match_frame(const TrackBBox* boxes) {
  size_t j = 0;
  while (j < active_tracks_.size()) {
    Track& track = active_tracks_[j];
    if (!continue_track(track, boxes)) {
      ++track.lost_times;
      if (track.lost_times > max_lost_times_) {
        active_tracks_.erase(active_tracks_.begin() + j);
        continue;
      }
    }
    ++j;
  }
}

void OlvexIouTracker::start_track(const TrackBBox& box) {
  Track track;
  track.boxes.push_back(box);
  track.max_score = box.score;
  track.id = track_id_;
  // In unsigned arithmetic: a counter at its end continues with negative ids.
  track_id_ = static_cast<int>(static_cast<unsigned int>(track_id_) + 1u);
  active_tracks_.push_back(track);
  OLVEX_DEBUG_FORMAT("add new track %d x,y,w,h=%f,%f,%f,%f\n", track.id, static_cast<double>(box.x),
                     static_cast<double>(box.y), static_cast<double>(box.w),
                     static_cast<double>(box.h));
}

// The finished tracks of the last call are written over, so that their memory is used again.
void OlvexIouTracker::collect_finished() {
  size_t n = 0;
  for (size_t j = 0; j < active_tracks_.size(); ++j) {
    const Track& track = active_tracks_[j];
    if (track.max_score >= iou_sigma_h_ && static_cast<float>(track.boxes.size()) >= iou_t_min_ &&
        track.lost_times == 0) {
      if (n < finished_tracks_.size()) {
        copy_track(track, finished_tracks_[n]);
      } else {
        finished_tracks_.push_back(track);
      }
      ++n;
    }
  }
  while (finished_tracks_.size() > n) {
    finished_tracks_.erase(finished_tracks_.end() - 1);
  }
}

void OlvexIouTracker::advance(const TrackBBox* boxes, size_t count) {
  detections_.open(boxes, count);
  match_frame(boxes);
  for (size_t k = 0; k < detections_.size(); ++k) {
    if (detections_.is_open(k)) {
      start_track(boxes[k]);
    }
  }
}

void OlvexIouTracker::track_iou(olvex::vector<olvex::vector<TrackBBox> > frames) {
  FinishedGuard guard(finished_tracks_);
  for (size_t f = 0; f < frames.size(); ++f) {
    advance(frames[f].data(), frames[f].size());
  }
  collect_finished();
  guard.done();
}

void OlvexIouTracker::track_frame(const TrackBBox* boxes, size_t count) {
  FinishedGuard guard(finished_tracks_);
  advance(boxes, count);
  collect_finished();
  guard.done();
}

void OlvexIouTracker::static_moving_classify(const IoutStaticParams_t& params) {
  OLVEX_DEBUG_FORMAT("enter %s\n", "static_moving_classify");
  // 0 would address the box after the newest; it counts as 1, the newest itself. A negative value
  // becomes a number larger than any history.
  const uint32_t ref_frame =
      params.ref_frame == 0 ? 1u : static_cast<uint32_t>(static_cast<int32_t>(params.ref_frame));
  // Deliberate: the bound is the size of the finished list while live tracks are searched. A track
  // further back keeps its new flags in the finished copy only; copying them all would report other
  // objects as moving.
  const size_t bound = finished_tracks_.size();
  size_t next_live = 0;
  for (size_t i = 0; i < finished_tracks_.size(); ++i) {
    Track& t = finished_tracks_[i];
    const size_t n = t.boxes.size();
    if (ref_frame <= n) {
      const float iou = track_bbox_iou(t.boxes[n - 1], t.boxes[n - ref_frame], true);
      OLVEX_DEBUG_FORMAT("track_id = %d => iou = %f\n", t.id, static_cast<double>(iou));
      if (iou >= params.static_sensitive) {
        t.moving = false;
      } else {
        if (!t.moved) {
          OLVEX_DEBUG_FORMAT("track_id = %d => moved false to true\n", t.id);
          t.moved = true;
        }
        if (!t.moving) {
          OLVEX_DEBUG_FORMAT("track_id = %d => moving false to true\n", t.id);
          t.moving = true;
        }
      }
    }
    // Finished tracks stand in the order of the live ones, and ids are unique: after one that was
    // not found there is none either.
    next_live = find_live(active_tracks_, t.id, next_live, bound);
    if (next_live < bound) {
      active_tracks_[next_live].moving = t.moving;
      active_tracks_[next_live].moved = t.moved;
    }
  }
}
