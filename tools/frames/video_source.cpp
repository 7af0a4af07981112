// video_source.cpp - frames from a video file or a camera, by OpenCV's videoio module.
// Declared in frame_source.h.
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <fstream>

#include <opencv2/imgproc.hpp>

#include "tools/common/command.h"
#include "tools/frames/codec_modules.h"
#include "tools/frames/frame_source.h"

namespace olvex_tools {

namespace {

constexpr double kUsualRate = 25;      // frames per second, when the source states none
constexpr double kHighestRate = 1000;  // beyond, the statement is taken for a time base

// What videos and cameras have in common.
class CaptureSource : public FrameSource {
 public:
  explicit CaptureSource(const std::string& name) : name_(name) {}

  bool next(SourceFrame* frame) override {
    // A new matrix each time: the decoder reuses the memory behind the last one.
    cv::Mat picture;
    if (!capture_->read(picture) || picture.empty()) {
      check_end();
      return false;
    }
    // Gray cameras and videos deliver one channel.
    if (picture.channels() == 1) {
      cv::cvtColor(picture, picture, cv::COLOR_GRAY2BGR);
    }
    frame->picture = picture;
    frame->number = ++position_;
    frame->image_id = static_cast<std::uint64_t>(position_);
    frame->pts = time_of_frame();
    frame->name = name_;
    return true;
  }

  double frames_per_second() const override { return rate_; }

 protected:
  // Throws where the source must not end.
  virtual void check_end() const = 0;
  // Microseconds, of the frame that was read last.
  virtual std::uint64_t time_of_frame() = 0;

  void find_rate() {
    const double rate = capture_->get(cv::CAP_PROP_FPS);
    rate_ = std::isfinite(rate) && rate > 0 && rate <= kHighestRate ? rate : kUsualRate;
  }

  std::string name_;
  const std::unique_ptr<cv::VideoCapture> capture_ = make_video_capture();
  double rate_ = kUsualRate;
  long position_ = 0;  // frames read or skipped so far
};

class VideoSource : public CaptureSource {
 public:
  explicit VideoSource(const std::string& path) : CaptureSource(path) {
    errno = 0;
    if (!std::ifstream(path, std::ios::binary)) {
      refuse_input(path, std::string("cannot be opened: ") + std::strerror(errno));
    }
    // Not CAP_ANY: that takes an unknown file for the first of a numbered series.
    const std::string local = local_path(path);
    if (!capture_->open(local, cv::CAP_FFMPEG) && !capture_->open(local, cv::CAP_GSTREAMER)) {
      refuse_input(path, "is neither a video nor a picture that can be read");
    }
    find_rate();
  }

  // Decodes and drops: seeking lands on another frame than asked for in many videos.
  bool skip() override {
    const bool skipped = capture_->grab();
    position_ += skipped ? 1 : 0;
    return skipped;
  }

  std::optional<long> length() const override {
    const double count = capture_->get(cv::CAP_PROP_FRAME_COUNT);
    constexpr double kMost = 1e9;
    return count >= 1 && count <= kMost ? std::make_optional(static_cast<long>(count))
                                        : std::nullopt;
  }
  bool is_whole() const override { return is_whole_container(name_); }

 private:
  void check_end() const override {
    if (position_ == 0) {
      refuse_input(name_, "the video holds no frame that can be decoded");
    }
  }

  std::uint64_t time_of_frame() override {
    const double milliseconds = capture_->get(cv::CAP_PROP_POS_MSEC);
    constexpr double kLongest = 1e12;
    const bool is_known = position_ > 1 && milliseconds > 0 && milliseconds < kLongest;
    return is_known ? static_cast<std::uint64_t>(std::llround(milliseconds * 1000))
                    : time_stamp(position_, rate_);
  }
};

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

  bool skip() override {
    SourceFrame dropped;
    return next(&dropped);
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

}  // namespace

std::unique_ptr<FrameSource> make_video_source(const std::string& path) {
  return std::make_unique<VideoSource>(path);
}

std::unique_ptr<FrameSource> make_camera_source(const std::string& name,
                                                const std::string& device) {
  return std::make_unique<CameraSource>(name, device);
}

}  // namespace olvex_tools
