// SPDX-License-Identifier: Apache-2.0
// video_source.cpp - frames from a video file, sought by the file's own index. Declared in frame_source.h.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <optional>
#include <vector>

#include "tools/common/command.h"
#include "tools/frames/capture_source.h"
#include "tools/frames/video_index.h"

namespace olvex_tools {

namespace {

constexpr std::uint64_t kSameTime =
    5;                           // microseconds, by which two roundings of one time differ at most
constexpr long kFewFrames = 48;  // that are decoded about as fast as they are sought

class VideoSource : public CaptureSource {
 public:
  explicit VideoSource(const std::string& path) : CaptureSource(path), path_(path) {
    errno = 0;
    if (!std::ifstream(path, std::ios::binary)) {
      refuse_input(path, std::string("cannot be opened: ") + std::strerror(errno));
    }
    if (!open()) {
      refuse_input(path, "is neither a video nor a picture that can be read");
    }
    find_rate();
  }

  long skip_many(long count) override {
    const long start = position();
    if (count >= kFewFrames && index().size() > static_cast<std::size_t>(start + count)) {
      seek(start + count);
    }
    const long sought = position() - start;
    return sought + FrameSource::skip_many(count - sought);
  }

  void skip_until(std::uint64_t pts) override {
    const auto found =
        std::lower_bound(index().begin(), index().end(), pts > kSameTime ? pts - kSameTime : 0);
    skip_many(std::max(0L, static_cast<long>(found - index().begin()) - position() - 1));
    CaptureSource::skip_until(pts);
  }

  std::optional<long> length() const override { return stated_length(); }
  bool is_whole() const override { return is_whole_container(path_); }

 private:
  // Not CAP_ANY: that takes an unknown file for the first of a numbered series.
  bool open() {
    const std::string local = local_path(path_);
    return capture_->open(local, cv::CAP_FFMPEG) || capture_->open(local, cv::CAP_GSTREAMER);
  }

  const std::vector<std::uint64_t>& index() {
    if (!index_) {
      index_ = times_of_frames(path_);
    }
    return *index_;
  }

  void check_end() const override {
    if (position_ == 0) {
      refuse_input(name_, "the video holds no frame that can be decoded");
    }
  }

  // The coder counts frames by their time, so that after a seek in a video of varying rate it ends too early.
  bool grab() override {
    if (capture_->grab()) {
      return true;
    }
    const long end = position_;
    if (!has_sought_ || static_cast<std::size_t>(end) >= index().size() || !land_before(end)) {
      return false;
    }
    const bool is_there = take_kept();
    while (!is_there && position_ < end && capture_->grab()) {
      ++position_;
    }
    const bool is_before = !is_there && position_ == end;
    position_ = end;
    return is_there || (is_before && capture_->grab());
  }

  std::uint64_t time_of_frame() override {
    const std::optional<std::uint64_t> stated = position_ > 1 ? stated_time() : std::nullopt;
    if (stated || position_ == 1) {
      return stated.value_or(0);
    }
    // The coder knows no time of the last frames that it held back.
    const auto place = static_cast<std::size_t>(position_ - 1);
    return place < index().size() ? index()[place] : guessed_time();
  }

  // Makes the frame behind so many the next one. Where the coder lands is known by the time of the frame there,
  // so that the frames are those that counting gives; where it cannot be told, it counts from the start.
  void seek(long target) {
    take_kept();
    if (land_before(target)) {
      has_sought_ = true;
      return;
    }
    capture_->release();
    if (!open()) {
      refuse_input(name_, "cannot be opened again");
    }
    position_ = 0;
  }

  // Goes to a frame at or before the one behind so many, which is next or kept. The coder seeks by a nominal
  // number, which says little where the rate varies: then it is tried again from further before.
  bool land_before(long target) {
    constexpr long kTries = 6;
    const auto last = static_cast<std::size_t>(target);
    long back = 1;
    for (long i = 0; i < kTries; ++i, back *= 8) {
      const double seconds = static_cast<double>(index()[last]) / 1e6;
      const long nominal = std::lround(seconds * rate_) - back;
      if (nominal < 1 || !capture_->set(cv::CAP_PROP_POS_FRAMES, static_cast<double>(nominal)) ||
          !capture_->grab()) {
        return false;
      }
      const std::optional<long> landed = place_of(stated_time());
      // The coder knows no time of the last frames.
      if (landed && *landed <= target) {
        position_ = *landed + 1;
        time_ = index()[static_cast<std::size_t>(*landed)];
        if (*landed == target) {
          keep();
        }
        return true;
      }
    }
    return false;
  }

  std::optional<long> place_of(std::optional<std::uint64_t> time) {
    if (!time) {
      return std::nullopt;
    }
    const auto found =
        std::lower_bound(index().begin(), index().end(), *time - std::min(*time, kSameTime));
    const bool is_there = found != index().end() && *found <= *time + kSameTime &&
                          (found + 1 == index().end() || *(found + 1) > *time + kSameTime);
    return is_there ? std::make_optional(static_cast<long>(found - index().begin())) : std::nullopt;
  }

  std::string path_;
  std::optional<std::vector<std::uint64_t>> index_;  // read when it is first needed
  bool has_sought_ = false;
};

}  // namespace

std::unique_ptr<FrameSource> make_video_source(const std::string& path) {
  return std::make_unique<VideoSource>(path);
}

}  // namespace olvex_tools
