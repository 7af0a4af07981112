// SPDX-License-Identifier: Apache-2.0
// draw_frames.cpp - frames with their boxes in a video or a folder, alone or beside those of another run.
#include <algorithm>
#include <iterator>
#include <map>
#include <memory>

#include <opencv2/core.hpp>

#include "tools/common/command.h"
#include "tools/frames/annotation.h"
#include "tools/frames/picture_writers.h"
#include "tools/replay/shown_frames.h"

namespace olvex_tools {

namespace {

constexpr double kUsualRate = 25;  // frames per second
constexpr double kSecond = 1e9;    // nanoseconds

// Of frames that came at their own times.
double rate_of(const std::vector<PlayedFrame>& frames) {
  if (frames.size() < 2 || frames.back().time <= frames.front().time) {
    return kUsualRate;
  }
  const double seconds = static_cast<double>(frames.back().time - frames.front().time) / kSecond;
  return std::clamp(static_cast<double>(frames.size() - 1) / seconds, 0.1, 1000.0);
}

const std::vector<std::string>& no_names() {
  static const std::vector<std::string> none;
  return none;
}

cv::Mat drawn(const FrameRecord& record, const cv::Mat& picture, const std::string& caption) {
  FramePicture frame(record, no_names(), picture);
  cv::Mat result = frame.annotated();
  if (!caption.empty()) {
    draw_caption(caption, &result);
  }
  return result;
}

class FrameDrawer {
 public:
  FrameDrawer(const std::vector<PlayedFrame>& before, const std::vector<PlayedFrame>* after,
              const std::string& changes)
      : changes_(changes), has_after_(after != nullptr) {
    for (std::size_t k = 0; has_after_ && k < after->size(); ++k) {
      after_[(*after)[k].record.number] = &(*after)[k];
    }
    has_handles_ = std::any_of(before.begin(), before.end(), [&](const PlayedFrame& frame) {
      return frame.handle != before.front().handle;
    });
  }

  cv::Mat draw(const PlayedFrame& frame, const cv::Mat& picture) const {
    const std::string handle = has_handles_ ? "handle " + std::to_string(frame.handle) : "";
    if (!has_after_) {
      return drawn(frame.record, picture, handle);
    }
    FrameRecord record = frame.record;
    const cv::Mat left =
        drawn(record, picture, handle + (has_handles_ ? ", " : "") + "as recorded");
    const auto found = after_.find(frame.record.number);
    record.detections.clear();  // a frame that failed then
    cv::Mat sides;
    cv::hconcat(left,
                drawn(found == after_.end() ? record : found->second->record, picture, changes_),
                sides);
    return sides;
  }

 private:
  std::string changes_;
  bool has_after_;
  bool has_handles_ = false;
  std::map<long, const PlayedFrame*> after_;
};

}  // namespace

void draw_frames(const std::string& path, FramePictures* pictures,
                 const std::vector<PlayedFrame>& before, const std::vector<PlayedFrame>* after,
                 const std::string& changes,
                 const std::function<void(const std::string&)>& notice) {
  const FrameDrawer drawer(before, after, changes);
  std::unique_ptr<FrameWriter> writer;
  std::vector<PlayedFrame> with_picture;
  std::copy_if(before.begin(), before.end(), std::back_inserter(with_picture),
               [&](const PlayedFrame& frame) { return pictures->may_have(frame); });
  for (const PlayedFrame& frame : with_picture) {
    const cv::Mat picture = pictures->picture_of(frame);
    if (picture.empty()) {
      continue;
    }
    if (writer == nullptr) {
      const double rate = pictures->frames_per_second().value_or(rate_of(with_picture));
      writer = is_video_name(path) ? make_video_writer(path, rate, notice)
                                   : make_folder_writer(path, "jpg");
    }
    FrameRecord record = frame.record;
    record.detections.clear();  // they are drawn already
    const cv::Mat finished = drawer.draw(frame, picture);
    FramePicture plain(record, no_names(), finished);
    writer->write(&plain);
  }
  if (writer == nullptr) {
    refuse_input(
        path,
        "no frame has a picture to draw on. Record with OLVEX_RECORDER_PICTURES, or give a "
        "video with --over");
  }
  writer->finish();
}

}  // namespace olvex_tools
