// det_schedule.cpp - DetHandle: set-up, one frame, refinement, teardown. See det_schedule.h.
#include "video/det/include/det_schedule.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "utils/debug/debug.h"
#include "utils/log/olvex_log.h"
#include "utils/numeric/saturating_cast.h"

OLVEX_LOG_CLOCK;

char* save_path_det = NULL;

namespace {

// Bytes to which the camera aligns its rows, and rows to which it pads the Y plane.
const QV_U32 kYuvRowAlignment = 16;
const QV_U32 kYuvHeightAlignment = 2;
const QV_U32 kXrgbRowAlignment = 16;

uint32_t truncated(float position) {
  return olvex::saturating_cast<uint32_t>(static_cast<double>(position));
}

// Holds a handle's mutex for a scope, also when an allocation failure leaves it.
class MutexGuard {
 public:
  explicit MutexGuard(DetHandle& handle) : handle_(handle) { handle_.lock_mutex_lock(); }
  ~MutexGuard() { handle_.unlock_mutex_lock(); }
  MutexGuard(const MutexGuard&) = delete;
  MutexGuard& operator=(const MutexGuard&) = delete;

 private:
  DetHandle& handle_;
};

OlvexIouTracker* as_tracker(void* tracker) {
  return static_cast<OlvexIouTracker*>(tracker);
}

}  // namespace

// Deliberate: truncated to unsigned integers, no extra pixel, and nothing clamps a negative extent:
// the differences of boxes that do not meet wrap, so that two boxes far apart on a diagonal can
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

DetHandle::DetHandle() : mTracker_(NULL), detMutex_(), isInited_(0) {}

DetHandle::~DetHandle() {
  mLastOutput_.clear();
}

int DetHandle::assert_handle_inited() {
  if (isInited_ == 1) {
    return E_ALGO_SUCCESS;
  }
  OLVEX_ERROR("det handle is not inited or deinit already!!!");
  return E_ALGO_NOT_INIT;
}

// ---- Mutex --------------------------------------------------------------------------------------

int DetHandle::init_mutex_lock() {
  const int result = pthread_mutex_init(&detMutex_, NULL);
  if (result == 0) {
    OLVEX_DEBUG("init mutex succeed\n");
  } else {
    OLVEX_ERROR_FORMAT("init mutex failed(return %d)\n", result);
  }
  return result;
}

int DetHandle::destroy_mutex_lock() {
  const int result = pthread_mutex_destroy(&detMutex_);
  if (result == 0) {
    OLVEX_DEBUG("destroy mutex succeed\n");
  } else {
    OLVEX_ERROR_FORMAT("destroy mutex failed(return %d)\n", result);
  }
  return result;
}

int DetHandle::lock_mutex_lock() {
  const int result = pthread_mutex_lock(&detMutex_);
  if (result == 0) {
    OLVEX_DEBUG("lock mutex succeed\n");
  } else {
    OLVEX_ERROR_FORMAT("lock mutex failed(return %d)\n", result);
  }
  return result;
}

int DetHandle::unlock_mutex_lock() {
  const int result = pthread_mutex_unlock(&detMutex_);
  if (result == 0) {
    OLVEX_DEBUG("unlock mutex succeed\n");
  } else {
    OLVEX_ERROR_FORMAT("unlock mutex failed(return %d)\n", result);
  }
  return result;
}

// ---- Set-up and teardown
// -------------------------------------------------------------------------

int DetHandle::create_device(unsigned int variable_size) {
  QV_IPU_DevAttr_t attributes = QV_IPU_DevAttr_t();
  attributes.u32MaxVariableBufSize = variable_size;
  attributes.u32YUV420_W_Pitch_Alignment = kYuvRowAlignment;
  attributes.u32YUV420_H_Pitch_Alignment = kYuvHeightAlignment;
  attributes.u32XRGB_W_Pitch_Alignment = kXrgbRowAlignment;
  const int result = QV_IPU_CreateDevice(&attributes, NULL, mDetInfo_.ipu_firmware_path, 0);
  if (result != 0) {
    OLVEX_ERROR_FORMAT("QV_IPU_CreateDevice failed(error code = %d)\n", result);
  } else {
    OLVEX_DEBUG("QV_IPU_CreateDevice done");
  }
  return result;
}

