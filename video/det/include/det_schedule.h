// SPDX-License-Identifier: Apache-2.0
// det_schedule.h - DetHandle, the object behind every public handle: owns the model, the options,
// the tracker and the last output, and takes one frame through them. The public functions that call
// it are in video/det/src/olvex_det_impl.cpp.
#ifndef VIDEO_DET_INCLUDE_DET_SCHEDULE_H
#define VIDEO_DET_INCLUDE_DET_SCHEDULE_H

#include <pthread.h>

#include "platform/contract/olvex_platform.h"

#include "utils/olvex_stl/scratch.h"
#include "utils/olvex_stl/simplestl.h"
#include "utils/records/det_records.h"
#include "base/sdet/sdet_model.h"
#include "base/tracker/iou_tracker/iout.h"

// Overlap of two boxes for the stabiliser: the intersection of coordinates truncated to unsigned
// integers, over the union of the areas. Boxes that do not intersect give a number without meaning, as
// the unsigned differences wrap.
float iou_ratio(const BoxInfo& a, const BoxInfo& b);

// Path of the INI file that controls frame dumps, from the environment variable QK_ALGO_S; NULL: no
// dumps. One for the whole process: the last handle_init wins.
extern char* save_path_det;

// Life: constructed, initialised (handle_init returned 0), not initialised again (handle_deinit).
// The mutex is held during set-up, invocation and teardown only; setters and refinement take no
// lock, so a handle must not be used by two threads at once.
class DetHandle {
 public:
  DetHandle();
  // Leaves tracker and device alone: handle_deinit releases them.
  virtual ~DetHandle();
  DetHandle(const DetHandle&) = delete;
  DetHandle& operator=(const DetHandle&) = delete;

  // 0 when initialised, else E_ALGO_NOT_INIT (logged).
  int assert_handle_inited();

  // The pthread calls on detMutex_ with a log line each; they return the pthread result.
  int init_mutex_lock();
  int destroy_mutex_lock();
  int lock_mutex_lock();
  int unlock_mutex_lock();

  // Sizes the model, creates the device unless the caller has one, and opens the model. Returns 0;
  // the platform's code when the device cannot be created; E_ALGO_DEVICE_FAULT when the model
  // cannot be opened. After a failure the mutex stays locked, except for lack of memory, and the
  // handle may be initialised again.
  int handle_init(DetInfo_t* info);

  // Closes the model, frees the tracker, destroys the device unless it is the caller's. Does
  // nothing on a handle that is not initialised. The options stay. Returns 0.
  int handle_deinit();

  // Width and height in pixels and format of the model's input; untouched when not initialised.
  void get_input_attr(QV_U32* width, QV_U32* height, QV_IPU_ELEMENT_FORMAT* format);

  // The setters do nothing but log on a handle that is not initialised.
  void set_threshold(float threshold);
  void set_stable_bbox_params(DetStableBboxParams_t& params);
  void set_static_params(IoutStaticParams_t& params);
  // Takes the classes from the model, whatever params names. Switching it on switches the tracker
  // on.
  void set_double_check_params(DetDoubleCheckParams_t& params);
  // Creates the tracker when it is switched on for the first time; once made it is kept.
  void set_iou_tracker_params(IouTrackerParams_t& params);

  // Takes one frame through all stages that the options ask for, in order: detection, tracking with
  // classification and double check, stabilisation. Returns 0; what detect or track returned; in between
  // E_ALGO_INVALID_PARAM for the double check without a tracker. A failure is logged, and boxes then holds
  // what the last stage left.
  int run_frame(const QV_SYS_BufInfo_s* buffer, olvex::vector<BoxInfo>& boxes);

  // Runs one frame through the model; boxes gets the detections in display pixels. Returns 0;
  // E_ALGO_NOT_INIT; E_ALGO_INPUT_DATA_NULL without a buffer record; the model's code when the
  // invocation fails; E_ALGO_FILEIO_ERROR when the frame dump cannot be written.
  int detect(const QV_SYS_BufInfo_s* buffer, olvex::vector<BoxInfo>& boxes);

  // Feeds the detections with non-negative labels to the tracker; boxes is only read. Returns 0, or
  // E_ALGO_NOT_INIT, also when there is no tracker and none is to be made.
  int track(olvex::vector<BoxInfo>& boxes);

  // Replaces boxes by the newest box of each track to be reported.
  void refine_result(olvex::vector<BoxInfo>& boxes);

  // Replaces each box that overlaps a box of the last output enough by that box.
  void stable_box(olvex::vector<BoxInfo>& boxes);

  // Remembers this frame's boxes for stable_box.
  void update_last_output(olvex::vector<BoxInfo>& boxes);

  // mTracker_ by its type; NULL: none.
  OlvexIouTracker* tracker() const { return static_cast<OlvexIouTracker*>(mTracker_); }

  DetStableBboxParams_t mStableBboxPrams_;
  IoutStaticParams_t mStaticParams_;
  DetDoubleCheckParams_t mDoubleCheckParams_;
  IouTrackerParams_t mIouTrackerParams_;
  olvex::vector<olvex::pair<int, int> > mClassIdMap_;  // not used: the model keeps its own
  void* mTracker_;                                     // an OlvexIouTracker, owned; NULL: none
  pthread_mutex_t detMutex_;
  DetInfo_t mDetInfo_;
  olvex::vector<BoxInfo> mLastOutput_;  // what the previous frame reported
  DetAfModel detModel_;
  QV_BOOL isInited_;  // 1 between handle_init and handle_deinit

 private:
  int create_device(unsigned int variable_size);
  int open_device_and_model();
  int dump_frame(const QV_SYS_BufInfo_s& buffer);
  int track_and_refine(olvex::vector<BoxInfo>& boxes);
  bool is_reported(const Track& track) const;
  olvex::scratch<TrackBBox> track_boxes_;  // this frame's boxes as the tracker sees them
};

#endif  // VIDEO_DET_INCLUDE_DET_SCHEDULE_H
