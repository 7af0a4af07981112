// SPDX-License-Identifier: Apache-2.0
// routines.h - one whole library as a table of its routines, so that two of them can be called in
// one program: the plain one (each x_plain.cpp instead of the x.cpp beside it) beside the shipped one.
// Each library is a separate shared object that exports nothing but its table; the records that
// cross the table are the library's own and have the same layout in all of them.
#ifndef TESTS_SUPPORT_ROUTINES_H
#define TESTS_SUPPORT_ROUTINES_H

#include "base/postprocess/det_postprocess.h"
#include "base/tracker/iou_tracker/iout.h"
#include "video/det/include/olvex_det.h"

typedef olvex::vector<olvex::vector<TrackBBox> > TrackFrames;

struct Routines {
  // base/postprocess
  void (*sort_range)(olvex::vector<BoxInfo>& boxes, int left, int right);
  void (*nms)(olvex::vector<BoxInfo>& boxes, float threshold, unsigned char class_specific);
  void (*decode_layers)(DetDecodeInfo& info, olvex::vector<BoxInfo>& out);
  void (*nms_sorted_bboxes)(olvex::vector<BoxInfo>& boxes, olvex::vector<int>& picked,
                            float threshold, unsigned char class_specific);
  // Whether the scan leaves wider vectors unused that the processor has.
  void (*leave_wider_lanes_unused)(bool unused);
  // For the benchmarks alone: it has one source for both, and frame_fuzz compares it in whole runs.
  int (*ipu_decode)(DetDecodeInfo& info, olvex::vector<BoxInfo>& boxes);

  // A tracker by its handle. The lists stay the tracker's; settings go in before the first frame.
  void* (*create_tracker)(float min_boxes, float max_boxes, float min_overlap, int max_lost_times);
  void (*destroy_tracker)(void* tracker);
  void (*track)(void* tracker, const TrackFrames& frames);
  void (*classify)(void* tracker, const IoutStaticParams_t& params);
  olvex::vector<Track>& (*active_tracks)(void* tracker);
  olvex::vector<Track>& (*finished_tracks)(void* tracker);

  // Overlap, as the stabiliser measures it.
  float (*iou_ratio)(const BoxInfo& a, const BoxInfo& b);

  // DetHandle::stable_box against the given boxes of the previous frame.
  void (*stabilise)(olvex::vector<BoxInfo>& boxes, const olvex::vector<BoxInfo>& previous,
                    float sensitivity);

  // One log line of this library, without and with an argument, and with one of each usual kind.
  void (*log_text)();
  void (*log_count)(int count);
  void (*log_values)(const char* text, int count, double value);

  // The public functions.
  QV_S32 (*create_handle)(void** handle);
  QV_S32 (*init_handle)(void* handle, DetectionInfo_t* info);
  QV_S32 (*set_tracker2)(void* handle, DetTrackParams_t params);
  QV_S32 (*set_strict_mode)(void* handle, DetStrictModeParams_t params);
  QV_S32 (*run)(void* handle, const ALGO_Input_t* input, Box_t* boxes, QV_S32* count);
  QV_S32 (*deinit_handle)(void* handle);
};

// The tables. A program links the libraries whose tables it asks for.
extern "C" {
const Routines* plain_routines();
const Routines* shipped_routines();
const Routines* plain_routines_without_log();
const Routines* shipped_routines_without_log();
}

#endif  // TESTS_SUPPORT_ROUTINES_H
