// SPDX-License-Identifier: Apache-2.0
// whole_run.cpp - sets the handle up, and moves the objects in the output from frame to frame.
#include "bench/whole_run.h"

#include <dlfcn.h>
#include <stdlib.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include "platform/scripted/qv_scripted.h"

namespace {

constexpr int kClasses = 3;
constexpr int kChannels = 4 + kClasses;
constexpr float kLowLogit = -6.0f;

// What one cell of the layer of the finest stride holds while an object's centre is in it.
struct CellValues {
  std::size_t first;  // element of the layer
  float values[kChannels];
};
using Moment = std::vector<CellValues>;

float logit(float p) {
  return std::log(p / (1.0f - p));
}

// The distance that the decoder makes of a value is stride * (4 * sigmoid(value))^2.
float distance_value(float pixels) {
  return logit(std::sqrt(pixels / static_cast<float>(kStrides[0])) / 4.0f);
}

CellValues cell_of(const BoxInfo& box) {
  const int stride = kStrides[0];
  const int column = static_cast<int>((box.x1 + box.x2) / 2) / stride;
  const int row = static_cast<int>((box.y1 + box.y2) / 2) / stride;
  const float cx = (static_cast<float>(column) + 0.5f) * static_cast<float>(stride);
  const float cy = (static_cast<float>(row) + 0.5f) * static_cast<float>(stride);
  CellValues cell = {
      static_cast<std::size_t>((row * (kInputWidth / stride) + column) * kChannels),
      {distance_value(cx - box.x1), distance_value(cy - box.y1), distance_value(box.x2 - cx),
       distance_value(box.y2 - cy), kLowLogit, kLowLogit, kLowLogit}};
  cell.values[4 + box.label] = logit(box.score);
  return cell;
}

// The path of the objects, and where they are in the output now.
struct Objects {
  std::vector<Moment> moments;
  std::size_t now = 0;
  QV_IPU_TensorVector_t output = {};  // the library's buffers, known from the first frame on

  explicit Objects(int boxes) {
    for (int moment = 0; moment < kMoments; ++moment) {
      moments.emplace_back();
      for (const BoxInfo& box : apart_boxes(boxes, moment)) {
        moments.back().push_back(cell_of(box));
      }
    }
  }

  void advance(float* layer) {
    for (const CellValues& cell : moments[now]) {
      for (int k = 0; k < kClasses; ++k) {
        layer[cell.first + 4 + static_cast<std::size_t>(k)] = kLowLogit;
      }
    }
    now = (now + 1) % moments.size();
    for (const CellValues& cell : moments[now]) {
      std::memcpy(layer + cell.first, cell.values, sizeof cell.values);
    }
  }
};

Objects* objects = nullptr;  // of the only run

qv_scripted::Network raw_network() {
  RawScene scene;
  scene.classes = kClasses;
  scene.kept = 0;
  RawLayers tensors(scene);
  qv_scripted::Network network;
  network.inputs = {qv_scripted::picture_input(QV_IPU_FORMAT_GRAY, kInputWidth, kInputHeight)};
  network.frames.emplace_back();
  for (int layer = 0; layer < kLayers; ++layer) {
    const QV_U32 width = static_cast<QV_U32>(tensors.info().net_out_w[layer]);
    const QV_U32 height = static_cast<QV_U32>(tensors.info().net_out_h[layer]);
    network.outputs.push_back(qv_scripted::fp32_tensor("out", {1, height, width, kChannels}));
    const auto* bytes = static_cast<const unsigned char*>(tensors.info().data[layer]);
    network.frames.back().emplace_back(bytes, bytes + network.outputs.back().u32BufSize);
  }
  network.copy_repeated_frame = false;
  return network;
}

std::string write_model(const std::string& header) {
  std::error_code error;
  const std::string folder = std::filesystem::temp_directory_path(error).string();
  if (error) {
    throw std::runtime_error("no folder for temporary files, see TMPDIR: " + error.message());
  }
  std::string path = folder + "/olvex_bench_XXXXXX";
  if (path.size() >= sizeof DetectionInfo_t::model) {
    throw std::runtime_error("the name of the folder for temporary files is too long: " + folder);
  }
  const int file = mkstemp(&path[0]);
  if (file < 0) {
    throw std::runtime_error("cannot make a model file in " + folder);
  }
  close(file);
  std::ofstream stream(path, std::ios::binary);
  stream << header << OLVEX_OFFLINE_MODEL_START "0123456789ab";
  stream.close();
  if (!stream) {
    unlink(path.c_str());
    throw std::runtime_error("cannot write a model file in " + folder);
  }
  return path;
}

void check(QV_S32 result, const char* what) {
  if (result != 0) {
    throw std::runtime_error(std::string(what) + " returned " + std::to_string(result));
  }
}

}  // namespace

