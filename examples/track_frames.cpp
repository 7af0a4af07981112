// SPDX-License-Identifier: Apache-2.0
// track_frames.cpp - a C++ application: tracks objects over raw frames and reports those that move.
//
// Usage: track_frames MODEL FRAME.bin...
// Each file is one picture in the model's own input format, in order of time. The boxes go to
// standard error, as the library's diagnostics use standard output.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "olvex_det.h"

namespace {

// Owns one handle from creation to release.
class Detector {
 public:
  explicit Detector(const std::string& model) : handle_(nullptr) {
    DetectionInfo_t info;
    std::memset(&info, 0, sizeof(info));
    std::snprintf(info.model, sizeof(info.model), "%s", model.c_str());
    info.threshold = 0.5f;
    info.disp_size.width = 1920;
    info.disp_size.height = 1080;
    ALGO_DET_CreateHandle(&handle_);
    const QV_S32 result = ALGO_DET_InitHandle(handle_, &info);
    if (result != E_ALGO_SUCCESS) {
      ALGO_DET_DeinitHandle(handle_);
      throw std::runtime_error("cannot open " + model + ", code " + std::to_string(result));
    }
  }
  ~Detector() { ALGO_DET_DeinitHandle(handle_); }
  Detector(const Detector&) = delete;
  Detector& operator=(const Detector&) = delete;

  void report_moving_objects_only() { ALGO_DET_SetTracker(handle_, 1, 1); }

  std::vector<Box_t> run(std::vector<char>& picture, QV_U64 pts) {
    ALGO_Input_t frame;
    std::memset(&frame, 0, sizeof(frame));
    frame.p_vir_addr = picture.data();
    frame.buf_size = static_cast<QV_U32>(picture.size());
    frame.pts = pts;
    std::vector<Box_t> boxes(ALGO_DET_MAX_BOXES);
    QV_S32 count = 0;
    const QV_S32 result = ALGO_DET_Run(handle_, &frame, boxes.data(), &count);
    if (result != E_ALGO_SUCCESS) {
      throw std::runtime_error("frame failed, code " + std::to_string(result));
    }
    boxes.resize(static_cast<size_t>(count));
    return boxes;
  }

 private:
  void* handle_;
};

std::vector<char> read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    throw std::runtime_error("cannot read " + path);
  }
  return std::vector<char>(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s MODEL FRAME.bin...\n", argv[0]);
    return 2;
  }
  try {
    Detector detector(argv[1]);
    detector.report_moving_objects_only();
    for (int i = 2; i < argc; ++i) {
      std::vector<char> picture = read_file(argv[i]);
      for (const Box_t& box : detector.run(picture, static_cast<QV_U64>(i - 2))) {
        std::fprintf(stderr, "%s: class %u at %u,%u size %ux%u\n", argv[i], box.class_id, box.x,
                     box.y, box.width, box.height);
      }
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
    return 1;
  }
  return 0;
}
