// SPDX-License-Identifier: Apache-2.0
// det_schedule.cpp - DetHandle: set-up, options, detection, teardown. Tracking and what
// follows it are in det_refine.cpp.
#include "video/det/include/det_schedule.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "utils/debug/debug.h"
#include "utils/log/olvex_log.h"

OLVEX_LOG_CLOCK;

char* save_path_det = NULL;

namespace {

// Holds a handle's mutex for a scope, also when an allocation failure leaves it.
class MutexGuard {
 public:
  explicit MutexGuard(DetHandle& handle) : handle_(handle), unlocks_(true) {
    handle_.lock_mutex_lock();
  }
  ~MutexGuard() {
    if (unlocks_) {
      handle_.unlock_mutex_lock();
    }
  }
  MutexGuard(const MutexGuard&) = delete;
  MutexGuard& operator=(const MutexGuard&) = delete;

  void leave_locked() { unlocks_ = false; }

 private:
  DetHandle& handle_;
  bool unlocks_;
};

}  // namespace

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

// ---- Set-up and teardown ------------------------------------------------------------------------

int DetHandle::create_device(unsigned int variable_size) {
  QV_IPU_DevAttr_s attributes = QV_IPU_DevAttr_s();
  attributes.u32MaxVariableBufSize = variable_size;
  attributes.u32YUV420_W_Pitch_Alignment = OLVEX_ROW_ALIGNMENT;
  attributes.u32YUV420_H_Pitch_Alignment = OLVEX_NV12_ROWS_ALIGNMENT;
  attributes.u32XRGB_W_Pitch_Alignment = OLVEX_ROW_ALIGNMENT;
  const int result = QV_IPU_CreateDevice(&attributes, NULL, mDetInfo_.ipu_firmware_path, 0);
  if (result != 0) {
    OLVEX_ERROR_FORMAT("QV_IPU_CreateDevice failed(error code = %d)\n", result);
  } else {
    OLVEX_DEBUG("QV_IPU_CreateDevice done");
  }
  return result;
}

int DetHandle::handle_init(DetInfo_t* info) {
  save_path_det = getenv("QK_ALGO_S");
  // Deliberate: the address in decimal, not the text.
  OLVEX_DEBUG_FORMAT("save_path_det: %d\n",
                     static_cast<int>(reinterpret_cast<intptr_t>(save_path_det)));
  mDetInfo_ = *info;
  init_mutex_lock();
  {
    MutexGuard guard(*this);
    const int result = open_device_and_model();
    if (result != E_ALGO_SUCCESS) {
      // Deliberate: a handle that failed is freed or initialised again, and init_mutex_lock creates
      // the mutex again.
      guard.leave_locked();
      return result;
    }
  }
  isInited_ = 1;
  OLVEX_INFO("init success!");
  return E_ALGO_SUCCESS;
}

int DetHandle::open_device_and_model() {
  unsigned int variable_size = 0;
  // The result is not checked: without a model, model_init below fails.
  if (mDetInfo_.model_buffer != NULL) {
    detModel_.cal_variable_size(static_cast<char*>(mDetInfo_.model_buffer),
                                static_cast<unsigned int>(mDetInfo_.model_buffer_len),
                                &variable_size);
  } else {
    detModel_.cal_variable_size(mDetInfo_.model, &variable_size);
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
  delete tracker();
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
    tracker()->iou_t_min_ = static_cast<float>(mIouTrackerParams_.ignore_frame_number);
    tracker()->max_lost_times_ = mIouTrackerParams_.max_lost_times;
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
