// public_api.h - fixture with one handle of the public interface, its frame and its boxes.
// det_test.h has the fixture below it.
#ifndef TESTS_API_PUBLIC_API_H
#define TESTS_API_PUBLIC_API_H

#include <string>
#include <vector>

#include "olvex_det.h"

#include "tests/api/det_test.h"
#include "video/det/include/det_schedule.h"

class PublicApi : public DetTest {
 protected:
  static constexpr QV_PHY kPhysicalAddress = 0x123456789000u;

  void SetUp() override {
    DetTest::SetUp();
    unsetenv("QK_ALGO_S");
    ASSERT_EQ(0, ALGO_DET_CreateHandle(&handle_));
  }
  void TearDown() override {
    unsetenv("QK_ALGO_S");
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

  // The display has the network's size.
  static DetectionInfo_t file_info(const std::string& model, QV_BOOL had_create_device = 0) {
    DetectionInfo_t info = {};
    std::snprintf(info.model, sizeof info.model, "%s", model.c_str());
    info.disp_size = {kNetWidth, kNetHeight};
    info.had_create_device = had_create_device;
    return info;
  }

  QV_S32 init(const std::string& header = "", QV_BOOL had_create_device = 0) {
    DetectionInfo_t info = file_info(write_model(header), had_create_device);
    return ALGO_DET_InitHandle(handle_, &info);
  }

  QV_S32 init_from_memory(char* buffer) {
    DetectionInfo2_t info = {};
    info.model_buffer = buffer;
    info.model_buffer_len = sizeof kOfflineModel - 1;
    info.disp_size = {kNetWidth, kNetHeight};
    return ALGO_DET_InitHandle2(handle_, &info);
  }

  QV_S32 run(QV_U64 pts = 0) {
    const ALGO_Input_t input = {frame_.data(), kPhysicalAddress, static_cast<QV_U32>(frame_.size()),
                                pts};
    return ALGO_DET_Run(handle_, &input, boxes_.data(), &count_);
  }

  QV_S32 deinit() {
    void* const handle = handle_;
    handle_ = nullptr;
    return handle == nullptr ? 0 : ALGO_DET_DeinitHandle(handle);
  }

  // The boxes of the last frame: "class@x,y,widthxheight ...".
  std::string shown() const {
    std::string text;
    for (int i = 0; i < count_; ++i) {
      const Box_t& box = boxes_[static_cast<std::size_t>(i)];
      text += (i == 0 ? "" : " ") + std::to_string(box.class_id) + "@" + std::to_string(box.x) +
              "," + std::to_string(box.y) + "," + std::to_string(box.width) + "x" +
              std::to_string(box.height);
    }
    return text;
  }

  // The object behind the handle, whose records are the same on both sides of the interface.
  DetHandle& det() { return *static_cast<DetHandle*>(handle_); }

  void* handle_ = nullptr;
  std::vector<unsigned char> frame_ = std::vector<unsigned char>(kNetWidth * kNetHeight);
  std::vector<Box_t> boxes_ = std::vector<Box_t>(ALGO_DET_MAX_BOXES);
  QV_S32 count_ = 0;
};

#endif  // TESTS_API_PUBLIC_API_H
