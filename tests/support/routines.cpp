// SPDX-License-Identifier: Apache-2.0
// routines.cpp - the table of one library's routines. Compiled into each of them with
// OLVEX_ROUTINES set to the name of its table.
#include "tests/support/routines.h"

#include "utils/log/olvex_log.h"
#include "base/postprocess/cell_reach.h"
#include "video/det/include/det_schedule.h"

OLVEX_LOG_CLOCK;

namespace {

void leave_wider_lanes_unused(bool unused) {
  cell_scan::leaves_wider_lanes_unused() = unused;
}

OlvexIouTracker& as_tracker(void* tracker) {
  return *static_cast<OlvexIouTracker*>(tracker);
}

void* create_tracker(float min_boxes, float max_boxes, float min_overlap, int max_lost_times) {
  OlvexIouTracker* tracker = new OlvexIouTracker();
  tracker->iou_t_min_ = min_boxes;
  tracker->iou_t_max_ = max_boxes;
  tracker->iou_sigma_iou_ = min_overlap;
  tracker->max_lost_times_ = max_lost_times;
  return tracker;
}

void destroy_tracker(void* tracker) {
  delete &as_tracker(tracker);
}

void track(void* tracker, const TrackFrames& frames) {
  as_tracker(tracker).track_iou(frames);
}

void classify(void* tracker, const IoutStaticParams_t& params) {
  as_tracker(tracker).static_moving_classify(params);
}

olvex::vector<Track>& active_tracks(void* tracker) {
  return as_tracker(tracker).active_tracks_;
}

olvex::vector<Track>& finished_tracks(void* tracker) {
  return as_tracker(tracker).finished_tracks_;
}

void stabilise(olvex::vector<BoxInfo>& boxes, const olvex::vector<BoxInfo>& previous,
               float sensitivity) {
  static DetHandle handle;
  handle.isInited_ = 1;
  handle.mStableBboxPrams_.stable_sensitive = sensitivity;
  handle.mLastOutput_ = previous;
  handle.stable_box(boxes);
}

void log_text() {
  OLVEX_INFO("detect start!");
}

void log_count(int count) {
  OLVEX_INFO_FORMAT("detect box num is %d\n", count);
}

void log_values(const char* text, int count, double value) {
  OLVEX_INFO_FORMAT("%s[%d] is %f, 100 %% of %x\n", text, count, value, 0u);
  OLVEX_INFO_FORMAT("%s[%d] is %f\n", text, count, value);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) const Routines* OLVEX_ROUTINES() {
  static const Routines routines = {qsort_descent_inplace,
                                    nms,
                                    det_decode_layers,
                                    nms_sorted_bboxes,
                                    leave_wider_lanes_unused,
                                    ipu_decode,
                                    create_tracker,
                                    destroy_tracker,
                                    track,
                                    classify,
                                    active_tracks,
                                    finished_tracks,
                                    iou_ratio,
                                    stabilise,
                                    log_text,
                                    log_count,
                                    log_values,
                                    ALGO_DET_CreateHandle,
                                    ALGO_DET_InitHandle,
                                    ALGO_DET_SetTracker2,
                                    ALGO_DET_SetStrictMode,
                                    ALGO_DET_Run,
                                    ALGO_DET_DeinitHandle};
  return &routines;
}
