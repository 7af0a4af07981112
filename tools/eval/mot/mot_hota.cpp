// SPDX-License-Identifier: Apache-2.0
// mot_hota.cpp - two passes over the frames: how well objects and tracks go together over the whole
// clip, then the assignment in each frame that follows it. Declared in mot.h.
#include "tools/eval/mot/mot.h"

#include <cmath>
#include <map>
#include <utility>
#include <vector>

#include "tools/common/command.h"

namespace olvex_tools {

namespace {

constexpr std::size_t kTrackPairsMost = 5000000;  // some 500 MB

double threshold_at(std::size_t index) {
  return static_cast<double>(index + 1) / 20;
}

class HotaPasses {
 public:
  explicit HotaPasses(const MotClip& clip)
      : clip_(clip),
        object_frames_(clip.objects.size(), 0),
        track_frames_(clip.result_ids.size(), 0) {}

  HotaSums run() {
    for (const ClipFrame& frame : clip_.frames) {
      count_boxes(frame);
      add_alignment(frame);
    }
    for (auto& [tracks, alignment] : alignments_) {
      alignment /= frames_of_either(tracks) - alignment;
    }
    for (const ClipFrame& frame : clip_.frames) {
      add_matches(frame);
    }
    for (const auto& [tracks, matches] : matches_) {
      add_association(frames_of_either(tracks), matches);
    }
    return sums_;
  }

 private:
  using Tracks = std::pair<std::size_t, std::size_t>;  // of an object and a result's id
  using Matches = std::array<long, kHotaThresholds>;   // frames at each threshold

  // Sum of both lengths; what they share is in it twice.
  double frames_of_either(const Tracks& tracks) const {
    return static_cast<double>(object_frames_[tracks.first] + track_frames_[tracks.second]);
  }

  void count_boxes(const ClipFrame& frame) {
    sums_.truths += static_cast<long>(frame.truths.size());
    sums_.results += static_cast<long>(frame.results.size());
    for (const ClipBox& box : frame.truths) {
      ++object_frames_[box.track];
    }
    for (const ClipBox& box : frame.results) {
      ++track_frames_[box.track];
    }
  }

  void add_alignment(const ClipFrame& frame) {
    const std::vector<WeightedPair> pairs = overlapping_pairs(frame, 0);
    std::vector<double> truth_sums(frame.truths.size(), 0);
    std::vector<double> result_sums(frame.results.size(), 0);
    for (const WeightedPair& pair : pairs) {
      truth_sums[pair.row] += pair.weight;
      result_sums[pair.column] += pair.weight;
    }
    for (const WeightedPair& pair : pairs) {
      alignments_[tracks_of(frame, pair)] +=
          pair.weight / (truth_sums[pair.row] + result_sums[pair.column] - pair.weight);
    }
    if (alignments_.size() > kTrackPairsMost) {
      throw ToolError(kInputError,
                      "too many ids overlap each other up to frame " +
                          std::to_string(frame.number) +
                          ". Are the second columns ids of objects? If so, measure the clip in "
                          "pieces");
    }
  }

  void add_matches(const ClipFrame& frame) {
    std::vector<WeightedPair> pairs = overlapping_pairs(frame, 0);
    for (WeightedPair& pair : pairs) {
      pair.weight *= alignments_.at(tracks_of(frame, pair));
    }
    for (const WeightedPair& pair :
         best_assignment(frame.truths.size(), frame.results.size(), pairs)) {
      const double overlap = overlap_of(frame.truths[pair.row].box, frame.results[pair.column].box);
      for (std::size_t i = 0; i < kHotaThresholds && reaches(overlap, threshold_at(i)); ++i) {
        ++sums_.thresholds[i].matches;
        sums_.thresholds[i].overlap += overlap;
        ++matches_[tracks_of(frame, pair)][i];
      }
    }
  }

  void add_association(double frames_of_either, const Matches& matches) {
    for (std::size_t i = 0; i < kHotaThresholds; ++i) {
      const double shared = static_cast<double>(matches[i]);
      sums_.thresholds[i].association += shared * (shared / (frames_of_either - shared));
    }
  }

  static Tracks tracks_of(const ClipFrame& frame, const WeightedPair& pair) {
    return {frame.truths[pair.row].track, frame.results[pair.column].track};
  }

  const MotClip& clip_;
  std::vector<long> object_frames_;
  std::vector<long> track_frames_;
  // Of those that ever overlap: first the sum of their shares in the frames, then what that is of
  // all their frames.
  std::map<Tracks, double> alignments_;
  std::map<Tracks, Matches> matches_;  // of those that ever match
  HotaSums sums_;
};

double ratio(double part, double whole) {
  return whole > 0 ? part / whole : 0;
}

}  // namespace

void HotaSums::add(const HotaSums& other) {
  truths += other.truths;
  results += other.results;
  for (std::size_t i = 0; i < kHotaThresholds; ++i) {
    thresholds[i].matches += other.thresholds[i].matches;
    thresholds[i].association += other.thresholds[i].association;
    thresholds[i].overlap += other.thresholds[i].overlap;
  }
}

HotaSums hota_sums(const MotClip& clip) {
  return HotaPasses(clip).run();
}

HotaValues hota_values(const HotaSums& sums) {
  HotaValues mean;
  constexpr double kShare = 1.0 / kHotaThresholds;
  for (const HotaSums::AtThreshold& at : sums.thresholds) {
    const double matches = static_cast<double>(at.matches);
    const double detection =
        ratio(matches, static_cast<double>(sums.truths + sums.results) - matches);
    const double association = ratio(at.association, matches);
    mean.detection += detection * kShare;
    mean.association += association * kShare;
    mean.hota += std::sqrt(detection * association) * kShare;
    mean.localisation += (at.matches > 0 ? at.overlap / matches : 1) * kShare;
  }
  return mean;
}

}  // namespace olvex_tools
