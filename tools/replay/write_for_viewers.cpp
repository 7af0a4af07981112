// SPDX-License-Identifier: Apache-2.0
// write_for_viewers.cpp - boxes and pictures in the messages that stock viewers draw.
#include <cstddef>
#include <map>

#include "tools/common/command.h"
#include "tools/common/text.h"
#include "tools/frames/annotation.h"
#include "tools/recordings/recording_writer.h"
#include "tools/replay/shown_frames.h"

namespace olvex_tools {

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
