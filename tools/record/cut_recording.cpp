// SPDX-License-Identifier: Apache-2.0
// cut_recording.cpp - a part of a recording as a recording: the calls in force come first, as the recorder itself
// carries them into each file.
#include <algorithm>
#include <charconv>
#include <ctime>
#include <map>
#include <optional>
#include <set>

#include "tools/common/command.h"
#include "tools/common/text.h"
#include "tools/record/record.h"

namespace olvex_tools {

namespace {

constexpr double kSecond = 1e9;  // nanoseconds

// Handles that a call before the part made, and none took down.
std::set<std::uint32_t> living_handles(const Recording& recording, std::uint32_t first_call) {
  std::set<std::uint32_t> handles = {0};
  for (const RecordedCall& call : recording.calls) {
    if (call.call >= first_call) {
      break;
    }
    if (call.function == RECORDING_CREATE_HANDLE) {
      handles.insert(call.handle);
    } else if (call.function == RECORDING_DEINIT_HANDLE && call.result == 0) {
      handles.erase(call.handle);
    }
  }
  return handles;
}

std::map<std::uint32_t, std::uint32_t> handles_by_call(const Recording& recording) {
  std::map<std::uint32_t, std::uint32_t> handles;
  for (const RecordedCall& call : recording.calls) {
    handles[call.call] = call.outer != 0 ? handles[call.outer] : call.handle;
  }
  return handles;
}

template <typename Visit>
void for_each_message(const Recording& recording, const Visit& visit) {
  for (const ContainedChunk& chunk : recording.container.chunks) {
    for (const ContainedMessage& message : chunk.messages) {
      visit(message);
    }
  }
}

bool is_of_a_call(const ContainedMessage& message) {
  return message.channel == RECORDING_CALL || message.channel == RECORDING_MODEL ||
         message.channel == RECORDING_NETWORK;
}

std::vector<MessageToWrite> calls_in_force(const Recording& recording, std::uint32_t first_call) {
  const std::set<std::uint32_t> living = living_handles(recording, first_call);
  std::map<std::uint32_t, std::uint32_t> handles = handles_by_call(recording);
  std::vector<MessageToWrite> messages;
  for_each_message(recording, [&](const ContainedMessage& message) {
    if (!is_of_a_call(message) || message.sequence >= first_call ||
        living.count(handles[message.sequence]) == 0) {
      return;
    }
    messages.push_back(message_to_write(recording, message));
    if (message.channel == RECORDING_CALL) {
      messages.back().data[1] |= RECORDING_CALL_CARRIED;
    }
  });
  return messages;
}

// Nanoseconds since 1970, or nothing.
std::optional<double> clock_time(const std::string& text) {
  std::tm calendar = {};
  const char* rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &calendar);
  const char* const end = text.c_str() + text.size();
  double fraction = 0;
  if (rest != nullptr && *rest == '.') {
    rest = std::from_chars(rest, end, fraction).ptr;
  }
  if (rest == nullptr || std::string(rest, end) != "Z") {
    return std::nullopt;
  }
  return (static_cast<double>(timegm(&calendar)) + fraction) * kSecond;
}

// In the recording's log time.
double moment(const Recording& recording, const std::string& around) {
  double seconds = 0;
  const char* const end = around.data() + around.size();
  const std::from_chars_result result = std::from_chars(around.data(), end, seconds);
  if (result.ec == std::errc() && result.ptr == end) {
    return static_cast<double>(recording.frames.front().log_time) + seconds * kSecond;
  }
  const std::optional<double> time = clock_time(around);
  if (!time) {
    refuse_usage("--around: \"" + around +
                 "\" is neither a number of seconds nor a time as in 2026-05-04T12:00:00Z");
  }
  return *time;
}

template <typename Wanted>
RecordingPart part_of(const Recording& recording, const Wanted& is_wanted) {
  RecordingPart part;
  part.first_call = UINT32_MAX;
  for (std::size_t k = 0; k < recording.frames.size(); ++k) {
    const RecordedFrame frame = recording.frame(k);
    if (is_wanted(frame, recording.frames[k])) {
      part.first_call = std::min(part.first_call, frame.call);
      part.last_call = std::max(part.last_call, frame.call);
      ++part.frames;
    }
  }
  if (part.frames == 0) {
    refuse_input(recording.name, "it has no frame there. What it has says: olvex-det record info");
  }
  return part;
}

}  // namespace

RecordingPart part_by_frames(const Recording& recording, std::uint32_t from, std::uint32_t to) {
  return part_of(recording, [&](const RecordedFrame& frame, const ContainedMessage&) {
    return frame.number >= from && frame.number <= to;
  });
}

RecordingPart part_by_time(const Recording& recording, const std::string& around, double before,
                           double after) {
  if (recording.frames.empty()) {
    refuse_input(recording.name, "it has no frame");
  }
  const double middle = moment(recording, around);
  return part_of(recording, [&](const RecordedFrame&, const ContainedMessage& message) {
    const double time = static_cast<double>(message.log_time);
    return time >= middle - before * kSecond && time <= middle + after * kSecond;
  });
}

MessageToWrite message_to_write(const Recording& recording, const ContainedMessage& message) {
  const unsigned char* const data = recording.bytes.data() + message.offset;
  return {message.channel, message.sequence, message.log_time, message.publish_time,
          Bytes(data, data + message.size)};
}

void write_part(const Recording& recording, const RecordingPart& part, const std::string& path) {
  RecordingWriter writer(path);
  const auto& first = recording.container.chunks.front().messages;
  std::vector<MessageToWrite> head = calls_in_force(recording, part.first_call);
  head.insert(head.begin(), message_to_write(recording, first.front()));
  writer.add_chunk(head);
  for (const ContainedChunk& chunk : recording.container.chunks) {
    std::vector<MessageToWrite> messages;
    for (const ContainedMessage& message : chunk.messages) {
      const bool is_there =
          message.sequence >= part.first_call && message.sequence <= part.last_call;
      if (is_there && message.channel != RECORDING_ABOUT && message.channel != RECORDING_EVENT) {
        messages.push_back(message_to_write(recording, message));
      }
    }
    writer.add_chunk(messages);
  }
  writer.finish();
}

void write_all_chunks(const Recording& recording, const std::string& path) {
  RecordingWriter writer(path);
  for (const ContainedChunk& chunk : recording.container.chunks) {
    std::vector<MessageToWrite> messages;
    for (const ContainedMessage& message : chunk.messages) {
      messages.push_back(message_to_write(recording, message));
    }
    writer.add_chunk(messages);
  }
  writer.finish();
}

}  // namespace olvex_tools