// Replaces the scripted accelerator's own: the picture has changed since the last frame, and
// so have the few cells of the output that see an object. Copying whole frames would be measured
// with the library.
extern "C" QV_S32 QV_IPU_Invoke(QV_U32 channel, QV_IPU_TensorVector_t* input,
                                QV_IPU_TensorVector_t* output) {
  using Invoke = QV_S32 (*)(QV_U32, QV_IPU_TensorVector_t*, QV_IPU_TensorVector_t*);
  static const Invoke invoke = reinterpret_cast<Invoke>(dlsym(RTLD_NEXT, "QV_IPU_Invoke"));
  const QV_S32 result = invoke(channel, input, output);
  if (result == 0 && objects != nullptr) {
    objects->advance(static_cast<float*>(output->astArrayTensors[0].ptTensorData[0]));
    if (objects->output.u32TensorCount == 0) {
      objects->output = *output;
    }
  }
  return result;
}

WholeRun::WholeRun(const Routines& routines, int boxes, Mode mode)
    : routines_(routines), picture_(kInputWidth * kInputHeight), boxes_(ALGO_DET_MAX_BOXES) {
  qv_scripted::reset();
  qv_scripted::record_events(false);
  qv_scripted::add_network(raw_network());
  objects = new Objects(boxes);

  const bool strict = mode == kStrict;
  const std::string model =
      write_model(strict ? "model_out:zrphf\nlib_out:zrpd\n" : "model_out:zrpcd\n");
  DetectionInfo_t info = {};
  std::snprintf(info.model, sizeof info.model, "%s", model.c_str());
  info.threshold = kThreshold;
  info.disp_size = {1920, 1080};
  check(routines_.create_handle(&handle_), "ALGO_DET_CreateHandle");
  const QV_S32 result = routines_.init_handle(handle_, &info);
  unlink(model.c_str());
  check(result, "ALGO_DET_InitHandle");
  check(routines_.set_tracker2(handle_, {1, !strict, 0.0f, 1, 0.95f, 0}), "ALGO_DET_SetTracker2");
  if (strict) {
    check(routines_.set_strict_mode(handle_, {1}), "ALGO_DET_SetStrictMode");
  }
}

WholeRun::~WholeRun() {
  routines_.deinit_handle(handle_);
  delete objects;
  objects = nullptr;
  qv_scripted::reset();
}

void WholeRun::accelerator_frame() {
  QV_IPU_TensorVector_t input = {};
  input.astArrayTensors[0].ptTensorData[0] = picture_.data();
  QV_SYS_FlushInvCache(picture_.data(), static_cast<QV_U32>(picture_.size()));
  check(QV_IPU_Invoke(qv_scripted::kFirstChannel, &input, &objects->output), "QV_IPU_Invoke");
}

int WholeRun::frame() {
  QV_S32 count = 0;
  const ALGO_Input_t input = {picture_.data(), 0x10000000u, static_cast<QV_U32>(picture_.size()),
                              pts_++};
  check(routines_.run(handle_, &input, boxes_.data(), &count), "ALGO_DET_Run");
  return count;
}
