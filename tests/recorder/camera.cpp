// SPDX-License-Identifier: Apache-2.0
// camera.cpp - an application with handles in threads over the scripted accelerator, the same in every run. It is
// linked without a recorder, with one in front, and statically with the wrapped one; recorder_test.py runs it.
//
//   camera RESULTS [NAME=VALUE]...
//
// RESULTS gets every return code and box. Names: kind=fp32|int16|points|list|bytes, or all for a handle of each but the last, frames, handles, threshold, track,
// input=gray|nv12|argb, pause (ms per frame), invocation (ms that one takes), and the numbers of the frames before which something happens: fail (the invocation),
// trigger (by the application), signal, threshold_at (it is set to 0.01), fork, wait (for the file RESULTS.go), close
// (all descriptors), kill. The recorder's thread begins CAMERA_LATE_THREAD_US of the environment late.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "platform/scripted/qv_scripted.h"
#include "recorder/olvex_recorder.h"
#include "tests/api/list_network.h"
#include "tests/support/random.h"
#include "video/det/include/olvex_det.h"

// The first that the recorder's thread calls; here it is before that of libc.
extern "C" int setpriority(int, unsigned, int) {
  const char* const late = std::getenv("CAMERA_LATE_THREAD_US");
  return late == nullptr ? 0 : usleep(static_cast<useconds_t>(std::atoi(late)));
}

namespace {

constexpr int kMoments = 40;
constexpr QV_U32 kRowBytes = 288;  // of an NV12 picture, padded
constexpr QV_U32 kStrides[] = {8, 16, 32};

struct Options {
  std::map<std::string, std::string> values;

