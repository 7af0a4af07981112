// mot_identity.cpp - one assignment of objects to tracks. Read mot_identity.h first.
#include "tools/eval/mot/mot_identity.h"

#include <map>
#include <utility>

#include "tools/eval/mot/mot_overlap.h"

namespace olvex_tools {

void IdentityCounts::add(const IdentityCounts& other) {
  matches += other.matches;
  misses += other.misses;
  false_boxes += other.false_boxes;
}

IdentityCounts identity_matches(const MotClip& clip) {
  std::map<std::pair<std::size_t, std::size_t>, long> shared_frames;  // of object and track
  IdentityCounts counts;
  for (const ClipFrame& frame : clip.frames) {
    counts.misses += static_cast<long>(frame.truths.size());
    counts.false_boxes += static_cast<long>(frame.results.size());
    for (const WeightedPair& pair : overlapping_pairs(frame, kMatchOverlap)) {
      ++shared_frames[{frame.truths[pair.row].track, frame.results[pair.column].track}];
    }
  }
  std::vector<WeightedPair> pairs;
  pairs.reserve(shared_frames.size());
  for (const auto& [tracks, frames] : shared_frames) {
    pairs.push_back({tracks.first, tracks.second, static_cast<double>(frames)});
  }
  // Each frame that an assigned pair shares is one miss and one false box less, so the greatest sum
  // of shared frames is the least sum of both.
  for (const WeightedPair& pair :
       best_assignment(clip.objects.size(), clip.result_ids.size(), pairs)) {
    counts.matches += static_cast<long>(pair.weight);
  }
  counts.misses -= counts.matches;
  counts.false_boxes -= counts.matches;
  return counts;
}

}  // namespace olvex_tools
