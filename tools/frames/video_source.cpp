// video_source.cpp - frames from a video file or a camera, by OpenCV's videoio module.
// Declared in frame_source.h.
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <fstream>

#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "tools/common/command.h"
#include "tools/frames/frame_source.h"
#include "tools/frames/video_container.h"

namespace olvex_tools {

namespace {

constexpr double kUsualRate = 25;      // frames per second, when the source states none
constexpr double kHighestRate = 1000;  // beyond, the statement is taken for a time base

double rate_of(const cv::VideoCapture& capture) {
  const double rate = capture.get(cv::CAP_PROP_FPS);
  return std::isfinite(rate) && rate > 0 && rate <= kHighestRate ? rate : kUsualRate;
}

// Gray cameras and videos deliver one channel.
void make_colour(cv::Mat* picture) {
  if (picture->channels() == 1) {
    cv::cvtColor(*picture, *picture, cv::COLOR_GRAY2BGR);
  }
}

class VideoSource : public FrameSource {
 public:
  explicit VideoSource(const std::string& path) : path_(path) {
    errno = 0;
    if (!std::ifstream(path, std::ios::binary)) {
      throw ToolError(kInputError, path + ": cannot be opened: " + std::strerror(errno));
    }
    // Not CAP_ANY: that takes an unknown file for the first of a numbered series.
    const std::string local = local_path(path);
    if (!capture_.open(local, cv::CAP_FFMPEG) && !capture_.open(local, cv::CAP_GSTREAMER)) {
      throw ToolError(kInputError, path + ": is neither a video nor a picture that can be read");
    }
    rate_ = rate_of(capture_);
  }

  bool next(SourceFrame* frame) override {
    // A new matrix each time: the decoder reuses the memory behind the last one.
    cv::Mat picture;
    if (!capture_.read(picture) || picture.empty()) {
      if (position_ == 0) {
        throw ToolError(kInputError, path_ + ": the video holds no frame that can be decoded");
      }
      return false;
    }
    make_colour(&picture);
    frame->picture = picture;
    frame->number = ++position_;
    frame->image_id = static_cast<std::uint64_t>(position_);
    frame->pts = position_in_video();
    frame->name = path_;
    return true;
  }

  // Decodes and drops: seeking lands on another frame than asked for in many videos.
  bool skip() override {
    if (!capture_.grab()) {
      return false;
    }
    ++position_;
    return true;
  }

  std::optional<long> length() const override {
    const double count = capture_.get(cv::CAP_PROP_FRAME_COUNT);
    constexpr double kMost = 1e9;
    if (!(count >= 1 && count <= kMost)) {
      return std::nullopt;
    }
    return static_cast<long>(count);
  }
  double frames_per_second() const override { return rate_; }
  bool is_whole() const override { return is_whole_container(path_); }

 private:
  std::uint64_t position_in_video() const {
    const double milliseconds = capture_.get(cv::CAP_PROP_POS_MSEC);
    constexpr double kLongest = 1e12;
    if (position_ > 1 && milliseconds > 0 && milliseconds < kLongest) {
      return static_cast<std::uint64_t>(std::llround(milliseconds * 1000));
    }
    return time_stamp(position_, rate_);
  }

  std::string path_;
  cv::VideoCapture capture_;
  double rate_ = kUsualRate;
  long position_ = 0;  // frames read or skipped so far
};

class CameraSource : public FrameSource {
 public:
  CameraSource(const std::string& name, const std::string& device) : name_(name) {
    if (!capture_.open(device, cv::CAP_V4L2)) {
      throw ToolError(kInputError, name + ": " + device +
                                       " cannot be opened as a camera. It may be in use by another "
                                       "program, or you may lack the right to use it");
    }
    rate_ = rate_of(capture_);
  }

  bool next(SourceFrame* frame) override {
    cv::Mat picture;
    if (!capture_.read(picture) || picture.empty()) {
      throw ToolError(kInputError, name_ + ": the camera delivers no more frames");
    }
    make_colour(&picture);
    const auto now = std::chrono::steady_clock::now();
    if (position_ == 0) {
      start_ = now;
    }
    frame->picture = picture;
    frame->number = ++position_;
    frame->image_id = static_cast<std::uint64_t>(position_);
    frame->pts = static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(now - start_).count());
    frame->name = name_;
    return true;
  }

  bool skip() override {
    SourceFrame dropped;
    return next(&dropped);
  }

  std::optional<long> length() const override { return std::nullopt; }
  double frames_per_second() const override { return rate_; }

 private:
  std::string name_;
  cv::VideoCapture capture_;
  double rate_ = kUsualRate;
  long position_ = 0;
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
