// mot_metrics.cpp - from counts to metrics.
#include "tools/eval/mot/mot.h"

#include <map>
#include <utility>

namespace olvex_tools {

namespace {

std::optional<double> ratio(double part, double whole) {
  return whole > 0 ? std::optional<double>(part / whole) : std::nullopt;
}

double as_number(long count) {
  return static_cast<double>(count);
}

}  // namespace

long identity_matches(const MotClip& clip) {
  std::map<std::pair<std::size_t, std::size_t>, long> shared_frames;  // of object and track
  for (const ClipFrame& frame : clip.frames) {
    for (const WeightedPair& pair : overlapping_pairs(frame, kMatchOverlap)) {
      ++shared_frames[{frame.truths[pair.row].track, frame.results[pair.column].track}];
    }
  }
  std::vector<WeightedPair> pairs;
  for (const auto& [tracks, frames] : shared_frames) {
    pairs.push_back({tracks.first, tracks.second, static_cast<double>(frames)});
  }
  // Each frame that an assigned pair shares is one miss and one false box less, so the greatest sum
  // of shared frames is the least sum of both.
  long matches = 0;
  for (const WeightedPair& pair :
       best_assignment(clip.objects.size(), clip.result_ids.size(), pairs)) {
    matches += static_cast<long>(pair.weight);
  }
  return matches;
}

void MotScores::add(const MotScores& other) {
  clear.add(other.clear);
  identity_matches += other.identity_matches;
  hota.add(other.hota);
}

MotMeasurement measure_tracks(const MotClip& clip) {
  MotMeasurement measured;
  measured.scores.hota = hota_sums(clip);  // first: it refuses what is too much for all
  measured.scores.clear = clear_mot(clip, &measured.runs);
  measured.scores.identity_matches = identity_matches(clip);
  return measured;
}

std::vector<Metric> mot_metrics(const MotScores& scores) {
  const ClearCounts& clear = scores.clear;
  const HotaValues hota = hota_values(scores.hota);
  const double truths = as_number(scores.hota.truths);
  const double results = as_number(scores.hota.results);
  const double errors = as_number(clear.misses + clear.false_boxes + clear.switches);
  const double found = as_number(scores.identity_matches);
  const bool any_match = scores.hota.thresholds[0].matches > 0;
  std::vector<Metric> metrics = {
      {"HOTA", hota.hota},
      {"DetA", hota.detection},
      {"AssA", hota.association},
      {"LocA", any_match ? std::optional<double>(hota.localisation) : std::nullopt},
      {"MOTA", ratio(truths - errors, truths)},
      {"MOTP", ratio(clear.overlap_sum, as_number(clear.matches))},
      {"IDF1", ratio(2 * found, truths + results)},
      {"IDP", ratio(found, results)},
      {"IDR", ratio(found, truths)}};
  if (scores.hota.truths == 0) {
    for (Metric& metric : metrics) {
      metric.value.reset();
    }
  }
  return metrics;
}

std::vector<MotCount> mot_counts(const MotScores& scores) {
  const ClearCounts& clear = scores.clear;
  return {{"truths", "truths", scores.hota.truths},
          {"results", "results", scores.hota.results},
          {"misses", "FN", clear.misses},
          {"false_boxes", "FP", clear.false_boxes},
          {"id_switches", "IDSW", clear.switches},
          {"fragments", "Frag", clear.fragments},
          {"objects", "objects", clear.mostly_tracked + clear.partly_tracked + clear.mostly_lost},
          {"mostly_tracked", "MT", clear.mostly_tracked},
          {"partly_tracked", "PT", clear.partly_tracked},
          {"mostly_lost", "ML", clear.mostly_lost}};
}

}  // namespace olvex_tools
