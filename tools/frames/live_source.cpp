// SPDX-License-Identifier: Apache-2.0
// live_source.cpp - frames from a camera, an address on the network, or standard input. Declared in
// frame_source.h.
#include <chrono>

#include "tools/common/command.h"
#include "tools/common/text.h"
#include "tools/frames/capture_source.h"

namespace olvex_tools {

namespace {

class CameraSource : public CaptureSource {
 public:
  CameraSource(const std::string& name, const std::string& device) : CaptureSource(name) {
    if (!capture_->open(device, cv::CAP_V4L2)) {
      refuse_input(name, device +
                             " cannot be opened as a camera. It may be in use by another "
                             "program, or you may lack the right to use it");
    }
    find_rate();
  }

  std::optional<long> length() const override { return std::nullopt; }

 private:
  void check_end() const override { refuse_input(name_, "the camera delivers no more frames"); }

  std::uint64_t time_of_frame() override {
    const auto now = std::chrono::steady_clock::now();
    if (position_ == 1) {
      start_ = now;
    }
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(now - start_).count());
  }

  std::chrono::steady_clock::time_point start_;
};

// A stream that cannot be sought in.
class StreamSource : public CaptureSource {
 public:
  StreamSource(const std::string& name, const std::string& address, int timeout)
      : CaptureSource(name), timeout_(timeout) {
    const int milliseconds = timeout * 1000;
    const auto start = std::chrono::steady_clock::now();
    if (!capture_->open(address, cv::CAP_FFMPEG,
                        {cv::CAP_PROP_OPEN_TIMEOUT_MSEC, milliseconds,
                         cv::CAP_PROP_READ_TIMEOUT_MSEC, milliseconds})) {
      refuse_input(name, took_too_long(start) ? "no answer within " + limit() + ". See --timeout"
                                              : "no video can be had from there");
    }
    find_rate();
  }

  std::optional<long> length() const override { return stated_length(); }

 private:
  using Clock = std::chrono::steady_clock;

  bool took_too_long(Clock::time_point start) const {
    return Clock::now() - start >= std::chrono::seconds(timeout_);
  }

  std::string limit() const { return counted(timeout_, "second", "seconds"); }

  bool grab() override {
    const auto start = Clock::now();
    if (capture_->grab()) {
      return true;
    }
    // The coder does not tell an end from a stream that stays away.
    if (took_too_long(start)) {
      refuse_input(name_, "no frame came within " + limit() + ". See --timeout");
    }
    return false;
  }

  void check_end() const override {
    if (position_ == 0) {
      refuse_input(name_, "the stream holds no frame that can be decoded");
    }
  }

  std::uint64_t time_of_frame() override {
    const std::optional<std::uint64_t> stated = position_ > 1 ? stated_time() : std::nullopt;
    return stated ? *stated : guessed_time();
  }

  int timeout_;  // seconds
};

}  // namespace

std::unique_ptr<FrameSource> make_camera_source(const std::string& name,
                                                const std::string& device) {
  return std::make_unique<CameraSource>(name, device);
}

std::unique_ptr<FrameSource> make_stream_source(const std::string& name, const std::string& address,
                                                int timeout) {
  return std::make_unique<StreamSource>(name, address, timeout);
}

}  // namespace olvex_tools
