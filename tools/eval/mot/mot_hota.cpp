// SPDX-License-Identifier: Apache-2.0
// mot_hota.cpp - what HOTA is made of, from the pairs of each frame. Declared in mot_passes.h and mot.h.
#include <algorithm>
#include <cmath>
#include <vector>

#include "tools/common/command.h"
#include "tools/eval/mot/mot.h"
#include "tools/eval/mot/mot_passes.h"

namespace olvex_tools {

namespace {

constexpr std::size_t kTrackPairsMost = 5000000;  // some 500 MB

double threshold_at(std::size_t index) {
  return static_cast<double>(index + 1) / 20;
}

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

HotaPasses::HotaPasses(const MotClip& clip)
    : keys_(clip),
      object_frames_(clip.objects.size(), 0),
      track_frames_(clip.result_ids.size(), 0) {}

void HotaPasses::add_alignment(const ClipFrame& frame, const std::vector<WeightedPair>& pairs) {
  sums_.truths += static_cast<long>(frame.truths.size());
  sums_.results += static_cast<long>(frame.results.size());
  for (const ClipBox& box : frame.truths) {
    ++object_frames_[box.track];
  }
  for (const ClipBox& box : frame.results) {
    ++track_frames_[box.track];
  }
  std::vector<double> truth_sums(frame.truths.size(), 0);
  std::vector<double> result_sums(frame.results.size(), 0);
  for (const WeightedPair& pair : pairs) {
    truth_sums[pair.row] += pair.weight;
    result_sums[pair.column] += pair.weight;
  }
  for (const WeightedPair& pair : pairs) {
    alignments_[keys_.key(frame, pair)] +=
        pair.weight / (truth_sums[pair.row] + result_sums[pair.column] - pair.weight);
  }
  if (alignments_.size() > kTrackPairsMost) {
    throw ToolError(kInputError,
                    "too many ids overlap each other up to frame " + std::to_string(frame.number) +
                        ". Are the second columns ids of objects? If so, measure the clip in "
                        "pieces");
  }
}

void HotaPasses::end_alignment() {
  for (auto& [key, alignment] : alignments_) {
    alignment /= frames_of_either(key) - alignment;
  }
}

void HotaPasses::add_matches(const ClipFrame& frame, std::vector<WeightedPair> pairs) {
  for (WeightedPair& pair : pairs) {
    pair.weight *= alignments_.at(keys_.key(frame, pair));
  }
  for (const WeightedPair& pair :
       best_assignment(frame.truths.size(), frame.results.size(), pairs)) {
    const double overlap = overlap_of(frame.truths[pair.row].box, frame.results[pair.column].box);
    if (!reaches(overlap, threshold_at(0))) {
      continue;
    }
    Matches& matches = matches_[keys_.key(frame, pair)];
    for (std::size_t i = 0; i < kHotaThresholds && reaches(overlap, threshold_at(i)); ++i) {
      ++sums_.thresholds[i].matches;
      sums_.thresholds[i].overlap += overlap;
      ++matches[i];
    }
  }
}

HotaSums HotaPasses::sums() {
  // In the order of their keys: sums of fractions depend on it.
  std::vector<std::uint64_t> keys;
  keys.reserve(matches_.size());
  for (const auto& item : matches_) {
    keys.push_back(item.first);
  }
  std::sort(keys.begin(), keys.end());
  for (const std::uint64_t key : keys) {
    add_association(frames_of_either(key), matches_.at(key));
  }
  return sums_;
}

// Sum of both lengths; what they share is in it twice.
double HotaPasses::frames_of_either(std::uint64_t key) const {
  return static_cast<double>(object_frames_[keys_.object(key)] + track_frames_[keys_.result(key)]);
}

void HotaPasses::add_association(double frames_of_either, const Matches& matches) {
  for (std::size_t i = 0; i < kHotaThresholds; ++i) {
    const double shared = static_cast<double>(matches[i]);
    sums_.thresholds[i].association += shared * (shared / (frames_of_either - shared));
  }
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