// Deliberate: the two failures below leave the mutex locked. A handle that failed is freed or
// initialised again, and init_mutex_lock makes the mutex anew.
int DetHandle::handle_init(DetInfo_t* info) {
  save_path_det = getenv("QK_ALGO_S");
  // Deliberate: the address in decimal, not the text.
  OLVEX_DEBUG_FORMAT("save_path_det: %d\n",
                     static_cast<int>(reinterpret_cast<intptr_t>(save_path_det)));
  mDetInfo_ = *info;
  unsigned int variable_size = 0;
  init_mutex_lock();
  lock_mutex_lock();

  // The result is not checked: without a model, model_init below fails.
  if (mDetInfo_.model_buffer != NULL) {
    detModel_.cal_variable_size(static_cast<char*>(mDetInfo_.model_buffer),
                                static_cast<unsigned int>(mDetInfo_.model_buffer_len),
                                &variable_size);
  } else {
    detModel_.cal_variable_size(info->model, &variable_size);
  }
  if (variable_size != 0) {
    OLVEX_DEBUG_FORMAT("cal_variable_size done(%lu)\n", static_cast<unsigned long>(variable_size));
  }
  detModel_.set_theshold(mDetInfo_.threshold);
  OLVEX_DEBUG("set_theshold done");

  if (mDetInfo_.had_create_device == 0) {
    const int result = create_device(variable_size);
    if (result != 0) {
      detModel_.release_own_image();
      return result;
    }
  }
  const int result = detModel_.model_init(0, 1);
  if (result != 0) {
    OLVEX_ERROR_FORMAT("det model %s load failed(%d)!\n", mDetInfo_.model, result);
    return E_ALGO_DEVICE_FAULT;
  }
  unlock_mutex_lock();
  isInited_ = 1;
  OLVEX_INFO("init success!");
  return E_ALGO_SUCCESS;
}

int DetHandle::handle_deinit() {
  if (isInited_ == 0) {
    OLVEX_ERROR("no need to deinit handle: det handle is not inited or already deinited!");
    return E_ALGO_SUCCESS;
  }
  isInited_ = 0;
  lock_mutex_lock();
  OLVEX_INFO("det_model deinit");
  detModel_.model_deinit();
  delete as_tracker(mTracker_);
  mTracker_ = NULL;
  if (mDetInfo_.had_create_device == 0) {
    OLVEX_INFO("QV_IPU_DestroyDevice");
    QV_IPU_DestroyDevice();
  }
  unlock_mutex_lock();
  destroy_mutex_lock();
  memset(static_cast<void*>(&mDetInfo_), 0, sizeof(mDetInfo_));
  return E_ALGO_SUCCESS;
}

// ---- Options ------------------------------------------------------------------------------------

void DetHandle::get_input_attr(QV_U32* width, QV_U32* height, QV_IPU_ELEMENT_FORMAT* format) {
  if (assert_handle_inited() == E_ALGO_SUCCESS) {
    detModel_.get_model_attri(width, height, format);
  }
}

void DetHandle::set_threshold(float threshold) {
  if (assert_handle_inited() == E_ALGO_SUCCESS) {
    mDetInfo_.threshold = threshold;
    detModel_.set_theshold(threshold);
  }
}

void DetHandle::set_stable_bbox_params(DetStableBboxParams_t& params) {
  if (assert_handle_inited() == E_ALGO_SUCCESS) {
    mStableBboxPrams_ = params;
  }
}

void DetHandle::set_static_params(IoutStaticParams_t& params) {
  if (assert_handle_inited() == E_ALGO_SUCCESS) {
    mStaticParams_ = params;
  }
}

void DetHandle::set_double_check_params(DetDoubleCheckParams_t& params) {
  if (assert_handle_inited() != E_ALGO_SUCCESS) {
    return;
  }
  mDoubleCheckParams_.enable = params.enable;
  mDoubleCheckParams_.overlap_threshold = params.overlap_threshold;
  mDoubleCheckParams_.check_class_conf_threshold = params.check_class_conf_threshold;
  detModel_.get_double_check_ids(mDoubleCheckParams_.check_with_classes,
                                 mDoubleCheckParams_.check_target_class);
  if (params.enable == 1) {
    mIouTrackerParams_.enable = 1;
  }
}

void DetHandle::set_iou_tracker_params(IouTrackerParams_t& params) {
  if (assert_handle_inited() != E_ALGO_SUCCESS) {
    return;
  }
  mIouTrackerParams_ = params;
  if (mTracker_ == NULL && mIouTrackerParams_.enable == 1) {
    mTracker_ = new OlvexIouTracker();
  }
  if (mTracker_ != NULL) {
    as_tracker(mTracker_)->iou_t_min_ = static_cast<float>(mIouTrackerParams_.ignore_frame_number);
    as_tracker(mTracker_)->max_lost_times_ = mIouTrackerParams_.max_lost_times;
  }
}

// ---- One frame ----------------------------------------------------------------------------------

int DetHandle::detect(const QV_SYS_BufInfo_s* buffer, olvex::vector<BoxInfo>& boxes) {
  if (assert_handle_inited() != E_ALGO_SUCCESS) {
    return E_ALGO_NOT_INIT;
  }
  if (buffer == NULL) {
    OLVEX_ERROR("the input image is nullptr");
    return E_ALGO_INPUT_DATA_NULL;
  }
  OLVEX_INFO("detect start!");
  const QV_SYS_FrameData_s& frame = buffer->stFrameData;
  // Deliberate: the tensor count stays 0, as the platform takes the network's own number of inputs.
  QV_IPU_TensorVector_t tensors = QV_IPU_TensorVector_t();
  tensors.astArrayTensors[0].ptTensorData[0] = frame.pVirAddr[0];
  tensors.astArrayTensors[0].phyTensorAddr[0] = frame.phyAddr[0];
  // The accelerator reads memory, not the CPU's cache.
  QV_SYS_FlushInvCache(frame.pVirAddr[0], frame.u32BufSize);

  OLVEX_INFO("start to invoke");
  BoxInfo* det_box = NULL;
  int count = 0;
  int result;
  {
    const MutexGuard guard(*this);
    result = detModel_.model_invoke(&tensors, &det_box, &count, mDetInfo_.disp_size.width,
                                    mDetInfo_.disp_size.height);
  }
  if (result != E_ALGO_SUCCESS) {
    OLVEX_ERROR("model invoke is failed");
    return result;
  }
  OLVEX_INFO_FORMAT("end to invoke and postprocess %d\n", count);
  boxes.resize(static_cast<size_t>(count), BoxInfo());
  for (size_t i = 0; i < boxes.size(); ++i) {
    boxes[i] = det_box[i];
  }
  if (save_path_det != NULL) {
    const int dump_result = dump_frame(*buffer);
    if (dump_result != E_ALGO_SUCCESS) {
      return dump_result;
    }
  }
  OLVEX_INFO("detect over!");
  return E_ALGO_SUCCESS;
}

