// handle_threads.h - handles that work in threads of their own beside each other, and the same ones
// alone. For tests/api/threads_test.cpp and tests/platform/host_threads_test.cpp.
#ifndef TESTS_SUPPORT_HANDLE_THREADS_H
#define TESTS_SUPPORT_HANDLE_THREADS_H

#include <stdlib.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "olvex_det.h"

namespace handle_threads {

// What one handle works on.
struct Worker {
  std::string model;
  DetTrackParams_t tracking;
  DetStrictModeParams_t strict;
  std::vector<std::vector<unsigned char>> frames;  // shown in turn, again and again

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
      std::vector<unsigned char> frame = frames[static_cast<std::size_t>(k) % frames.size()];
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

// Each worker's lives beside those of the others show what it sees alone, which is something else
// for each.
inline void expect_the_same(const std::vector<Worker>& workers, int lives, int count) {
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

}  // namespace handle_threads

#endif  // TESTS_SUPPORT_HANDLE_THREADS_H