  std::string text(const std::string& name, const std::string& usual) const {
    const auto found = values.find(name);
    return found == values.end() ? usual : found->second;
  }
  double number(const std::string& name, double usual) const {
    return std::atof(text(name, std::to_string(usual)).c_str());
  }
  bool is_now(const std::string& name, int frame) const { return number(name, -1) == frame; }
};

// Objects on their way through three raw layers; between the 10th and 24th moment there are none.
qv_scripted::Network raw_network(QV_U32 channels, bool is_int16) {
  using namespace qv_scripted;
  Network network;
  Random random(channels);
  network.inputs = {picture_input(QV_IPU_FORMAT_GRAY, kNetWidth, kNetHeight)};
  for (const QV_U32 stride : kStrides) {
    const std::vector<QV_U32> shape = {1, kNetHeight / stride, kNetWidth / stride, channels};
    network.outputs.push_back(is_int16 ? int16_tensor("out", shape, 1.0f / 256)
                                       : fp32_tensor("out", shape));
  }
  for (int moment = 0; moment < kMoments; ++moment) {
    network.frames.emplace_back();
    for (const QV_IPU_TensorDesc_t& output : network.outputs) {
      std::vector<float> values(output.u32BufSize / (is_int16 ? 2 : 4));
      const bool is_empty = moment >= 10 && moment < 24;
      for (std::size_t k = 0; k < values.size(); ++k) {
        const bool is_cell_seen = !is_empty && (k / channels + moment / 4) % 37 == 0;
        values[k] = k % channels < 4 ? random.between(-1.0f, 1.0f)
                                     : random.between(-9.0f, is_cell_seen ? 4.0f : -4.0f);
      }
      std::vector<QV_S16> scaled(values.size());
      for (std::size_t k = 0; k < values.size(); ++k) {
        scaled[k] = static_cast<QV_S16>(values[k] * 256);
      }
      network.frames.back().push_back(is_int16 ? to_bytes(scaled) : to_bytes(values));
    }
  }
  return network;
}

// Outputs of a type that the library does not decode, and of which the platform does not say how large they are.
qv_scripted::Network byte_network() {
  using namespace qv_scripted;
  Network network;
  network.inputs = {picture_input(QV_IPU_FORMAT_GRAY, kNetWidth, kNetHeight)};
  for (const QV_U32 stride : kStrides) {
    network.outputs.push_back(nhwc_tensor("out", {1, kNetHeight / stride, kNetWidth / stride, 7},
                                          QV_IPU_FORMAT_U8, 1.0f));
    network.outputs.back().u32BufSize = 0;
  }
  network.frames = {Frame(std::size(kStrides))};
  return network;
}

qv_scripted::Network outputs_of(const std::string& kind) {
  if (kind == "bytes") {
    return byte_network();
  }
  if (kind == "list") {
    return list_network({{{8, 16, 32, 48, 0.75f, 2}, {100, 20, 150, 60, 0.3f, 1}}, {}});
  }
  return kind == "points" ? raw_network(13, true) : raw_network(7, kind == "int16");
}

std::string kind_of(const Options& options, std::size_t handle) {
  static const char* const kKinds[] = {"fp32", "int16", "points", "list"};
  const std::string kind = options.text("kind", "fp32");
  return kind == "all" ? kKinds[handle % std::size(kKinds)] : kind;
}

qv_scripted::Network network_of(const Options& options, const std::string& kind) {
  qv_scripted::Network network = outputs_of(kind);
  const std::string input = options.text("input", "gray");
  if (input == "nv12") {
    network.inputs = {qv_scripted::picture_input(QV_IPU_FORMAT_NV12, kNetWidth, kNetHeight)};
    network.inputs[0].u32InputWidthAlignment = kRowBytes;
  } else if (input == "argb") {
    network.inputs = {
        qv_scripted::picture_input(QV_IPU_FORMAT_ARGB8888, 4 * kNetWidth, 4 * kNetHeight)};
  }
  network.invoke_time_us = static_cast<QV_U32>(options.number("invocation", 0) * 1000);
  return network;
}

std::vector<unsigned char> picture_of(const Options& options) {
  const std::string input = options.text("input", "gray");
  std::vector<unsigned char> picture(kNetWidth * kNetHeight, 7);
  if (input == "nv12") {
    picture.resize(kRowBytes * kNetHeight * 3 / 2);
    for (std::size_t k = 0; k < picture.size(); ++k) {
      picture[k] = static_cast<unsigned char>(k % 251);
    }
  } else if (input == "argb") {
    picture.resize(std::size_t{4} * 16 * kNetWidth * kNetHeight);
  }
  return picture;
}

void wait_for(const std::string& path) {
  while (access(path.c_str(), F_OK) != 0) {
    usleep(10000);
  }
}

void close_all() {
  for (int descriptor = 3; descriptor < 64; ++descriptor) {
    close(descriptor);
  }
}

// A child that goes on with the handle, and must not write into the parent's recording.
void fork_and_run(void* handle, const ALGO_Input_t& input) {
  const pid_t child = fork();
  if (child == 0) {
    std::vector<Box_t> boxes(ALGO_DET_MAX_BOXES);
    QV_S32 count = 0;
    ALGO_DET_Run(handle, &input, boxes.data(), &count);
    std::exit(0);
  }
  waitpid(child, nullptr, 0);
}

void before_frame(const Options& options, int frame, void* handle, const ALGO_Input_t& input) {
  if (options.is_now("fail", frame)) {
    qv_scripted::fail_next_call(qv_scripted::Function::kInvoke, 77);
  }
  if (options.is_now("trigger", frame) && olvex_recorder_trigger != nullptr) {
    olvex_recorder_trigger("as asked");
  }
  if (options.is_now("signal", frame)) {
    raise(SIGUSR2);
  }
  if (options.is_now("threshold_at", frame)) {
    ALGO_DET_SetThreshold(handle, 0.01f);
  }
  if (options.is_now("fork", frame)) {
    fork_and_run(handle, input);
  }
  if (options.is_now("wait", frame)) {
    wait_for(options.text("results", "") + ".go");
  }
  if (options.is_now("close", frame)) {
    close_all();
  }
  if (options.is_now("kill", frame)) {
    raise(SIGKILL);
  }
}

void append(std::string& results, const char* format, double value) {
  char text[64];
  std::snprintf(text, sizeof text, format, value);
  results += text;
}

std::string run_handle(const Options& options, void* handle) {
  std::string results;
  std::vector<unsigned char> picture = picture_of(options);
  std::vector<Box_t> boxes(ALGO_DET_MAX_BOXES);
  const int pause = static_cast<int>(options.number("pause", 0));
  for (int frame = 0; frame < options.number("frames", 60); ++frame) {
    const ALGO_Input_t input = {picture.data(), 0x1000, static_cast<QV_U32>(picture.size()),
                                static_cast<QV_U64>(frame) * 40};
    QV_S32 count = 0;
    before_frame(options, frame, handle, input);
    append(results, "run %.0f:", ALGO_DET_Run(handle, &input, boxes.data(), &count));
    for (QV_S32 k = 0; k < count; ++k) {
      const Box_t& box = boxes[static_cast<std::size_t>(k)];
      for (const double value : {static_cast<double>(box.class_id), static_cast<double>(box.x),
                                 static_cast<double>(box.y), static_cast<double>(box.width),
                                 static_cast<double>(box.height), static_cast<double>(box.score)}) {
        append(results, " %.9g", value);
      }
      results += ";";
    }
    results += "\n";
    usleep(static_cast<useconds_t>(pause) * 1000);
  }
  return results;
}

void* start_handle(const Options& options, const std::string& model, int index) {
  DetectionInfo_t info = {};
  std::snprintf(info.model, sizeof info.model, "%s", model.c_str());
  info.threshold = static_cast<QV_FLOAT>(options.number("threshold", 0.4));
  info.disp_size = {1920, 1080};
  info.had_create_device = index != 0;
  void* handle = nullptr;
  if (ALGO_DET_CreateHandle(&handle) != 0 || ALGO_DET_InitHandle(handle, &info) != 0) {
    std::fputs("camera: cannot initialise\n", stderr);
    std::exit(1);
  }
  InputAttr_t attributes = {};
  ALGO_DET_GetInputAttr(handle, &attributes);
  if (options.number("track", 1) != 0) {
    ALGO_DET_SetTracker2(handle, {1, 0, 0.0f, 1, 0.9f, 0});
  }
  return handle;
}

void write_model(const std::string& path, const std::string& kind) {
  std::FILE* const file = std::fopen(path.c_str(), "wb");
  if (file == nullptr ||
      std::fprintf(file, "model_out:%s\n%s", kind == "points" ? "zrlpd" : "zrpcd", kOfflineModel) <
          0 ||
      std::fclose(file) != 0) {
    std::perror("camera: model");
    std::exit(1);
  }
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  for (int k = 2; k < argc; ++k) {
    const std::string text = argv[k];
    const std::size_t at = text.find('=');
    options.values[text.substr(0, at)] = text.substr(at + 1);
  }
  const std::string path = argc < 2 ? "results" : argv[1];
  options.values["results"] = path;
  std::vector<void*> handles;
  std::vector<std::thread> threads;
  const auto count = static_cast<std::size_t>(options.number("handles", 1));
  for (std::size_t k = 0; k < count; ++k) {
    const std::string kind = kind_of(options, k);
    const std::string model = path + ".model" + (k == 0 ? "" : std::to_string(k));
    write_model(model, kind);
    qv_scripted::add_network(network_of(options, kind));
    handles.push_back(start_handle(options, model, static_cast<int>(k)));
  }
  std::vector<std::string> results(count);
  for (std::size_t k = 1; k < count; ++k) {
    threads.emplace_back([&, k] { results[k] = run_handle(options, handles[k]); });
  }
  results[0] = run_handle(options, handles[0]);
  for (std::thread& thread : threads) {
    thread.join();
  }
  while (!handles.empty()) {
    ALGO_DET_DeinitHandle(handles.back());
    handles.pop_back();
  }
  std::FILE* const file = std::fopen(path.c_str(), "wb");
  for (const std::string& text : results) {
    if (file == nullptr || std::fputs(text.c_str(), file) < 0) {
      std::perror("camera: results");
      return 1;
    }
  }
  return std::fclose(file) == 0 ? 0 : 1;
}
