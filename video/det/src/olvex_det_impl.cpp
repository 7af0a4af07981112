// SPDX-License-Identifier: Apache-2.0
// olvex_det_impl.cpp - the exported functions: argument checks and translation of the public records.
// olvex_det.h is the contract, det_schedule.h the object behind a handle.
#include "video/det/include/olvex_det.h"

#include <stdint.h>
#include <stdio.h>

#include "utils/log/olvex_log.h"
#include "utils/numeric/saturating_cast.h"
#include "video/det/include/commit_det.h"
#include "video/det/include/det_schedule.h"

OLVEX_LOG_CLOCK;

char COMMIT_DET[] = OLVEX_COMMIT_DET;

namespace {

const char kDefaultFirmwarePath[] = "/config/dla/ipu_firmware.bin";
const float kDefaultStableSensitive = 0.63f;
const float kDefaultStaticSensitive = 0.85f;
const QV_S16 kDefaultRefFrame = 5;
const QV_S16 kDefaultIgnoreFrames = 1;
const QV_S16 kDefaultMaxLostTimes = 10;

DetHandle* as_det_handle(void* handle) {
  return static_cast<DetHandle*>(handle);
}

bool is_null_handle(void* handle) {
  if (handle == NULL) {
    OLVEX_ERROR("the handle not create");
    return true;
  }
  return false;
}

void print_banner() {
  printf("libolvex_det release version: %s\n", COMMIT_DET);
}

int init_handle(void* handle, DetInfo_t& record) {
  const int result = as_det_handle(handle)->handle_init(&record);
  if (result != E_ALGO_SUCCESS) {
    OLVEX_ERROR("the handle init failed");
  }
  return result;
}

uint32_t to_pixels(float extent) {
  return olvex::saturating_cast<uint32_t>(static_cast<double>(extent));
}

// Deliberate: the limit counts examined entries, so one with a negative label uses up a place:
// the time spent here depends on the list alone, not on what the model hides.
QV_S32 write_boxes(const olvex::vector<BoxInfo>& boxes, QV_U64 pts, Box_t* out) {
  QV_S32 written = 0;
  for (size_t i = 0; i < boxes.size() && i < ALGO_DET_MAX_BOXES; ++i) {
    const BoxInfo& box = boxes[i];
    if (box.label < 0) {
      continue;
    }
    Box_t& record = out[written];
    record.x = to_pixels(box.x1);
    record.y = to_pixels(box.y1);
    record.width = to_pixels(box.x2 - box.x1);
    record.height = to_pixels(box.y2 - box.y1);
    record.class_id = static_cast<QV_U32>(box.label);
    record.score = box.score;
    record.pts = pts;
    ++written;
  }
  return written;
}

}  // namespace

QV_S32 ALGO_DET_CreateHandle(void** handle) {
  *handle = new DetHandle();
  return E_ALGO_SUCCESS;
}

// Deliberate: nothing is freed here, so that a call before or after ALGO_DET_DeinitHandle is
// harmless.
QV_S32 ALGO_DET_ReleaseHandle(void* /*handle*/) {
  return E_ALGO_SUCCESS;
}

QV_S32 ALGO_DET_GetInputAttr(void* handle, InputAttr_t* input_attr) {
  as_det_handle(handle)->get_input_attr(&input_attr->width, &input_attr->height,
                                        &input_attr->format);
  return E_ALGO_SUCCESS;
}

QV_S32 ALGO_DET_SetStableBox(void* handle, QV_BOOL stable) {
  DetStableBboxParams_t params;
  params.stable_bbox = stable;
  params.stable_sensitive = kDefaultStableSensitive;
  as_det_handle(handle)->set_stable_bbox_params(params);
  return E_ALGO_SUCCESS;
}

QV_S32 ALGO_DET_InitHandle(void* handle, DetectionInfo_t* init_info) {
  if (is_null_handle(handle)) {
    return E_ALGO_HANDLE_NULL;
  }
  print_banner();
  if (init_info == NULL) {
    OLVEX_ERROR("params `init_info` should not be NULL");
    return E_ALGO_INPUT_DATA_NULL;
  }
  DetInfo_t record;
  // The fields are read within their 256 bytes, terminated or not.
  const bool has_firmware = init_info->ipu_firmware_path[0] != 0;
  snprintf(record.ipu_firmware_path, sizeof(record.ipu_firmware_path), "%.255s",
           has_firmware ? init_info->ipu_firmware_path : kDefaultFirmwarePath);
  snprintf(record.model, sizeof(record.model), "%.255s", init_info->model);
  record.threshold = init_info->threshold;
  record.disp_size.width = init_info->disp_size.width;
  record.disp_size.height = init_info->disp_size.height;
  record.had_create_device = init_info->had_create_device;
  return init_handle(handle, record);
}

QV_S32 ALGO_DET_InitHandle2(void* handle, DetectionInfo2_t* init_info) {
  if (is_null_handle(handle)) {
    return E_ALGO_HANDLE_NULL;
  }
  print_banner();
  if (init_info == NULL) {
    OLVEX_ERROR("params `init_info` should not be NULL");
    return E_ALGO_INPUT_DATA_NULL;
  }
  DetInfo_t record;
  snprintf(record.ipu_firmware_path, sizeof(record.ipu_firmware_path), "%s", kDefaultFirmwarePath);
  record.model_buffer = init_info->model_buffer;
  record.model_buffer_len = init_info->model_buffer_len;
  record.threshold = init_info->threshold;
  record.disp_size.width = init_info->disp_size.width;
  record.disp_size.height = init_info->disp_size.height;
  record.had_create_device = init_info->had_create_device;
  return init_handle(handle, record);
}

