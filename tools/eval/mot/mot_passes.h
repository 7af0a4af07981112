// SPDX-License-Identifier: Apache-2.0
// mot_passes.h - the metrics of tracks as passes over a clip's frames, which share one search for the boxes that
// overlap. measure_tracks in mot_metrics.cpp drives them.
#ifndef TOOLS_EVAL_MOT_MOT_PASSES_H
#define TOOLS_EVAL_MOT_MOT_PASSES_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <unordered_map>
#include <vector>

#include "tools/eval/mot/mot.h"

namespace olvex_tools {

// An object and a result's id as one number, which ascends by object, then id.
class TrackPairKeys {
 public:
  explicit TrackPairKeys(const MotClip& clip) : ids_(clip.result_ids.size()) {}

  std::uint64_t key(const ClipFrame& frame, const WeightedPair& pair) const {
    return frame.truths[pair.row].track * ids_ + frame.results[pair.column].track;
  }
  std::size_t object(std::uint64_t key) const { return key / ids_; }
  std::size_t result(std::uint64_t key) const { return key % ids_; }

 private:
  std::uint64_t ids_;
};

// The CLEAR MOT counts. In mot_metrics.cpp. Pairs of a frame are those that match.
class ClearPass {
 public:
  // measured: its runs and false tracks are filled. Both outlive the pass.
  ClearPass(const MotClip& clip, MotMeasurement* measured);

  void add_frame(const ClipFrame& frame, const std::vector<WeightedPair>& pairs);
  ClearCounts counts();  // after all frames

 private:
  static constexpr std::size_t kNone = std::numeric_limits<std::size_t>::max();

  struct ObjectMemory {
    std::size_t last_result = kNone;  // index of the id that it was last found under
    long last_found_frame = 0;
    bool found_when_last_present = false;
    long frames = 0;
    long found_frames = 0;
  };

  std::vector<WeightedPair> match(const ClipFrame& frame,
                                  const std::vector<WeightedPair>& pairs) const;
  void note_found(std::size_t object, std::size_t result, long frame);
  void note_false_boxes(const ClipFrame& frame, const std::vector<WeightedPair>& matches);
  void classify(const ObjectMemory& memory);
  void list_false_tracks();

  const MotClip& clip_;
  std::vector<ObjectMemory> memories_;
  MotMeasurement& measured_;
  std::vector<FalseTrack>
      false_tracks_;  // by the clip's result ids, also those without a false box
  ClearCounts counts_;
};

// IDTP. In mot_metrics.cpp. Pairs of a frame are those that match.
class IdentityPass {
 public:
  explicit IdentityPass(const MotClip& clip) : clip_(clip), keys_(clip) {}

  void add_frame(const ClipFrame& frame, const std::vector<WeightedPair>& pairs);
  long matches() const;  // after all frames

 private:
  const MotClip& clip_;
  TrackPairKeys keys_;
  std::unordered_map<std::uint64_t, long> shared_frames_;
};

// HOTA's sums, in two passes: how well objects and ids go together over the whole clip, then the assignment in
// each frame that follows it. In mot_hota.cpp. Pairs of a frame are those that overlap at all.
class HotaPasses {
 public:
  explicit HotaPasses(const MotClip& clip);

  // For every frame; throws ToolError (kInputError) when more objects and ids overlap than memory is meant for.
  void add_alignment(const ClipFrame& frame, const std::vector<WeightedPair>& pairs);
  void end_alignment();
  // For every frame, once the alignment has ended.
  void add_matches(const ClipFrame& frame, std::vector<WeightedPair> pairs);
  HotaSums sums();

 private:
  using Matches = std::array<long, kHotaThresholds>;  // frames at each threshold

  double frames_of_either(std::uint64_t key) const;
  void add_association(std::uint64_t key, const Matches& matches);

  TrackPairKeys keys_;
  std::vector<long> object_frames_;
  std::vector<long> track_frames_;
  // Of those that ever overlap: first the sum of their shares in the frames, then what that is of all their frames.
  std::unordered_map<std::uint64_t, double> alignments_;
  std::unordered_map<std::uint64_t, Matches> matches_;  // of those that ever match
  HotaSums sums_;
};

}  // namespace olvex_tools

#endif  // TOOLS_EVAL_MOT_MOT_PASSES_H
