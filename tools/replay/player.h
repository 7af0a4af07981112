// SPDX-License-Identifier: Apache-2.0
// player.h - Player: one play of a recording. player.cpp has the order of calls, player_calls.cpp the calls
// outside of frames, player_frames.cpp the frames.
#ifndef TOOLS_REPLAY_PLAYER_H
#define TOOLS_REPLAY_PLAYER_H

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "olvex_det.h"
#include "platform/replay/qv_replay.h"
#include "tools/replay/calling_thread.h"
#include "tools/replay/played_handle.h"
#include "tools/replay/replay.h"

namespace olvex_tools {

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
