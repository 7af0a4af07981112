// SPDX-License-Identifier: Apache-2.0
// replay.h - the parts of the subcommand replay: options that are changed, the player, and what changed between two
// runs. replay_command.cpp puts them together.
#ifndef TOOLS_REPLAY_REPLAY_H
#define TOOLS_REPLAY_REPLAY_H

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/frames/frame_record.h"
#include "tools/recordings/recording.h"

namespace olvex_tools {

// ---- Options that a run is to have in place of the recorded ones (changed_options.cpp) --------------------

struct ChangedOptions {
  std::optional<float> threshold;
  std::optional<bool> track;
  std::optional<int> track_frames;
  std::optional<bool> ignore_static;
  std::optional<float> static_sensitivity;
  std::optional<bool> stable;
  std::optional<float> stable_sensitivity;
  std::optional<bool> strict;

  // Whether any of those behind threshold is there.
  bool change_tracking() const;
};

// NAME=VALUE each. Throws ToolError (kUsageError) for others.
ChangedOptions parse_changed_options(const std::vector<std::string>& texts);

// Throws ToolError (kUsageError) when frames hold too little for a threshold.
void require_exact_threshold(const Recording& recording, const ChangedOptions& options);

// What is in force for a handle.
struct HandleSettings {
  bool track = false;
  int track_frames = 1;
  bool ignore_static = false;
  float static_sensitivity = 0.85f;
  bool stable = false;
  float stable_sensitivity = 0.63f;
  bool strict = false;

  // Takes over what a call that succeeded has set.
  void take(const RecordedCall& call);
  void take(const ChangedOptions& options);
};

// ---- The player (player.cpp) --------------------------------------------------------------------------

// One value that came out differently.
struct ReplayDifference {
  std::uint32_t frame = 0;  // its number; 0: in a call outside of frames
  std::uint32_t call = 0;
  std::string function;
  std::string kind;   // "box x"
  std::string field;  // "box 3 x"
  std::string recorded;
  std::string played;
};

struct PlayedFrame {
  std::uint32_t handle = 0;
  std::uint32_t of_handle = 0;    // which of the handle's frames it is, from 1
  std::uint64_t time = 0;         // of its begin, nanoseconds since 1970
  std::uint32_t input_width = 0;  // of the network's input, pixels; 0 where it is not known
  std::uint32_t input_height = 0;
  FrameRecord record;
};

struct PlayOptions {
  ChangedOptions changes;
  std::uint32_t from = 0;         // numbers of frames: those before are played and not compared,
  std::uint32_t to = UINT32_MAX;  // those behind not played
  // Gets each frame of that range that succeeded; may be empty.
  std::function<void(const PlayedFrame&)> on_frame;
};

struct PlayResult {
  std::size_t frames = 0;  // compared, of them
  std::size_t partly = 0;  // in codes and platform calls only
  std::size_t calls = 0;
  std::size_t left_out = 0;  // calls and frames that cannot be played
  std::optional<ReplayDifference> first;
  std::map<std::string, std::size_t> kinds;  // differences by kind
};

// Plays all calls through the library, each recorded thread's on a thread of its own, one after the other in the
// order in which they began. Nothing is compared when options are changed. Throws ToolError (kInputError) for a
// recording that contradicts itself. The library logs on standard output.
PlayResult play(const Recording& recording, const PlayOptions& options);

// ---- What a recording lacks (missing_parts.cpp) -----------------------------------------------------------

// Sentences for the user, none for a recording that lacks nothing: frames and calls that were lost, or whose
// chunks were damaged, and calls in force that did not fit.
std::vector<std::string> missing_parts(const Recording& recording);

// ---- What changed between two runs (run_changes.cpp) ----------------------------------------------------

struct RunChanges {
  std::size_t frames = 0;
  std::size_t changed_frames = 0;
  std::size_t gained = 0;
  std::size_t lost = 0;
  std::size_t moved = 0;
  std::size_t joined = 0;  // tracks of the second run that were several in the first
  std::size_t split = 0;
  std::vector<std::string> lines;  // for people, one per change
  std::string json_lines;          // see schema/replay_change.schema.json
};

RunChanges changes_between(const std::vector<PlayedFrame>& before,
                           const std::vector<PlayedFrame>& after);

}  // namespace olvex_tools

#endif  // TOOLS_REPLAY_REPLAY_H
