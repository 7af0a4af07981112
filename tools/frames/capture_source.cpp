// SPDX-License-Identifier: Apache-2.0
// capture_source.cpp - frames one after the other, and what the coder says of them. Declared in capture_source.h.
#include "tools/frames/capture_source.h"

#include <cmath>
#include <utility>

#include <opencv2/imgproc.hpp>

#include "tools/common/interruption.h"

namespace olvex_tools {

namespace {

constexpr double kUsualRate = 25;      // frames per second, when the source states none
constexpr double kHighestRate = 1000;  // beyond, the statement is taken for a time base

}  // namespace

bool CaptureSource::next(SourceFrame* frame) {
  // A new matrix each time: the decoder reuses the memory behind the last one.
  cv::Mat picture;
  if (!skip()) {
    check_end();
    return false;
  }
  if (!capture_->retrieve(picture) || picture.empty()) {
    --position_;
    check_end();
    return false;
  }
  // Gray cameras and videos deliver one channel.
  if (picture.channels() == 1) {
    cv::cvtColor(picture, picture, cv::COLOR_GRAY2BGR);
  }
  frame->picture = picture;
  frame->number = position_;
  frame->image_id = static_cast<std::uint64_t>(position_);
  frame->pts = time_;
  frame->name = name_;
  return true;
}

void CaptureSource::skip_until(std::uint64_t pts) {
  while (!interruption_requested() && skip()) {
    if (time_ >= pts) {
      keep();
      return;
    }
  }
}

void CaptureSource::find_rate() {
  const double rate = capture_->get(cv::CAP_PROP_FPS);
  rate_ = std::isfinite(rate) && rate > 0 && rate <= kHighestRate ? rate : kUsualRate;
}

std::optional<std::uint64_t> CaptureSource::stated_time() const {
  const double milliseconds = capture_->get(cv::CAP_PROP_POS_MSEC);
  constexpr double kLongest = 1e12;
  return milliseconds > 0 && milliseconds < kLongest
             ? std::make_optional(static_cast<std::uint64_t>(std::llround(milliseconds * 1000)))
             : std::nullopt;
}

std::uint64_t CaptureSource::guessed_time() const {
  const std::uint64_t time = time_stamp(position_, rate_);
  return position_ == 1 || time > time_ ? time : time_ + time_stamp(2, rate_);
}

std::optional<long> CaptureSource::stated_length() const {
  const double count = capture_->get(cv::CAP_PROP_FRAME_COUNT);
  constexpr double kMost = 1e9;
  return count >= 1 && count <= kMost ? std::make_optional(static_cast<long>(count)) : std::nullopt;
}

bool CaptureSource::advance() {
  if (!grab()) {
    return false;
  }
  ++position_;
  time_ = time_of_frame();
  return true;
}

bool CaptureSource::take_kept() {
  return std::exchange(is_kept_, false);
}

}  // namespace olvex_tools
