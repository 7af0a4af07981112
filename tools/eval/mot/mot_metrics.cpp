// SPDX-License-Identifier: Apache-2.0
// mot_metrics.cpp - CLEAR MOT in one pass over the frames with a memory of each object; the assignment of
// identities; and from counts to metrics. Declared in mot_passes.h and mot.h.
#include <algorithm>
#include <map>

#include "tools/eval/mot/mot.h"
#include "tools/eval/mot/mot_passes.h"

namespace olvex_tools {

// ---- CLEAR MOT ----------------------------------------------------------------------------------

ClearPass::ClearPass(const MotClip& clip, MotMeasurement* measured)
    : clip_(clip),
      memories_(clip.objects.size()),
      measured_(*measured),
      false_tracks_(clip.result_ids.size()) {
  measured_.runs.assign(clip.objects.size(), {});
}

void ClearPass::add_frame(const ClipFrame& frame, const std::vector<WeightedPair>& pairs) {
  const std::vector<WeightedPair> matches = match(frame, pairs);
  std::vector<const WeightedPair*> match_of_truth(frame.truths.size(), nullptr);
  for (const WeightedPair& pair : matches) {
    match_of_truth[pair.row] = &pair;
  }
  for (std::size_t i = 0; i < frame.truths.size(); ++i) {
    const std::size_t object = frame.truths[i].track;
    ++memories_[object].frames;
    if (match_of_truth[i] != nullptr) {
      note_found(object, frame.results[match_of_truth[i]->column].track, frame.number);
      counts_.overlap_sum += match_of_truth[i]->weight;
    }
    memories_[object].found_when_last_present = match_of_truth[i] != nullptr;
  }
  note_false_boxes(frame, matches);
  const long found = static_cast<long>(matches.size());
  counts_.matches += found;
  counts_.misses += static_cast<long>(frame.truths.size()) - found;
  counts_.false_boxes += static_cast<long>(frame.results.size()) - found;
}

ClearCounts ClearPass::counts() {
  for (const ObjectMemory& memory : memories_) {
    classify(memory);
  }
  list_false_tracks();
  return counts_;
}

void ClearPass::note_false_boxes(const ClipFrame& frame, const std::vector<WeightedPair>& matches) {
  std::vector<bool> found(frame.results.size(), false);
  for (const WeightedPair& pair : matches) {
    found[pair.column] = true;
  }
  for (std::size_t i = 0; i < frame.results.size(); ++i) {
    FalseTrack& track = false_tracks_[frame.results[i].track];
    if (found[i]) {
      track.finds_an_object = true;
      continue;
    }
    track.class_id = track.frames.empty() ? frame.results[i].class_id : track.class_id;
    extend_spans(&track.frames, frame.number);
  }
}

void ClearPass::list_false_tracks() {
  for (std::size_t i = 0; i < false_tracks_.size(); ++i) {
    false_tracks_[i].result_id = clip_.result_ids[i];
    if (!false_tracks_[i].frames.empty()) {
      measured_.false_tracks.push_back(false_tracks_[i]);
    }
  }
  std::stable_sort(measured_.false_tracks.begin(), measured_.false_tracks.end(),
                   [](const FalseTrack& left, const FalseTrack& right) {
                     return left.frames.front().first < right.frames.front().first;
                   });
}

std::vector<WeightedPair> ClearPass::match(const ClipFrame& frame,
                                           const std::vector<WeightedPair>& pairs) const {
  std::vector<WeightedPair> matches;
  std::vector<bool> truth_taken(frame.truths.size(), false);
  std::vector<bool> result_taken(frame.results.size(), false);
  for (const WeightedPair& pair : pairs) {
    const ObjectMemory& memory = memories_[frame.truths[pair.row].track];
    if (memory.last_result == frame.results[pair.column].track &&
        memory.last_found_frame == frame.number - 1) {
      matches.push_back(pair);
      truth_taken[pair.row] = true;
      result_taken[pair.column] = true;
    }
  }
  std::vector<WeightedPair> rest;
  for (const WeightedPair& pair : pairs) {
    if (!truth_taken[pair.row] && !result_taken[pair.column]) {
      rest.push_back(pair);
    }
  }
  for (const WeightedPair& pair :
       best_assignment(frame.truths.size(), frame.results.size(), rest)) {
    matches.push_back(pair);
  }
  return matches;
}

void ClearPass::note_found(std::size_t object, std::size_t result, long frame) {
  ObjectMemory& memory = memories_[object];
  const bool found_before = memory.last_result != kNone;
  counts_.switches += found_before && memory.last_result != result ? 1 : 0;
  counts_.fragments += found_before && !memory.found_when_last_present ? 1 : 0;

  std::vector<FoundRun>& runs = measured_.runs[object];
  if (memory.last_result == result && memory.last_found_frame == frame - 1) {
    runs.back().frames.last = frame;
  } else {
    runs.push_back({{frame, frame}, clip_.result_ids[result]});
  }
  memory.last_result = result;
  memory.last_found_frame = frame;
  ++memory.found_frames;
}

void ClearPass::classify(const ObjectMemory& memory) {
  if (memory.frames == 0) {
    return;  // only ever ignored
  }
  if (memory.found_frames * 10 >= memory.frames * 8) {
    ++counts_.mostly_tracked;
  } else if (memory.found_frames * 10 >= memory.frames * 2) {
    ++counts_.partly_tracked;
  } else {
    ++counts_.mostly_lost;
  }
}

void ClearCounts::add(const ClearCounts& other) {
  matches += other.matches;
  misses += other.misses;
  false_boxes += other.false_boxes;
  switches += other.switches;
  fragments += other.fragments;
  overlap_sum += other.overlap_sum;
  mostly_tracked += other.mostly_tracked;
  partly_tracked += other.partly_tracked;
  mostly_lost += other.mostly_lost;
}

// ---- Identities ---------------------------------------------------------------------------------

void IdentityPass::add_frame(const ClipFrame& frame, const std::vector<WeightedPair>& pairs) {
  for (const WeightedPair& pair : pairs) {
    ++shared_frames_[keys_.key(frame, pair)];
  }
}

long IdentityPass::matches() const {
  const std::map<std::uint64_t, long> ordered(shared_frames_.begin(), shared_frames_.end());
  std::vector<WeightedPair> pairs;
  for (const auto& [key, frames] : ordered) {
    pairs.push_back({keys_.object(key), keys_.result(key), static_cast<double>(frames)});
  }
  // Each frame that an assigned pair shares is one miss and one false box less, so the greatest sum
  // of shared frames is the least sum of both.
  long matches = 0;
  for (const WeightedPair& pair :
       best_assignment(clip_.objects.size(), clip_.result_ids.size(), pairs)) {
    matches += static_cast<long>(pair.weight);
  }
  return matches;
}

// ---- The metrics --------------------------------------------------------------------------------

namespace {

std::optional<double> ratio(double part, double whole) {
  return whole > 0 ? std::optional<double>(part / whole) : std::nullopt;
}

double as_number(long count) {
  return static_cast<double>(count);
}

}  // namespace

void MotScores::add(const MotScores& other) {
  clear.add(other.clear);
  identity_matches += other.identity_matches;
  hota.add(other.hota);
}

MotMeasurement measure_tracks(const MotClip& clip) {
  MotMeasurement measured;
  HotaPasses hota(clip);
  ClearPass clear(clip, &measured);
  IdentityPass identity(clip);
  for (const ClipFrame& frame : clip.frames) {
    const std::vector<WeightedPair> pairs = overlapping_pairs(frame);
    hota.add_alignment(frame, pairs);
    const std::vector<WeightedPair> matching = matching_pairs(pairs);
    clear.add_frame(frame, matching);
    identity.add_frame(frame, matching);
  }
  hota.end_alignment();
  // Sought a second time: the pairs of a long clip of crowded frames would not fit into memory.
  for (const ClipFrame& frame : clip.frames) {
    hota.add_matches(frame, overlapping_pairs(frame));
  }
  measured.scores.hota = hota.sums();
  measured.scores.clear = clear.counts();
  measured.scores.identity_matches = identity.matches();
  return measured;
}

std::vector<Metric> hota_metrics(const HotaValues& values) {
  return {{"HOTA", values.hota},
          {"DetA", values.detection},
          {"DetRe", values.detection_recall},
          {"DetPr", values.detection_precision},
          {"AssA", values.association},
          {"AssRe", values.association_recall},
          {"AssPr", values.association_precision},
          {"LocA", values.localisation}};
}

std::vector<Metric> mot_metrics(const MotScores& scores) {
  const ClearCounts& clear = scores.clear;
  const double truths = as_number(scores.hota.truths);
  const double results = as_number(scores.hota.results);
  const double errors = as_number(clear.misses + clear.false_boxes + clear.switches);
  const double found = as_number(scores.identity_matches);
  const bool any_match = scores.hota.thresholds[0].matches > 0;
  std::vector<Metric> metrics = hota_metrics(hota_values(scores.hota));
  for (Metric& metric : metrics) {
    if ((metric.name == "LocA" && !any_match) ||
        (metric.name == "DetPr" && scores.hota.results == 0)) {
      metric.value.reset();
    }
  }
  const std::vector<Metric> others = {{"MOTA", ratio(truths - errors, truths)},
                                      {"MOTP", ratio(clear.overlap_sum, as_number(clear.matches))},
                                      {"IDF1", ratio(2 * found, truths + results)},
                                      {"IDP", ratio(found, results)},
                                      {"IDR", ratio(found, truths)}};
  metrics.insert(metrics.end(), others.begin(), others.end());
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
