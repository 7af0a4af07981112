// SPDX-License-Identifier: Apache-2.0
// player.h - Player: one play of a recording. player.cpp has the order of calls, player_calls.cpp the calls
// outside of frames, player_frames.cpp the frames. Handles and threads, of which it has several, come first.
#ifndef TOOLS_REPLAY_PLAYER_H
#define TOOLS_REPLAY_PLAYER_H

#include <condition_variable>
#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "olvex_det.h"
#include "platform/replay/qv_replay.h"
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

// A handle while its calls are played: what the library made, what is in force for it, and whether its state is that
// of the recorded run. docs/recordings.md, Key frames and warm starts, says why.
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

// A thread that makes calls for another one, which waits for each of them.
class CallingThread {
 public:
  CallingThread();
  ~CallingThread();
  CallingThread(const CallingThread&) = delete;
  CallingThread& operator=(const CallingThread&) = delete;

  // Runs work on the thread and waits for its end; throws what it throws.
  void run(const std::function<void()>& work);

 private:
  void serve();

  std::mutex lock_;
  std::condition_variable changed_;
  const std::function<void()>* work_ = nullptr;
  bool is_ended_ = false;
  std::exception_ptr error_;
  std::thread thread_;  // last: it uses all the others
};

class Player {
 public:
  Player(const Recording& recording, const PlayOptions& options);
  // Frees the handles that are left.
  ~Player();
  Player(const Player&) = delete;
  Player& operator=(const Player&) = delete;

  PlayResult play();

 private:
  // ---- player.cpp ----
  void play_step(const RecordedStep& step);
  // Runs work of a handle on the thread of that number, with the platform's answers; returns what they differed
  // in.
  std::vector<qv_replay::Difference> run(std::uint16_t thread, std::uint32_t handle,
                                         const std::vector<qv_replay::Call>& answers,
                                         const std::function<void()>& work);
  void differ(const ReplayDifference& where, const std::string& kind, const std::string& field,
              const std::string& recorded, const std::string& played);
  void differ(const ReplayDifference& where, const std::vector<qv_replay::Difference>& differences);
  // Null: there is none with that number, or it cannot be played.
  PlayedHandle* find(std::uint32_t number);

  // ---- player_calls.cpp ----
  void play_call(const RecordedCall& call);
  QV_S32 make_call(const RecordedCall& call, PlayedHandle* handle);
  QV_S32 init_from_file(const RecordedCall& call, PlayedHandle* handle);
  QV_S32 init_from_memory(const RecordedCall& call, PlayedHandle* handle);
  QV_S32 get_input_attr(const RecordedCall& call, PlayedHandle* handle);
  void require_words(const RecordedCall& call, const PlayedHandle* handle) const;
  void after_call(const RecordedCall& call, PlayedHandle* handle);
  void change_options(PlayedHandle* handle);
  // Frames that ran between two calls in force, where they leave a trace.
  void run_missing_frames(const RecordedCall& call, PlayedHandle* handle);
  float threshold_of(std::uint32_t word) const;

  // ---- player_frames.cpp ----
  void play_frame(const RecordedFrame& frame);
  void note_lost_frames(const RecordedFrame& frame);
  void compare_frame(const RecordedFrame& frame, const PlayedHandle& handle, QV_S32 result,
                     const std::vector<Box_t>& boxes,
                     const std::vector<qv_replay::Difference>& differences);
  void compare_boxes(const RecordedFrame& frame, const ReplayDifference& where,
                     const std::vector<Box_t>& boxes);
  void hand_over(const RecordedFrame& frame, const PlayedHandle& handle,
                 const std::vector<Box_t>& boxes);

  const Recording& recording_;
  const PlayOptions& options_;
  bool changes_options_;
  PlayResult result_;
  std::map<std::uint32_t, PlayedHandle> handles_;
  std::map<unsigned, std::unique_ptr<CallingThread>> threads_;
  std::map<std::uint32_t, bool> frame_numbers_;  // that the recording holds
};

}  // namespace olvex_tools

#endif  // TOOLS_REPLAY_PLAYER_H
