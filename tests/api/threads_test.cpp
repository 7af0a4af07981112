// SPDX-License-Identifier: Apache-2.0
// threads_test.cpp - handles in separate threads on the scripted accelerator. The preset
// tsan runs it under the thread sanitizer.
#include "olvex_det.h"

#include <stdlib.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/api/list_network.h"
#include "tests/support/scripted_test.h"

namespace {

// What one handle works on.
struct Worker {
  std::string model;
  DetTrackParams_t tracking;
  DetStrictModeParams_t strict;

  // The boxes of so many frames, from a new handle on a device that is up.
  std::string live(int count) const {
    void* handle = nullptr;
    DetectionInfo_t info = {{}, {}, 0.25f, {512, 256}, 1};
    std::snprintf(info.model, sizeof info.model, "%s", model.c_str());
    EXPECT_EQ(0, ALGO_DET_CreateHandle(&handle));
    EXPECT_EQ(0, ALGO_DET_InitHandle(handle, &info));
    EXPECT_EQ(0, ALGO_DET_SetStrictMode(handle, strict));
    EXPECT_EQ(0, ALGO_DET_SetTracker2(handle, tracking));
    std::string seen;
    for (int k = 0; k < count; ++k) {
      std::vector<unsigned char> frame(kNetWidth * kNetHeight);
      const ALGO_Input_t input = {frame.data(), 0, static_cast<QV_U32>(frame.size()), 0};
      Box_t boxes[ALGO_DET_MAX_BOXES];
      QV_S32 found = 0;
      EXPECT_EQ(0, ALGO_DET_Run(handle, &input, boxes, &found));
      seen.append(reinterpret_cast<const char*>(boxes), sizeof(Box_t) * static_cast<QV_U32>(found));
      seen += '\n';
    }
    EXPECT_EQ(0, ALGO_DET_DeinitHandle(handle));
    return seen;
  }
};

// Each worker gets the same boxes in parallel as alone; the workers' boxes differ.
void expect_the_same(const std::vector<Worker>& workers, int lives, int count) {
  std::vector<std::string> alone;
  for (const Worker& worker : workers) {
    alone.push_back(worker.live(count));
    EXPECT_LT(sizeof(Box_t), alone.back().size());
    EXPECT_EQ(1, std::count(alone.begin(), alone.end(), alone.back()));
  }
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < workers.size(); ++i) {
    threads.emplace_back([&, i] {
      for (int life = 0; life < lives; ++life) {
        EXPECT_EQ(alone[i], workers[i].live(count)) << "worker " << i << ", life " << life;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

// A folder for the models. While it lives the log is not shown: its lines mix.
struct Folder {
  std::string path = testing::TempDir() + "olvex_threads_XXXXXX";
  Folder() {
    EXPECT_NE(nullptr, mkdtemp(&path[0]));
    testing::internal::CaptureStdout();
  }
  ~Folder() {
    testing::internal::GetCapturedStdout();
    std::filesystem::remove_all(path);
  }
};

// Something moves with what confirms it, and something stands still.
std::vector<Detections> scene() {
  std::vector<Detections> frames;
  for (int k = 0; k < 100; ++k) {
    const float x = static_cast<float>(3 * k % 128);
    frames.push_back({{x, 8.f, x + 64.f, 72.f, 0.9f, 0.f},
                      {x + 32.f, 8.f, x + 96.f, 72.f, 0.8f, 6.f},
                      {192.f, 96.f, 224.f, 120.f, 0.7f, 2.f}});
  }
  return frames;
}

using Threads = ScriptedTest;

TEST_F(Threads, handles_see_beside_each_other_what_each_sees_alone) {
  const Folder folder;
  const DetTrackParams_t off = {0, 0, 0.f, 0, 0.f, 0}, moving = {1, 1, 0.f, 0, 0.f, 1};
  const DetTrackParams_t steady = {1, 0, 0.f, 1, 0.3f, 3};
  std::vector<Worker> workers = {
      {"", off, {0}}, {"", moving, {0}}, {"", steady, {0}}, {"model_out:zrpcnh\n", steady, {1}}};
  for (Worker& worker : workers) {
    const std::string content = worker.model + "lib_out:zrpcn\n" + kOfflineModel;
    worker.model = folder.path + "/model" + std::to_string(&worker - workers.data());
    std::ofstream(worker.model, std::ios::binary) << content;
  }
  QV_IPU_DevAttr_s attributes = {};
  char firmware[] = "firmware";
  ASSERT_EQ(0, QV_IPU_CreateDevice(&attributes, nullptr, firmware, 0));
  qv_scripted::add_network(list_network(scene()));
  qv_scripted::record_events(false);
  expect_the_same(workers, 1, 300);
  expect_the_same(workers, 30, 10);
  EXPECT_TRUE(qv_scripted::device_is_up());
  EXPECT_EQ(0, qv_scripted::open_channel_count());
}

}  // namespace
