// SPDX-License-Identifier: Apache-2.0
// shown_frames.cpp - frames with their boxes in a video or a folder, alone or beside those of another run; boxes and
// pictures in the messages that stock viewers draw.
#include "tools/replay/shown_frames.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <map>
#include <memory>

#include <opencv2/core.hpp>

#include "tools/common/command.h"
#include "tools/common/text.h"
#include "tools/frames/annotation.h"
#include "tools/frames/picture_writers.h"
#include "tools/recordings/recording_writer.h"

namespace olvex_tools {

namespace {

constexpr double kUsualRate = 25;              // frames per second
constexpr double kNanosecondsOfASecond = 1e9;  // nanoseconds

// Of frames that came at their own times.
double rate_of(const std::vector<PlayedFrame>& frames) {
  if (frames.size() < 2 || frames.back().time <= frames.front().time) {
    return kUsualRate;
  }
  const double seconds =
      static_cast<double>(frames.back().time - frames.front().time) / kNanosecondsOfASecond;
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

// ---- For viewers ----

namespace {

constexpr std::uint64_t kSecond = 1000000000;  // nanoseconds
constexpr double kFontSize = 14;               // pixels, as the recorder has it
constexpr double kThickness = 2;

constexpr char kImageDefinition[] =
    "time timestamp\n"
    "string frame_id\n"
    "uint8[] data\n"
    "string format\n";

// The two channels of each handle.
class ViewerChannels {
 public:
  explicit ViewerChannels(const std::vector<PlayedFrame>& frames) {
    const recording_schema& boxes = recording_schemas[RECORDING_ANNOTATIONS - 1];
    for (const PlayedFrame& frame : frames) {
      const auto next = static_cast<std::uint16_t>(channels_.size() + 1);
      if (numbers_.emplace(frame.handle, next).second) {
        const std::string topic = "/handle_" + std::to_string(frame.handle);
        channels_.push_back({topic + "/boxes", boxes.name, boxes.text});
        channels_.push_back(
            {topic + "/picture", "foxglove_msgs/CompressedImage", kImageDefinition});
      }
    }
  }
  const std::vector<ChannelToWrite>& channels() const { return channels_; }
  std::uint16_t boxes_of(std::uint32_t handle) const { return numbers_.at(handle); }
  std::uint16_t picture_of(std::uint32_t handle) const {
    return static_cast<std::uint16_t>(numbers_.at(handle) + 1);
  }

 private:
  std::vector<ChannelToWrite> channels_;
  std::map<std::uint32_t, std::uint16_t> numbers_;
};

ViewerTime viewer_time(std::uint64_t time) {
  return {static_cast<std::uint32_t>(time / kSecond), static_cast<std::uint32_t>(time % kSecond)};
}

// Adds the four edges of a box.
void append_edges(const ViewerPoint& first, const ViewerPoint& last,
                  std::vector<ViewerPoint>* points) {
  const ViewerPoint corners[] = {first, {last.x, first.y}, last, {first.x, last.y}};
  for (std::size_t k = 0; k < 4; ++k) {
    points->push_back(corners[k]);
    points->push_back(corners[(k + 1) % 4]);
  }
}

std::string text_of(const Detection& detection) {
  return (detection.track_id ? "#" + std::to_string(*detection.track_id) + " " : "") +
         format("%u %.2f", detection.class_id, static_cast<double>(detection.score));
}

// picture: of any size, 0 for the display's.
ImageAnnotations annotations_of(const PlayedFrame& frame, cv::Size picture) {
  const FrameRecord& record = frame.record;
  const bool is_scaled = picture.width > 0 && record.width > 0 && record.height > 0;
  const double across = is_scaled ? static_cast<double>(picture.width) / record.width : 1;
  const double down = is_scaled ? static_cast<double>(picture.height) / record.height : 1;
  ImageAnnotations annotations;
  annotations.time = viewer_time(frame.time);
  annotations.points.emplace_back();
  ViewerPoints& lines = annotations.points.front();
  lines.time = annotations.time;
  lines.outline = {0.1, 0.9, 0.2, 1};
  lines.thickness = kThickness;
  for (const Detection& box : record.detections) {
    const ViewerPoint first = {box.x * across, box.y * down};
    const ViewerPoint last = {(static_cast<double>(box.x) + box.width) * across,
                              (static_cast<double>(box.y) + box.height) * down};
    append_edges(first, last, &lines.points);
    ViewerText text;
    text.time = annotations.time;
    text.position = first;
    text.text = text_of(box);
    text.font_size = kFontSize;
    text.colour = {1, 1, 1, 1};
    text.background = {0, 0, 0, 0.6};
    annotations.texts.push_back(text);
  }
  return annotations;
}

template <typename Message>
MessageToWrite message_of(const PlayedFrame& frame, std::uint16_t channel, const Message& message) {
  return {channel, static_cast<std::uint32_t>(frame.record.number), frame.time, frame.time,
          pack_message(message)};
}

}  // namespace

void write_for_viewers(const std::string& path, FramePictures* pictures,
                       const std::vector<PlayedFrame>& frames) {
  const ViewerChannels channels(frames);
  RecordingWriter writer(path, "olvex-det replay", channels.channels());
  for (const PlayedFrame& frame : frames) {
    const cv::Mat picture = pictures->picture_of(frame);
    std::vector<MessageToWrite> messages;
    if (!picture.empty()) {
      const std::string jpeg = encoded_picture("picture.jpg", picture);
      const CompressedImage image = {viewer_time(frame.time),
                                     "handle " + std::to_string(frame.handle),
                                     Bytes(jpeg.begin(), jpeg.end()), "jpeg"};
      messages.push_back(message_of(frame, channels.picture_of(frame.handle), image));
    }
    messages.push_back(
        message_of(frame, channels.boxes_of(frame.handle), annotations_of(frame, picture.size())));
    writer.add_chunk(messages);
  }
  writer.finish();
}

}  // namespace olvex_tools
