// SPDX-License-Identifier: Apache-2.0
// played_handle.h - a handle while its calls are played: what the library made, what is in force for it, and whether
// its state is that of the recorded run. docs/recordings.md, Key frames and warm starts, says why.
#ifndef TOOLS_REPLAY_PLAYED_HANDLE_H
#define TOOLS_REPLAY_PLAYED_HANDLE_H

#include <cstdint>

#include "tools/recordings/messages.h"
#include "tools/replay/replay.h"

namespace olvex_tools {

// Which of what the library keeps from frame to frame is known. All of it, of a handle that was created within the
// recording.
class KnownState {
 public:
  // Frames ran that the recording does not hold. has_tracks: the tracker may have seen them.
  void lose(bool has_tracks) {
    knows_tracks_ = knows_tracks_ && !has_tracks;
    knows_previous_ = false;
  }
  // Whether the boxes of the next frame follow from the recording.
  bool is_enough_for(const HandleSettings& settings) const {
    return (!settings.track || knows_tracks_) && (!settings.stable || knows_previous_);
  }
  // After a frame that succeeded.
  void see(const HandleSettings& settings, std::uint32_t empty_frames) {
    knows_tracks_ =
        knows_tracks_ || (settings.track && empty_frames >= RECORDING_EMPTY_FRAMES_TO_KEY);
    const bool follows_from_frame = !settings.track || knows_tracks_;
    knows_previous_ =
        follows_from_frame && (knows_previous_ || !settings.stable || empty_frames > 0);
  }

 private:
  bool knows_tracks_ = true;
  bool knows_previous_ = true;
};

struct PlayedHandle {
  void* handle =
      nullptr;  // the library's; null after it was freed, or where a call cannot be played
  bool is_initialised = false;
  bool had_tracker = false;
  std::uint32_t width = 0;  // display pixels
  std::uint32_t height = 0;
  std::uint32_t frames = 0;  // that the handle had ended, in the recorded run
  const RecordedNetwork* network = nullptr;
  HandleSettings settings;
  HandleSettings changed;  // settings with what the user changes
  KnownState state;
};

}  // namespace olvex_tools

#endif  // TOOLS_REPLAY_PLAYED_HANDLE_H
