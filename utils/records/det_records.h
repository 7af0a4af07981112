// SPDX-License-Identifier: Apache-2.0
// det_records.h - the records that several folders of the library share: boxes, key points and the
// option records with their defaults. The tracker's records are in base/tracker/iou_tracker/iout.h,
// the decoders' in base/postprocess/det_postprocess.h.
#ifndef UTILS_RECORDS_DET_RECORDS_H
#define UTILS_RECORDS_DET_RECORDS_H

#include "algo_types.h"
#include "qv_types.h"

#include "utils/olvex_stl/simplestl.h"

// One key point, in the same pixels as its box.
struct KeyPt_t {
  QV_FLOAT x;
  QV_FLOAT y;
  QV_FLOAT score;  // confidence 0..1; -1: none

  KeyPt_t() : x(0.0f), y(0.0f), score(-1.0f) {}
};

// One detection. Network-input pixels while decoding, display pixels after rescaling.
struct BoxInfo {
  float x1;                     // left edge
  float y1;                     // top edge
  float x2;                     // right edge
  float y2;                     // bottom edge
  float score;                  // confidence 0..1
  int label;                    // class; a negative one keeps the box out of the output
  unsigned long long pts;       // time stamp
  unsigned long long track_id;  // id of the track, 0 without tracking
  olvex::vector<KeyPt_t> keypts;

  // A blank box is all zeros, so that no list ever holds an unset value.
  BoxInfo() : x1(0), y1(0), x2(0), y2(0), score(0), label(0), pts(0), track_id(0) {}
};

// Options of the static/moving classification.
struct IoutStaticParams_t {
  QV_BOOL ignore_static_objects;  // 1: report only objects that move
  QV_FLOAT static_sensitive;      // overlap from which an object counts as standing still
  QV_S16 ref_frame;               // boxes back to the reference; 1 is the newest itself

  IoutStaticParams_t() : ignore_static_objects(0), static_sensitive(0.85f), ref_frame(5) {}
};

// Options of the double check (strict mode).
struct DetDoubleCheckParams_t {
  QV_BOOL enable;                         // 1: on
  int check_target_class;                 // class of the tracks to confirm; -1: none
  olvex::vector<int> check_with_classes;  // classes whose boxes confirm
  QV_FLOAT overlap_threshold;             // covered fraction of a confirming box that is enough
  QV_FLOAT check_class_conf_threshold;    // score that a confirming box needs

  DetDoubleCheckParams_t()
      : enable(0),
        check_target_class(-1),
        overlap_threshold(0.5f),
        check_class_conf_threshold(0.5f) {}
};

// Options of the tracker.
struct IouTrackerParams_t {
  QV_BOOL enable;              // 1: on
  QV_S16 ignore_frame_number;  // boxes that a track needs before it is reported
  QV_S16 max_lost_times;       // frames that a track may go unmatched

  IouTrackerParams_t() : enable(0), ignore_frame_number(1), max_lost_times(10) {}
};

// A size in pixels.
struct DetRect_t {
  QV_U32 width;
  QV_U32 height;
};

// What a handle is initialised with. Exactly one of model and model_buffer names the model.
struct DetInfo_t {
  char ipu_firmware_path[256];  // terminated
  char model[256];              // path, terminated; empty when the model comes from memory
  QV_FLOAT threshold;           // confidence that a box needs
  DetRect_t disp_size;          // display size
  QV_BOOL had_create_device;    // 1: the caller owns the accelerator device
  void* model_buffer;           // the offline model in memory, or NULL
  QV_U64 model_buffer_len;      // its bytes, or 0

  DetInfo_t()
      : ipu_firmware_path(),
        model(),
        threshold(0.0f),
        disp_size(),
        had_create_device(0),
        model_buffer(NULL),
        model_buffer_len(0) {}
};

OLVEX_LAYOUT_ASSERT(sizeof(KeyPt_t) == 12, "KeyPt_t");
OLVEX_LAYOUT_ASSERT(sizeof(olvex::vector<int>) == OLVEX_BY_POINTER_SIZE(24, 12), "olvex::vector");
OLVEX_LAYOUT_ASSERT(offsetof(IoutStaticParams_t, ref_frame) == 8, "IoutStaticParams_t");
OLVEX_LAYOUT_ASSERT(sizeof(IoutStaticParams_t) == 12, "IoutStaticParams_t");
OLVEX_LAYOUT_ASSERT(sizeof(DetDoubleCheckParams_t) == OLVEX_BY_POINTER_SIZE(40, 28),
                    "DetDoubleCheckParams_t");
OLVEX_LAYOUT_ASSERT(sizeof(IouTrackerParams_t) == 6, "IouTrackerParams_t");
OLVEX_LAYOUT_ASSERT(sizeof(BoxInfo) == OLVEX_BY_POINTER_SIZE(64, 56), "BoxInfo");
OLVEX_LAYOUT_ASSERT(offsetof(DetInfo_t, threshold) == 512, "DetInfo_t threshold");
OLVEX_LAYOUT_ASSERT(offsetof(DetInfo_t, model_buffer) == 528, "DetInfo_t model_buffer");
OLVEX_LAYOUT_ASSERT(sizeof(DetInfo_t) == 544, "DetInfo_t");

#endif  // UTILS_RECORDS_DET_RECORDS_H
