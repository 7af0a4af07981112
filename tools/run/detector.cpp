// SPDX-License-Identifier: Apache-2.0
// detector.cpp - create, initialise, configure, run, free. library_model.h puts the
// library's codes into words.
#include "tools/run/run.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>

#include <sys/mman.h>

#include "platform/host/qv_host.h"
#include "tools/common/command.h"
#include "tools/inside/foreign_platform.h"
#include "tools/inside/last_output.h"
#include "tools/inside/library_model.h"

namespace olvex_tools {

namespace {

[[noreturn]] void fail(QV_S32 code, const std::string& call, const std::string& model) {
  const ResultCode& result = explain_result(code);
  throw ToolError(result.exit_code, model + ": " + result.text + " (" + call + " returned " +
                                        std::to_string(code) + ")");
}

QV_BOOL flag(bool value) {
  return value ? 1 : 0;
}

// Copies a path into a record of the public interface.
template <std::size_t size>
void set_path(char (&field)[size], const std::string& path, const char* remedy) {
  if (path.size() >= size) {
    refuse_model(path, "the path is longer than the " + std::to_string(size - 1) +
                           " bytes that the library takes. " + remedy);
  }
  std::memcpy(field, path.c_str(), path.size() + 1);
}

// A file's bytes from offset on, in a separate mapping.
struct Mapping {
  void* bytes;
  std::size_t size;
};

Mapping map_file(const std::string& path, std::size_t offset) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  const std::streamoff end = file ? static_cast<std::streamoff>(file.tellg()) : -1;
  if (end <= static_cast<std::streamoff>(offset)) {
    refuse_model(path, "the model cannot be read");
  }
  const std::size_t size = static_cast<std::size_t>(end) - offset;
  // The pattern need not lie at a page's start, so the file itself cannot be mapped from there.
  void* const bytes =
      mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (bytes == MAP_FAILED) {
    refuse_model(path, std::string("no memory for the model: ") + std::strerror(errno));
  }
  file.seekg(static_cast<std::streamoff>(offset));
  if (!file.read(static_cast<char*>(bytes), static_cast<std::streamsize>(size))) {
    munmap(bytes, size);
    refuse_model(path, "the model cannot be read");
  }
  return {bytes, size};
}

}  // namespace

Detector::Detector(const DetectorOptions& options, cv::Size display)
    : options_(options), boxes_(ALGO_DET_MAX_BOXES) {
  const Rect_t size = {static_cast<QV_U32>(display.width), static_cast<QV_U32>(display.height)};
  const QV_S32 created = ALGO_DET_CreateHandle(&handle_);
  if (created != E_ALGO_SUCCESS) {
    fail(created, "ALGO_DET_CreateHandle", options_.model);
  }
  try {
    if (options_.from_memory) {
      initialise_from_memory(size);
    } else {
      initialise_from_file(size);
    }
    configure();
  } catch (...) {
    ALGO_DET_DeinitHandle(handle_);
    throw;
  }
}

Detector::~Detector() {
  ALGO_DET_DeinitHandle(handle_);
}

void Detector::initialise_from_file(const Rect_t& display) {
  DetectionInfo_t info = {};
  set_path(info.ipu_firmware_path, options_.firmware, "Move the firmware or use a link");
  set_path(info.model, options_.model, "Use a shorter path, or --memory");
  info.threshold = options_.threshold;
  info.disp_size = display;
  info.had_create_device = flag(options_.shares_device);
  const QV_S32 code = ALGO_DET_InitHandle(handle_, &info);
  if (code != E_ALGO_SUCCESS) {
    fail(code, "ALGO_DET_InitHandle", options_.model);
  }
}

void Detector::initialise_from_memory(const Rect_t& display) {
  const Mapping mapping = map_file(options_.model, options_.pattern_offset);
  DetectionInfo2_t info = {};
  info.model_buffer = mapping.bytes;
  info.model_buffer_len = static_cast<QV_U32>(mapping.size);
  info.threshold = options_.threshold;
  info.disp_size = display;
  info.had_create_device = flag(options_.shares_device);
  const QV_S32 code = ALGO_DET_InitHandle2(handle_, &info);
  if (code != E_ALGO_SUCCESS && code != E_ALGO_DEVICE_FAULT) {
    // Only without a device does the library leave the mapping to its caller.
    munmap(mapping.bytes, mapping.size);
  }
  if (code != E_ALGO_SUCCESS) {
    fail(code, "ALGO_DET_InitHandle2", options_.model);
  }
}

void Detector::configure() {
  has_tracks_ = options_.track || options_.strict;
  DetTrackParams_t tracking = {};
  // Strict mode switches the tracker on by itself, but then this call must not switch it off.
  tracking.enable = flag(has_tracks_);
  tracking.ignore_static_objects = flag(options_.ignore_static);
  tracking.static_sensitive = options_.static_sensitivity;
  tracking.stable_bbox = flag(options_.stable);
  tracking.stable_sensitive = options_.stable_sensitivity;
  tracking.ignore_frame_number = options_.track_frames;
  ALGO_DET_SetTracker2(handle_, tracking);
  const DetStrictModeParams_t strict = {flag(options_.strict)};
  const QV_S32 code = ALGO_DET_SetStrictMode(handle_, strict);
  if (code != E_ALGO_SUCCESS) {
    fail(code, "ALGO_DET_SetStrictMode", options_.model);
  }
}

InputAttr_t Detector::input() const {
  InputAttr_t attributes = {};
  ALGO_DET_GetInputAttr(handle_, &attributes);
  return attributes;
}

void Detector::run(std::vector<unsigned char>* frame, FrameRecord* record) {
  ALGO_Input_t input = {};
  input.p_vir_addr = frame->data();
  input.phy_addr = reinterpret_cast<std::uintptr_t>(frame->data());
  input.buf_size = static_cast<QV_U32>(frame->size());
  input.pts = record->pts;
  QV_S32 count = 0;
  const auto start = std::chrono::steady_clock::now();
  const QV_S32 code = ALGO_DET_Run(handle_, &input, boxes_.data(), &count);
  const std::chrono::duration<double, std::milli> elapsed =
      std::chrono::steady_clock::now() - start;
  if (code != E_ALGO_SUCCESS) {
    fail(code, "ALGO_DET_Run", options_.model);
  }
  const InvokeTimes invocation = last_invoke_times();
  StageTimes& times = record->milliseconds;
  times.network = invocation.network;
  times.conversion += invocation.conversion;
  times.postprocessing =
      std::max(0.0, elapsed.count() - invocation.conversion - invocation.network);
  record->dropped_candidates = QV_HOST_LastInvokeDropped();

  record->detections.clear();
  for (QV_S32 i = 0; i < count; ++i) {
    const Box_t& box = boxes_[static_cast<std::size_t>(i)];
    Detection detection;
    detection.x = box.x;
    detection.y = box.y;
    detection.width = box.width;
    detection.height = box.height;
    detection.class_id = box.class_id;
    detection.score = box.score;
    record->detections.push_back(detection);
  }
  record->cut_boxes = add_last_output(handle_, has_tracks_, &record->detections);
}

}  // namespace olvex_tools
