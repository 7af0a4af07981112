// SPDX-License-Identifier: Apache-2.0
// recording.h - a recording read from its file: calls and frames in the order in which they began. The one reader
// for all that plays, shows or changes recordings.
#ifndef TOOLS_RECORDINGS_RECORDING_H
#define TOOLS_RECORDINGS_RECORDING_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/recordings/container.h"
#include "tools/recordings/messages.h"

namespace olvex_tools {

// One function that was called: a frame, or an entry of calls.
struct RecordedStep {
  std::uint32_t call = 0;
  bool is_frame = false;
  std::size_t index = 0;  // in Recording::frames or Recording::calls
};

struct Recording {
  std::string name;  // for messages
  std::vector<unsigned char> bytes;
  Container container;
  RecordingAbout about;
  std::vector<RecordedEvent> events;
  std::vector<RecordedCall> calls;
  std::vector<ContainedMessage> frames;               // see frame()
  std::map<std::uint32_t, RecordedModel> models;      // by the call of the initialisation
  std::map<std::uint32_t, RecordedNetwork> networks;  // by the call that described it
  std::vector<RecordedStep> steps;                    // by call
  std::size_t pictures = 0;
  std::map<std::uint32_t, ContainedMessage> kept_pictures;  // by the frame's number; see picture()
  // By the call that made them, calls of the platform; by call.
  std::map<std::uint32_t, std::vector<std::size_t>> inner_calls;

  // They throw nothing: both were read once already.
  RecordedFrame frame(std::size_t index) const;
  // Nothing when the frame of that number has none.
  std::optional<RecordedPicture> picture(std::uint32_t number) const;
};

// The file's recording. Throws ToolError (kInputError), which names the file and the byte, for a file that is
// none. What is damaged is in Recording::container; a message that contradicts its definition ends the reading
// like a damaged chunk.
Recording read_recording(const std::string& path, Recovery recovery = Recovery::kNone);
// The same of bytes that are in memory.
Recording read_recording(const std::string& name, std::vector<unsigned char> bytes,
                         Recovery recovery);

// "byte 4711: the chunk is damaged", one line each.
std::string damage_text(const Damage& damage);

// "ALGO_DET_Run"; empty for a number that no function has.
std::string function_name(unsigned function);

}  // namespace olvex_tools

#endif  // TOOLS_RECORDINGS_RECORDING_H
