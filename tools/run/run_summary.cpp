// SPDX-License-Identifier: Apache-2.0
// run_summary.cpp - counts, medians and their two presentations.
#include "tools/run/run.h"

#include <algorithm>
#include <cmath>

#include "tools/common/json_text.h"
#include "tools/common/text.h"

namespace olvex_tools {

namespace {

constexpr int kSummarySchemaVersion = 1;
// In the order of RunSummary::milliseconds_.
const char* const kStageNames[] = {"decode", "conversion", "network", "postprocessing", "output"};

// The value below or at which that share of the values lies (nearest rank).
// Requires: values is not empty.
double percentile(std::vector<float> values, double share) {
  const double rank = std::ceil(share * static_cast<double>(values.size()));
  const auto index = static_cast<std::ptrdiff_t>(std::max(rank, 1.0)) - 1;
  std::nth_element(values.begin(), values.begin() + index, values.end());
  return static_cast<double>(values[static_cast<std::size_t>(index)]);
}

double rate(long frames, double seconds) {
  return seconds > 0 ? static_cast<double>(frames) / seconds : 0;
}

}  // namespace

void RunSummary::add(const FrameRecord& record, std::size_t input, double output_milliseconds) {
  ++frames_;
  for (const Detection& detection : record.detections) {
    ++boxes_[detection.class_id];
    if (detection.track_id) {
      tracks_.emplace(input, *detection.track_id);
    }
  }
  frames_with_dropped_candidates_ += record.dropped_candidates > 0 ? 1 : 0;
  frames_with_cut_boxes_ += record.cut_boxes > 0 ? 1 : 0;
  const StageTimes& times = record.milliseconds;
  const double values[kStages] = {times.decode, times.conversion, times.network,
                                  times.postprocessing, output_milliseconds};
  for (std::size_t i = 0; i < kStages; ++i) {
    milliseconds_[i].push_back(static_cast<float>(values[i]));
  }
}

std::string RunSummary::text(const RunFacts& facts) const {
  std::string text =
      counted(frames_, "frame", "frames") + format(" in %.1f s, %.1f frames/s%s\n", facts.seconds,
                                                   rate(frames_, facts.seconds),
                                                   facts.interrupted ? " (interrupted)" : "");
  if (facts.expected_frames && *facts.expected_frames != frames_) {
    text += "expected  " + counted(*facts.expected_frames, "frame", "frames") + "\n";
  }
  text += boxes_.empty() ? "boxes   none\n" : "boxes\n";
  for (const auto& [class_id, count] : boxes_) {
    const std::string name = class_name(facts.class_names, class_id);
    text += format("  %8llu  ", static_cast<unsigned long long>(count)) +
            (name.empty() ? "class " + std::to_string(class_id) : one_line(name)) + "\n";
  }
  if (facts.tracked) {
    text += format("tracks  %zu\n", tracks_.size());
  }
  text += limits_text(facts.max_boxes);
  if (frames_ > 0) {
    text += "milliseconds per frame    median    99th percentile\n";
    for (std::size_t i = 0; i < kStages; ++i) {
      text += format("  %-18s  %10.2f  %17.2f\n", kStageNames[i], percentile(milliseconds_[i], 0.5),
                     percentile(milliseconds_[i], 0.99));
    }
  }
  return text;
}

std::string RunSummary::limits_text(int max_boxes) const {
  const auto line = [](long frames, const char* rest, int limit) {
    return frames > 0 ? "limit   " + counted(frames, "frame", "frames") + format(rest, limit) : "";
  };
  return line(frames_with_dropped_candidates_,
              " with more candidates than the %d that the model keeps; pack it with a higher "
              "--max-boxes or --min-score\n",
              max_boxes) +
         line(frames_with_cut_boxes_,
              " with more boxes than the %d that the library reports; raise --threshold\n",
              ALGO_DET_MAX_BOXES);
}

std::string RunSummary::json(const RunFacts& facts) const {
  std::uint64_t total = 0;
  Json classes = Json::array();
  for (const auto& [class_id, count] : boxes_) {
    Json entry = {{"class_id", class_id}};
    const std::string name = class_name(facts.class_names, class_id);
    if (!name.empty()) {
      entry["class"] = name;
    }
    entry["boxes"] = count;
    classes.push_back(std::move(entry));
    total += count;
  }
  Json stages = Json::object();
  for (std::size_t i = 0; i < kStages && frames_ > 0; ++i) {
    stages[kStageNames[i]] = {{"median", rounded(percentile(milliseconds_[i], 0.5))},
                              {"p99", rounded(percentile(milliseconds_[i], 0.99))}};
  }
  Json summary = {{"schema_version", kSummarySchemaVersion},
                  {"model", facts.model},
                  {"input", join(facts.inputs, " ")},
                  {"interrupted", facts.interrupted},
                  {"frames", frames_},
                  {"expected_frames", or_null(facts.expected_frames)},
                  {"seconds", rounded(facts.seconds)},
                  {"frames_per_second", rounded(rate(frames_, facts.seconds))},
                  {"boxes", total},
                  {"boxes_per_class", std::move(classes)},
                  {"frames_with_dropped_candidates", frames_with_dropped_candidates_},
                  {"frames_with_cut_boxes", frames_with_cut_boxes_},
                  {"tracks", facts.tracked ? Json(tracks_.size()) : Json(nullptr)},
                  {"milliseconds", std::move(stages)}};
  if (facts.inputs.size() > 1) {
    summary["inputs"] = facts.inputs;
  }
  return json_text(summary) + "\n";
}

}  // namespace olvex_tools
