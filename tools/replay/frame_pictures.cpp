// SPDX-License-Identifier: Apache-2.0
// frame_pictures.cpp - kept pictures on a canvas of the network's input, and the pictures of a video by their place.
#include "tools/replay/shown_frames.h"

#include <algorithm>
#include <set>

#include "tools/common/command.h"

namespace olvex_tools {

namespace {

constexpr std::uint32_t kLargest = 32767;  // pixels, far beyond any network's input
constexpr int kCanvasLevel = 96;           // where nothing was kept
constexpr double kUnused = 25;             // frames per second of pictures in a folder

[[noreturn]] void refuse_picture(const Recording& recording, std::uint32_t number,
                                 const std::string& what) {
  refuse_input(recording.name, "the picture of frame " + std::to_string(number) + " " + what);
}

// As the recorder stores it: rows without padding.
FrameLayout stored_layout(const RecordedPicture& picture) {
  FrameLayout layout;
  layout.width = static_cast<int>(picture.width);
  layout.height = static_cast<int>(picture.height);
  layout.format = static_cast<QV_IPU_ELEMENT_FORMAT>(picture.format);
  const std::size_t pixels = std::size_t{picture.width} * picture.height;
  std::size_t pixel_bytes = 4;
  if (layout.format == QV_IPU_FORMAT_U8) {
    pixel_bytes = 3;
  } else if (layout.format == QV_IPU_FORMAT_GRAY || layout.format == QV_IPU_FORMAT_NV12) {
    pixel_bytes = 1;
  } else if (layout.format == QV_IPU_FORMAT_FP32 && picture.data.size() != 4 * pixels) {
    pixel_bytes = 12;
  }
  const bool is_gray =
      pixel_bytes == 1 || (layout.format == QV_IPU_FORMAT_FP32 && pixel_bytes == 4);
  layout.order = is_gray ? qv_host::ColourOrder::kGray : qv_host::ColourOrder::kRgb;
  layout.row_bytes = pixel_bytes * picture.width;
  layout.size = pixel_bytes * pixels;
  if (layout.format == QV_IPU_FORMAT_NV12) {
    layout.size += std::size_t{(picture.width + 1) / 2} * ((picture.height + 1) / 2) * 2;
  }
  return layout;
}

cv::Mat stored_picture(const Recording& recording, const RecordedPicture& picture) {
  const auto is_extent = [](std::uint32_t extent) { return extent > 0 && extent <= kLargest; };
  const bool is_known =
      picture.format <= QV_IPU_FORMAT_GRAY && picture.format != QV_IPU_FORMAT_INT16 &&
      picture.format != QV_IPU_FORMAT_INT32 && picture.format != QV_IPU_FORMAT_INT8 &&
      picture.format != QV_IPU_FORMAT_UNKNOWN;
  if (!is_known || !is_extent(picture.width) || !is_extent(picture.height)) {
    refuse_picture(recording, picture.number, "is of a format or size that no picture has");
  }
  FrameLayout layout = stored_layout(picture);
  if (picture.data.size() != layout.size) {
    refuse_picture(recording, picture.number,
                   "has " + std::to_string(picture.data.size()) + " bytes, and its size asks for " +
                       std::to_string(layout.size));
  }
  // Colours come for pairs of pixels: of an odd part, its brightness is shown.
  if (layout.format == QV_IPU_FORMAT_NV12 && (layout.width % 2 != 0 || layout.height % 2 != 0)) {
    layout.format = QV_IPU_FORMAT_GRAY;
  }
  return picture_of_frame(picture.data, layout);
}

}  // namespace

FramePictures::FramePictures(const Recording& recording, const std::string& video, long start)
    : recording_(recording), start_(start) {
  std::set<std::uint16_t> handles;
  for (std::size_t k = 0; k < recording.frames.size(); ++k) {
    handles.insert(recording.frame(k).handle);
  }
  has_one_handle_ = handles.size() < 2;
  if (!video.empty()) {
    silence_opencv();
    if (holds_dumps(video) || is_camera(video)) {
      refuse_input(
          video, "neither a camera nor dumped frames can be drawn over. Name a video or a folder");
    }
    video_ = open_frame_source(video, FrameLayout(), kUnused);
  }
}

cv::Mat FramePictures::kept_picture(const PlayedFrame& frame) const {
  const auto number = static_cast<std::uint32_t>(frame.record.number);
  const std::optional<RecordedPicture> kept = recording_.picture(number);
  if (!kept) {
    return {};
  }
  const cv::Mat part = stored_picture(recording_, *kept);
  const std::uint64_t right = std::uint64_t{kept->x} + kept->width;
  const std::uint64_t bottom = std::uint64_t{kept->y} + kept->height;
  const std::uint64_t width = std::max<std::uint64_t>(frame.input_width, right);
  const std::uint64_t height = std::max<std::uint64_t>(frame.input_height, bottom);
  if (width > kLargest || height > kLargest) {
    refuse_picture(recording_, number, "lies outside of any picture");
  }
  cv::Mat canvas(static_cast<int>(height), static_cast<int>(width), CV_8UC3,
                 cv::Scalar::all(kCanvasLevel));
  part.copyTo(
      canvas(cv::Rect(static_cast<int>(kept->x), static_cast<int>(kept->y), part.cols, part.rows)));
  return canvas;
}

// Counted from 0. The source goes forward only.
cv::Mat FramePictures::next_of_video(long index) {
  while (shown_.number < index) {
    if (!video_->skip()) {
      return {};
    }
    ++shown_.number;
  }
  if (shown_.number == index && !video_->next(&shown_)) {
    return {};
  }
  return shown_.number == index + 1 ? shown_.picture : cv::Mat();
}

cv::Mat FramePictures::picture_of(const PlayedFrame& frame) {
  if (video_ == nullptr) {
    return kept_picture(frame);
  }
  const long place = has_one_handle_ ? frame.record.number : long{frame.of_handle};
  return place < start_ ? cv::Mat() : next_of_video(place - start_);
}

bool FramePictures::may_have(const PlayedFrame& frame) const {
  const auto number = static_cast<std::uint32_t>(frame.record.number);
  return video_ != nullptr || recording_.kept_pictures.count(number) != 0;
}

std::optional<double> FramePictures::frames_per_second() const {
  return video_ == nullptr ? std::nullopt : std::make_optional(video_->frames_per_second());
}

}  // namespace olvex_tools
