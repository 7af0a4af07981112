// SPDX-License-Identifier: Apache-2.0
// det_test.h - fixtures of this folder: DetTest with the scripted accelerator, a directory of its
// own and the library's log, and PublicApi with a handle, its frame and its boxes.
// list_network.h describes the networks, tests/support/scripted_test.h the fixture below these.
#ifndef TESTS_API_DET_TEST_H
#define TESTS_API_DET_TEST_H

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/api/list_network.h"
#include "tests/support/log_lines.h"
#include "tests/support/scripted_test.h"
#include "video/det/include/det_schedule.h"
#include "video/det/include/olvex_det.h"

class DetTest : public ScriptedTest {
 protected:
  void SetUp() override {
    ScriptedTest::SetUp();
    std::string pattern = testing::TempDir() + "olvex_api_XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(&pattern[0]));
    directory_ = pattern + "/";
    testing::internal::CaptureStdout();
  }

  void TearDown() override {
    const std::string rest = log();
    testing::internal::GetCapturedStdout();
    ScriptedTest::TearDown();
    if (HasFailure()) {
      std::fputs(rest.c_str(), stdout);
    }
    std::filesystem::remove_all(directory_);
  }

  // What was printed since the last call.
  std::string log() {
    const std::string text = testing::internal::GetCapturedStdout();
    EXPECT_EQ("", unknown_lines(text));
    testing::internal::CaptureStdout();
    return text;
  }

  std::string path(const std::string& name) const { return directory_ + name; }

  std::string write_file(const std::string& name, const std::string& content) const {
    std::ofstream(path(name), std::ios::binary) << content;
    return path(name);
  }

  // A model file with these key/value entries before the offline model.
  std::string write_model(const std::string& header = "") const {
    return write_file("model.bin", header + kOfflineModel);
  }

  static std::string read_file(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
  }

  static bool is_mapped(const std::string& file) {
    return contains(read_file("/proc/self/maps"), file);
  }

  static int count_of(const std::string& text, const std::string& part) {
    int count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
      ++count;
    }
    return count;
  }

  static bool contains(const std::string& text, const std::string& part) {
    return count_of(text, part) > 0;
  }

 private:
  std::string directory_;
};

// Its displays have the network's size.
class PublicApi : public DetTest {
 protected:
  static constexpr QV_PHY kPhysicalAddress = 0x123456789000u;

  void SetUp() override {
    DetTest::SetUp();
    unsetenv("QK_ALGO_S");
    ASSERT_EQ(0, ALGO_DET_CreateHandle(&handle_));
  }
  void TearDown() override {
    deinit();
    DetTest::TearDown();
  }

  // A new handle on an accelerator in its first state.
  void restart() {
    deinit();
    check_violations();
    qv_scripted::reset();
    ASSERT_EQ(0, ALGO_DET_CreateHandle(&handle_));
  }

  QV_S32 init_from_file(const std::string& model, QV_BOOL had_create_device = 0,
                        const std::string& firmware = "") {
    DetectionInfo_t info = {};
    std::snprintf(info.ipu_firmware_path, sizeof info.ipu_firmware_path, "%s", firmware.c_str());
    std::snprintf(info.model, sizeof info.model, "%s", model.c_str());
    info.disp_size = {kNetWidth, kNetHeight};
    info.had_create_device = had_create_device;
    return ALGO_DET_InitHandle(handle_, &info);
  }

  // Initialises on a network that shows these frames.
  void start(const std::vector<Detections>& frames, const std::string& header = "") {
    qv_scripted::add_network(list_network(frames));
    ASSERT_EQ(0, init_from_file(write_model(header)));
  }

  QV_S32 run(QV_U64 pts = 0) {
    const ALGO_Input_t input = {frame_.data(), kPhysicalAddress, static_cast<QV_U32>(frame_.size()),
                                pts};
    return ALGO_DET_Run(handle_, &input, boxes_.data(), &count_);
  }

  // The boxes of the next frame: "class@x,y,widthxheight ...".
  std::string next_frame(QV_U64 pts = 0) {
    EXPECT_EQ(0, run(pts));
    std::ostringstream text;
    for (std::size_t i = 0; i < static_cast<std::size_t>(count_); ++i) {
      const Box_t& box = boxes_[i];
      text << (i == 0 ? "" : " ") << box.class_id << '@' << box.x << ',' << box.y << ','
           << box.width << 'x' << box.height;
    }
    return text.str();
  }

  QV_S32 deinit() {
    void* const handle = handle_;
    handle_ = nullptr;
    return handle == nullptr ? 0 : ALGO_DET_DeinitHandle(handle);
  }

  // The object behind the handle, whose records are the same on both sides of the interface.
  DetHandle& det() { return *static_cast<DetHandle*>(handle_); }

  void* handle_ = nullptr;
  std::vector<unsigned char> frame_ = std::vector<unsigned char>(kNetWidth * kNetHeight);
  std::vector<Box_t> boxes_ = std::vector<Box_t>(ALGO_DET_MAX_BOXES);
  QV_S32 count_ = 0;
};

#endif  // TESTS_API_DET_TEST_H