QV_S32 ALGO_DET_SetTracker(void* handle, QV_S32 tk_type, QV_S32 md_type) {
  if (tk_type != 0 && tk_type != 1) {
    OLVEX_ERROR_FORMAT("invalid parameter tk_type = %d, should be 0 or 1!\n", tk_type);
    return E_ALGO_INVALID_PARAM;
  }
  if (md_type != 0 && md_type != 1) {
    OLVEX_ERROR_FORMAT("invalid parameter md_type = %d, should be 0 or 1!\n", md_type);
    return E_ALGO_INVALID_PARAM;
  }
  if (tk_type == 0 && md_type == 1) {
    OLVEX_ERROR_FORMAT("invalid parameter combination: tk_type = %d, md_type = %d!\n", tk_type,
                       md_type);
    return E_ALGO_INVALID_PARAM;
  }
  DetHandle* det = as_det_handle(handle);
  IouTrackerParams_t tracker_params;
  tracker_params.ignore_frame_number = kDefaultIgnoreFrames;
  tracker_params.max_lost_times = kDefaultMaxLostTimes;
  // Strict mode needs the tracker: a tk_type of 0 does not take it away.
  tracker_params.enable = tk_type == 1 || det->mDoubleCheckParams_.enable == 1 ? 1 : 0;
  det->set_iou_tracker_params(tracker_params);

  IoutStaticParams_t static_params;
  static_params.static_sensitive = kDefaultStaticSensitive;
  static_params.ref_frame = kDefaultRefFrame;
  static_params.ignore_static_objects = md_type == 1 ? 1 : 0;
  det->set_static_params(static_params);
  return E_ALGO_SUCCESS;
}

QV_S32 ALGO_DET_SetTracker2(void* handle, DetTrackParams_t track_params) {
  DetHandle* det = as_det_handle(handle);
  IouTrackerParams_t tracker_params;
  tracker_params.enable = track_params.enable;
  tracker_params.ignore_frame_number = kDefaultIgnoreFrames;
  tracker_params.max_lost_times = kDefaultMaxLostTimes;
  OLVEX_INFO_FORMAT("track_params.ignore_frame_number = %d\n", track_params.ignore_frame_number);
  if (track_params.ignore_frame_number != 0) {
    tracker_params.ignore_frame_number = static_cast<QV_S16>(track_params.ignore_frame_number);
  }
  det->set_iou_tracker_params(tracker_params);

  IoutStaticParams_t static_params;
  static_params.ignore_static_objects = track_params.ignore_static_objects;
  static_params.static_sensitive = kDefaultStaticSensitive;
  if (track_params.static_sensitive != 0.0f) {
    static_params.static_sensitive = track_params.static_sensitive;
  }
  static_params.ref_frame = kDefaultRefFrame;
  det->set_static_params(static_params);

  // Deliberate: 0 selects the default of static_sensitive above, but is taken as 0 here, where any
  // overlap holds a box.
  DetStableBboxParams_t stable_params;
  stable_params.stable_bbox = track_params.stable_bbox;
  stable_params.stable_sensitive = track_params.stable_sensitive;
  det->set_stable_bbox_params(stable_params);
  return E_ALGO_SUCCESS;
}

QV_S32 ALGO_DET_SetThreshold(void* handle, QV_FLOAT threshold) {
  if (is_null_handle(handle)) {
    return E_ALGO_HANDLE_NULL;
  }
  if (threshold < 0.0f || threshold > 1.0f) {
    return E_ALGO_INVALID_PARAM;
  }
  as_det_handle(handle)->set_threshold(threshold);
  return E_ALGO_SUCCESS;
}

QV_S32 ALGO_DET_Run(void* handle, const ALGO_Input_t* algo_input, Box_t* bboxes,
                    QV_S32* num_bboxes) {
  DetHandle& det = *as_det_handle(handle);
  QV_SYS_BufInfo_s buffer = QV_SYS_BufInfo_s();
  buffer.u64Pts = algo_input->pts;
  buffer.stFrameData.pVirAddr[0] = algo_input->p_vir_addr;
  buffer.stFrameData.phyAddr[0] = algo_input->phy_addr;
  buffer.stFrameData.u32BufSize = algo_input->buf_size;

  olvex::vector<BoxInfo> boxes;
  const int result = det.run_frame(&buffer, boxes);
  if (result != E_ALGO_SUCCESS) {
    return result;
  }
  *num_bboxes = write_boxes(boxes, algo_input->pts, bboxes);
  OLVEX_INFO("ALGO_DET_Run Done");
  return E_ALGO_SUCCESS;
}

QV_S32 ALGO_DET_DeinitHandle(void* handle) {
  if (is_null_handle(handle)) {
    return E_ALGO_HANDLE_NULL;
  }
  DetHandle* det = as_det_handle(handle);
  const int result = det->handle_deinit();
  if (result != E_ALGO_SUCCESS) {
    OLVEX_ERROR("handle_deinit failed");
    return result;
  }
  delete det;
  OLVEX_INFO("ALGO_DET_DeinitHandle Done");
  return E_ALGO_SUCCESS;
}

QV_S32 ALGO_DET_SetStrictMode(void* handle, DetStrictModeParams_t params) {
  if (is_null_handle(handle)) {
    return E_ALGO_HANDLE_NULL;
  }
  DetDoubleCheckParams_t double_check;
  double_check.enable = params.enable;
  as_det_handle(handle)->set_double_check_params(double_check);
  return E_ALGO_SUCCESS;
}