// The INI file is read on every frame, so that dumps can be switched while running.
int DetHandle::dump_frame(const QV_SYS_BufInfo_s& buffer) {
  char directory[kIniLineSize];
  if (getIniKeyString("SET_ENV", "QK_ALGO_I", save_path_det, directory) != 0) {
    return E_ALGO_SUCCESS;
  }
  if (save_buffer_to_file(buffer.stFrameData.pVirAddr[0],
                          static_cast<int>(buffer.stFrameData.u32BufSize), directory,
                          "algo") != E_ALGO_SUCCESS) {
    OLVEX_ERROR("save_buffer_to_file failed!");
    return E_ALGO_FILEIO_ERROR;
  }
  OLVEX_DEBUG_FORMAT("save data to %s\n", save_path_det);
  return E_ALGO_SUCCESS;
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
  olvex::vector<TrackBBox> frame;
  for (size_t i = 0; i < boxes.size(); ++i) {
    // Deliberate: boxes with a negative label stay in the list, for the double check, but are not
    // tracked.
    if (boxes[i].label >= 0) {
      frame.push_back(to_track_box(boxes[i]));
    }
  }
  olvex::vector<olvex::vector<TrackBBox> > frames;
  frames.push_back(frame);
  OLVEX_INFO_FORMAT("track input num is %d !\n", static_cast<int>(frame.size()));

  OlvexIouTracker& tracker = *as_tracker(mTracker_);
  tracker.track_iou(frames);
  for (size_t i = 0; i < tracker.finished_tracks_.size(); ++i) {
    const Track& track = tracker.finished_tracks_[i];
    const TrackBBox& last = track.boxes[track.boxes.size() - 1];
    OLVEX_INFO_FORMAT("track result %d x,y,w,h,id=%f,%f,%f,%f,%d!\n", static_cast<int>(i),
                      static_cast<double>(last.x), static_cast<double>(last.y),
                      static_cast<double>(last.w), static_cast<double>(last.h), track.id);
  }
  OLVEX_INFO("track over!");
  return E_ALGO_SUCCESS;
}

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
  const olvex::vector<Track>& tracks = as_tracker(mTracker_)->finished_tracks_;
  for (size_t i = 0; i < tracks.size(); ++i) {
    if (!is_reported(tracks[i])) {
      continue;
    }
    const TrackBBox& last = tracks[i].boxes[tracks[i].boxes.size() - 1];
    BoxInfo box;
    box.x1 = last.x;
    box.y1 = last.y;
    box.x2 = last.x + last.w;
    box.y2 = last.y + last.h;
    box.score = last.score;
    box.label = last.class_id;
    box.pts = last.pts;
    box.track_id = static_cast<unsigned long long>(static_cast<long long>(tracks[i].id));
    boxes.push_back(box);
  }
}

void DetHandle::stable_box(olvex::vector<BoxInfo>& boxes) {
  OLVEX_DEBUG_FORMAT("enter %s\n", "stable_box");
  if (assert_handle_inited() != E_ALGO_SUCCESS) {
    return;
  }
  for (size_t i = 0; i < boxes.size(); ++i) {
    size_t best = 0;
    float best_iou = 0.0f;
    for (size_t k = 0; k < mLastOutput_.size(); ++k) {
      const float ratio = iou_ratio(boxes[i], mLastOutput_[k]);
      // Deliberate: strictly less, so that among equal overlaps the first previous box wins.
      if (best_iou < ratio) {
        best = k;
        best_iou = ratio;
      }
    }
    // Deliberate: the whole record is replaced, class, time stamp and track id with it, and no
    // class is compared. OLVEX_StableBox holds the corners only, by another overlap. A sensitivity
    // below 0 would let a box without any overlap be replaced: there is none to take.
    if (best_iou > 0.0f && mStableBboxPrams_.stable_sensitive < best_iou) {
      boxes[i] = mLastOutput_[best];
    }
  }
}

void DetHandle::update_last_output(olvex::vector<BoxInfo>& boxes) {
  if (assert_handle_inited() == E_ALGO_SUCCESS) {
    mLastOutput_ = boxes;
  }
}
