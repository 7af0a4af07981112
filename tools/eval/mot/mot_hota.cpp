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
    thresholds[i].association_recall += other.thresholds[i].association_recall;
    thresholds[i].association_precision += other.thresholds[i].association_precision;
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
    if (!reaches(overlap, hota_threshold(0))) {
      continue;
    }
    Matches& matches = matches_[keys_.key(frame, pair)];
    for (std::size_t i = 0; i < kHotaThresholds && reaches(overlap, hota_threshold(i)); ++i) {
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
    add_association(key, matches_.at(key));
  }
  return sums_;
}

// Sum of both lengths; what they share is in it twice.
double HotaPasses::frames_of_either(std::uint64_t key) const {
  return static_cast<double>(object_frames_[keys_.object(key)] + track_frames_[keys_.result(key)]);
}

void HotaPasses::add_association(std::uint64_t key, const Matches& matches) {
  const double object_frames = static_cast<double>(object_frames_[keys_.object(key)]);
  const double track_frames = static_cast<double>(track_frames_[keys_.result(key)]);
  for (std::size_t i = 0; i < kHotaThresholds; ++i) {
    HotaSums::AtThreshold& sums = sums_.thresholds[i];
    const double shared = static_cast<double>(matches[i]);
    sums.association += shared * (shared / (object_frames + track_frames - shared));
    sums.association_recall += shared * (shared / object_frames);
    sums.association_precision += shared * (shared / track_frames);
  }
}

double hota_threshold(std::size_t i) {
  return static_cast<double>(i + 1) / 20;
}

std::array<HotaValues, kHotaThresholds> hota_curve(const HotaSums& sums) {
  const double truths = static_cast<double>(sums.truths);
  const double results = static_cast<double>(sums.results);
  std::array<HotaValues, kHotaThresholds> curve;
  for (std::size_t i = 0; i < kHotaThresholds; ++i) {
    const HotaSums::AtThreshold& at = sums.thresholds[i];
    const double matches = static_cast<double>(at.matches);
    HotaValues& values = curve[i];
    values.detection = ratio(matches, truths + results - matches);
    values.detection_recall = ratio(matches, truths);
    values.detection_precision = ratio(matches, results);
    values.association = ratio(at.association, matches);
    values.association_recall = ratio(at.association_recall, matches);
    values.association_precision = ratio(at.association_precision, matches);
    values.hota = std::sqrt(values.detection * values.association);
    values.localisation = at.matches > 0 ? at.overlap / matches : 1;
  }
  return curve;
}

HotaValues hota_values(const HotaSums& sums) {
  HotaValues mean;
  for (const HotaValues& at : hota_curve(sums)) {
    mean.hota += at.hota;
    mean.detection += at.detection;
    mean.detection_recall += at.detection_recall;
    mean.detection_precision += at.detection_precision;
    mean.association += at.association;
    mean.association_recall += at.association_recall;
    mean.association_precision += at.association_precision;
    mean.localisation += at.localisation;
  }
  // Sums of ones divide to exactly 1.
  for (double* value : {&mean.hota, &mean.detection, &mean.detection_recall,
                        &mean.detection_precision, &mean.association, &mean.association_recall,
                        &mean.association_precision, &mean.localisation}) {
    *value /= kHotaThresholds;
  }
  return mean;
}

}  // namespace olvex_tools
