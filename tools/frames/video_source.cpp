// SPDX-License-Identifier: Apache-2.0
// video_source.cpp - frames from a video file or a camera, by OpenCV's videoio module, and whether a file is
// whole, by the stated sizes of its outermost parts. Declared in frame_source.h.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <optional>

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

// ---- The parts of a file ------------------------------------------------------------------------

namespace {

using Bytes = unsigned char[16];

std::uint64_t big_endian(const unsigned char* bytes, int count) {
  std::uint64_t value = 0;
  for (int i = 0; i < count; ++i) {
    value = value << 8 | bytes[i];
  }
  return value;
}

// Each takes the first bytes of a part, zeros beyond the file's end, and returns the size of the whole
// part; nothing where it has none.

std::optional<std::uint64_t> size_of_box(const Bytes& head) {
  const std::uint64_t size = big_endian(head, 4);
  if (size == 1) {
    const std::uint64_t large = big_endian(head + 8, 8);
    return large >= 16 ? std::make_optional(large) : std::nullopt;
  }
  return size >= 8 ? std::make_optional(size) : std::nullopt;
}

std::optional<std::uint64_t> size_of_riff(const Bytes& head) {
  if (std::memcmp(head, "RIFF", 4) != 0) {
    return std::nullopt;
  }
  std::uint64_t size = 0;
  for (int i = 7; i >= 4; --i) {
    size = size << 8 | head[i];
  }
  return 8 + size + size % 2;
}

// A number of EBML (RFC 8794): as many zero bits as bytes follow, then a one. Returns its length.
int length_of_number(unsigned char first) {
  int length = 1;
  while (length <= 8 && (first & (0x80 >> (length - 1))) == 0) {
    ++length;
  }
  return length;
}

std::optional<std::uint64_t> size_of_element(const Bytes& head) {
  const int name = length_of_number(head[0]);
  if (name > 4) {
    return std::nullopt;
  }
  const int length = length_of_number(head[name]);
  if (length > 8) {
    return std::nullopt;
  }
  const std::uint64_t mask = (std::uint64_t{1} << (7 * length)) - 1;
  const std::uint64_t size = big_endian(head + name, length) & mask;
  constexpr std::uint64_t kMost = std::uint64_t{1} << 62;
  const bool is_open = size == mask;  // a recording that was not finished
  return is_open || size > kMost
             ? std::nullopt
             : std::make_optional(size + static_cast<std::uint64_t>(name + length));
}

using SizeOf = std::optional<std::uint64_t> (*)(const Bytes&);

SizeOf format_of(const Bytes& head) {
  if (std::memcmp(head, "RIFF", 4) == 0) {
    return size_of_riff;
  }
  if (std::memcmp(head, "\x1a\x45\xdf\xa3", 4) == 0) {
    return size_of_element;
  }
  for (const char* type : {"ftyp", "moov", "mdat", "free", "skip", "wide"}) {
    if (std::memcmp(head + 4, type, 4) == 0) {
      return size_of_box;
    }
  }
  return nullptr;
}

bool read_head(std::ifstream* file, std::uint64_t place, Bytes* head) {
  std::memset(*head, 0, sizeof *head);
  file->clear();
  file->seekg(static_cast<std::streamoff>(place));
  file->read(reinterpret_cast<char*>(*head), sizeof *head);
  return file->gcount() > 0;
}

}  // namespace

bool is_whole_container(const std::string& path) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  const std::uint64_t end = static_cast<std::uint64_t>(std::max<std::streamoff>(file.tellg(), 0));
  Bytes head;
  if (!read_head(&file, 0, &head)) {
    return false;
  }
  const SizeOf size_of = format_of(head);
  std::uint64_t place = 0;
  while (size_of != nullptr && place < end && read_head(&file, place, &head)) {
    const std::optional<std::uint64_t> size = size_of(head);
    if (!size || *size > end - place) {
      return false;
    }
    place += *size;
  }
  return size_of != nullptr && place == end;
}

}  // namespace olvex_tools
