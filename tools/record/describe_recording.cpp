// SPDX-License-Identifier: Apache-2.0
// describe_recording.cpp - what is in a recording, for people.
#include <algorithm>
#include <ctime>
#include <set>

#include "tools/common/text.h"
#include "tools/record/record.h"

namespace olvex_tools {

namespace {

constexpr std::uint64_t kSecond = 1000000000;

std::string or_unknown(const std::string& text) {
  return text.empty() ? "unknown" : one_line(text);
}

std::string frames_text(const Recording& recording) {
  std::set<std::uint32_t> handles;
  std::uint32_t first = UINT32_MAX;
  std::uint32_t last = 0;
  std::size_t boxes = 0;
  float highest_floor = 0.0f;
  for (std::size_t k = 0; k < recording.frames.size(); ++k) {
    const RecordedFrame frame = recording.frame(k);
    handles.insert(frame.handle);
    first = std::min(first, frame.number);
    last = std::max(last, frame.number);
    boxes += frame.boxes.size() + frame.large_boxes.size();
    highest_floor = std::max(highest_floor, frame.floor);
  }
  if (recording.frames.empty()) {
    return "frames    none\n";
  }
  return "frames    " + std::to_string(recording.frames.size()) + ", numbers " +
         std::to_string(first) + " to " + std::to_string(last) + ", of " +
         counted(handles.size(), "handle", "handles") + ", with " + counted(boxes, "box", "boxes") +
         "\n" + "time      " + time_text(recording.frames.front().log_time) + " to " +
         time_text(recording.frames.back().log_time) + "\n" +
         format("floor     %g: thresholds from it on are exact\n",
                static_cast<double>(highest_floor));
}

std::string event_text(const Recording& recording, const RecordedEvent& event) {
  const std::uint64_t offset = recording.about.realtime - recording.about.monotonic;
  const char* const kinds[] = {"unknown", "begun", "failure", "ended"};
  return "event     " + time_text(event.time + offset) + " " +
         kinds[event.kind > 3 ? 0 : event.kind] +
         (event.text.empty() ? "" : ": " + one_line(event.text)) + "\n";
}

}  // namespace

std::string time_text(std::uint64_t nanoseconds) {
  const auto seconds = static_cast<std::time_t>(nanoseconds / kSecond);
  std::tm calendar = {};
  gmtime_r(&seconds, &calendar);
  char text[64];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &calendar);
  return text + format(".%03uZ", static_cast<unsigned>(nanoseconds % kSecond / 1000000));
}

std::string describe_recording(const Recording& recording) {
  const RecordingAbout& about = recording.about;
  const std::size_t carried = static_cast<std::size_t>(std::count_if(
      recording.calls.begin(), recording.calls.end(),
      [](const RecordedCall& call) { return (call.flags & RECORDING_CALL_CARRIED) != 0; }));
  std::string text = "library   " + or_unknown(about.library) + ", build id " +
                     or_unknown(about.library_id) + "\n" + "recorder  " +
                     or_unknown(about.recorder) + ", part " + std::to_string(about.part) + "\n" +
                     "machine   " + or_unknown(about.machine) + ", " +
                     std::to_string(about.pointer_bytes * 8) + " bits\n";
  for (const auto& [call, model] : recording.models) {
    text += "model     " + std::to_string(model.bytes) + " bytes, SHA-256 ";
    for (const unsigned char byte : model.sha256) {
      text += format("%02x", byte);
    }
    text += model.sha256.empty() ? "unknown\n" : "\n";
  }
  text += frames_text(recording);
  text += "calls     " + std::to_string(recording.calls.size()) + ", " + std::to_string(carried) +
          " of them from before the first frame" +
          (carried > 0 && about.carried_complete == 0 ? ", and not all" : "") + "\n";
  text += "pictures  " + std::to_string(recording.pictures) + "\n";
  for (const RecordedEvent& event : recording.events) {
    text += event_text(recording, event);
  }
  const bool has_events = !recording.events.empty();
  const std::uint64_t lost = has_events ? recording.events.back().lost_frames : about.lost_frames;
  const std::uint64_t calls = has_events ? recording.events.back().lost_calls : about.lost_calls;
  text += "lost      " + counted(lost, "frame", "frames") +
          (calls > 0 ? " and " + counted(calls, "call", "calls") : "") + "\n";
  for (const Damage& damage : recording.container.damages) {
    text += "damage    " + damage_text(damage) + "\n";
  }
  return text;
}

}  // namespace olvex_tools
