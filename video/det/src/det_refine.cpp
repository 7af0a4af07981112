// SPDX-License-Identifier: Apache-2.0
// det_refine.cpp - DetHandle: a frame's stages after detection: tracking, the rebuilt list and stabilisation.
#include "video/det/include/det_schedule.h"

#include <stdint.h>

#include "utils/log/olvex_log.h"
#include "video/det/src/previous_boxes.h"

OLVEX_LOG_CLOCK;

// Deliberate: truncated to unsigned integers, no extra pixel, and nothing clamps a negative extent:
// the differences of boxes that do not intersect wrap, so that two boxes far apart on a diagonal can
// come out as overlapping. Different from the overlaps of suppression and tracking.
float iou_ratio(const BoxInfo& a, const BoxInfo& b) {
  const uint32_t ix1 = truncated(olvex::max(a.x1, b.x1));
  const uint32_t iy1 = truncated(olvex::max(a.y1, b.y1));
  const uint32_t ix2 = truncated(olvex::min(a.x2, b.x2));
  const uint32_t iy2 = truncated(olvex::min(a.y2, b.y2));
  const float inter = static_cast<float>((iy2 - iy1) * (ix2 - ix1));
  const float areas = (a.x2 - a.x1) * (a.y2 - a.y1) + (b.x2 - b.x1) * (b.y2 - b.y1) - inter;
  const float union_area = static_cast<float>(static_cast<double>(areas) + 1e-6);
  return inter / union_area;
}

int DetHandle::track(olvex::vector<BoxInfo>& boxes) {
  if (assert_handle_inited() != E_ALGO_SUCCESS) {
    return E_ALGO_NOT_INIT;
  }
  if (mTracker_ == NULL && mIouTrackerParams_.enable == 1) {
    mTracker_ = new OlvexIouTracker();
  }
  if (mTracker_ == NULL) {
    OLVEX_ERROR("tracker is not inited");
    return E_ALGO_NOT_INIT;
  }
  OLVEX_INFO("track start!");
  track_boxes_.clear();
  for (size_t i = 0; i < boxes.size(); ++i) {
    // Deliberate: boxes with a negative label stay in the list, for the double check, but are not
    // tracked.
    if (boxes[i].label >= 0) {
      track_boxes_.push_back(to_track_box(boxes[i]));
    }
  }
  OLVEX_INFO_FORMAT("track input num is %d !\n", static_cast<int>(track_boxes_.size()));

  tracker()->track_frame(track_boxes_.data(), track_boxes_.size());
  const olvex::vector<Track>& tracks = tracker()->finished_tracks_;
  for (size_t i = 0; i < tracks.size(); ++i) {
    const Track& track = tracks[i];
    const TrackBBox& last = track.boxes[track.boxes.size() - 1];
    OLVEX_INFO_FORMAT("track result %d x,y,w,h,id=%f,%f,%f,%f,%d!\n", static_cast<int>(i),
                      static_cast<double>(last.x), static_cast<double>(last.y),
                      static_cast<double>(last.w), static_cast<double>(last.h), track.id);
  }
  OLVEX_INFO("track over!");
  return E_ALGO_SUCCESS;
}

namespace {

// The newest box of a track, as a blank box's values.
void fill_box(const Track& track, BoxInfo& box) {
  const TrackBBox& last = track.boxes[track.boxes.size() - 1];
  box.x1 = last.x;
  box.y1 = last.y;
  box.x2 = last.x + last.w;
  box.y2 = last.y + last.h;
  box.score = last.score;
  box.label = last.class_id;
  box.pts = last.pts;
  box.track_id = static_cast<unsigned long long>(static_cast<long long>(track.id));
}

}  // namespace

bool DetHandle::is_reported(const Track& track) const {
  if (track.boxes.empty()) {
    return false;
  }
  if (mStaticParams_.ignore_static_objects == 1 && !track.moving) {
    return false;
  }
  if (track.boxes[track.boxes.size() - 1].class_id < 0) {
    return false;
  }
  return !(mDoubleCheckParams_.enable == 1 && track.double_check && !track.pass_double_check);
}

void DetHandle::refine_result(olvex::vector<BoxInfo>& boxes) {
  if (assert_handle_inited() != E_ALGO_SUCCESS) {
    return;
  }
  if (mTracker_ == NULL) {
    OLVEX_ERROR("tracker is not inited");
    return;
  }
  boxes.clear();
  const olvex::vector<Track>& tracks = tracker()->finished_tracks_;
  size_t n = 0;
  for (size_t i = 0; i < tracks.size(); ++i) {
    n += is_reported(tracks[i]) ? 1 : 0;
  }
  boxes.resize(n, BoxInfo());
  n = 0;
  for (size_t i = 0; i < tracks.size(); ++i) {
    if (is_reported(tracks[i])) {
      fill_box(tracks[i], boxes[n++]);
    }
  }
}

void DetHandle::stable_box(olvex::vector<BoxInfo>& boxes) {
  OLVEX_DEBUG_FORMAT("enter %s\n", "stable_box");
  if (assert_handle_inited() != E_ALGO_SUCCESS) {
    return;
  }
  const PreviousBoxes previous(mLastOutput_);
  for (size_t i = 0; i < boxes.size(); ++i) {
    const PreviousBoxes::Match best = previous.highest_ratio(boxes[i]);
    // Deliberate: the whole record is replaced, class, time stamp and track id with it, and no
    // class is compared. OLVEX_StableBox holds the corners only, by another overlap. A sensitivity
    // below 0 would let a box without any overlap be replaced: there is none to take.
    if (best.ratio > 0.0f && mStableBboxPrams_.stable_sensitive < best.ratio) {
      boxes[i] = mLastOutput_[best.index];
    }
  }
}

void DetHandle::update_last_output(olvex::vector<BoxInfo>& boxes) {
  if (assert_handle_inited() == E_ALGO_SUCCESS) {
    mLastOutput_ = boxes;
  }
}

int DetHandle::track_and_refine(olvex::vector<BoxInfo>& boxes) {
  const int result = track(boxes);
  if (result != E_ALGO_SUCCESS) {
    OLVEX_ERROR("track error");
    return result;
  }
  const bool is_strict = mDoubleCheckParams_.enable == 1;
  if (mStaticParams_.ignore_static_objects == 1 || is_strict) {
    tracker()->static_moving_classify(mStaticParams_);
  }
  if (is_strict) {
    do_double_check(boxes.data(), static_cast<int>(boxes.size()), tracker(), mDoubleCheckParams_);
  }
  refine_result(boxes);
  return E_ALGO_SUCCESS;
}

int DetHandle::run_frame(const QV_SYS_BufInfo_s* buffer, olvex::vector<BoxInfo>& boxes) {
  int result = detect(buffer, boxes);
  if (result != E_ALGO_SUCCESS) {
    OLVEX_ERROR_FORMAT("detect error (error code = %d)\n", result);
    return result;
  }
  if (mIouTrackerParams_.enable == 0 && mDoubleCheckParams_.enable == 1) {
    OLVEX_ERROR("tracker should be enable in strict mode!");
    return E_ALGO_INVALID_PARAM;
  }
  if (mIouTrackerParams_.enable == 1) {
    result = track_and_refine(boxes);
    if (result != E_ALGO_SUCCESS) {
      return result;
    }
  }
  if (mStableBboxPrams_.stable_bbox == 1) {
    stable_box(boxes);
  }
  update_last_output(boxes);
  return E_ALGO_SUCCESS;
}
