// SPDX-License-Identifier: Apache-2.0
// evaluation_fuzz.cpp - the files that olvex-det eval and compare read, and all that is reckoned
// from them. The first byte of an input chooses: modulo 3 COCO, MOT or two runs to compare, above
// that whether one class is picked; then come the two files, divided by a zero byte.
#include <algorithm>
#include <cstdint>

#include <nlohmann/json.hpp>

#include "fuzz/fuzz_input.h"
#include "tools/common/command.h"
#include "tools/compare/compare.h"
#include "tools/eval/coco/coco.h"
#include "tools/eval/mot/mot.h"

namespace {

using namespace olvex_tools;

constexpr double kRounding = 1e-9;

// unbounded: the metric that has no lower limit
void check_fractions(const std::vector<Metric>& metrics, const std::string& unbounded) {
  for (const Metric& metric : metrics) {
    const double value = metric.value.value_or(0);
    FUZZ_CHECK(value >= -kRounding || metric.name == unbounded);
    FUZZ_CHECK(value <= 1 + kRounding);
  }
}

// A picture must be UTF-8, or dump() throws; the report's JSON must parse.
void check_texts(const std::string& text, const std::string& json, const std::string& picture) {
  FUZZ_CHECK(!text.empty());
  FUZZ_CHECK(nlohmann::json::accept(json));
  FUZZ_CHECK(!nlohmann::json(picture).dump().empty());
}

// Every truth box that counts is found as one class or missed.
void check_coco_counts(const CocoReport& report) {
  std::vector<std::size_t> truths(report.truth.categories.size() + 1, 0);
  for (const auto& [classes, count] : report.confusion) {
    truths[classes.first] += count;
  }
  for (std::size_t i = 0; i < report.metrics.classes.size(); ++i) {
    FUZZ_CHECK(truths[i] == report.metrics.classes[i].truths);
  }
}

void evaluate_coco(const std::string& truth_path, const std::string& result_path, bool one_class) {
  CocoReport report;
  report.truth = read_coco_truth(truth_path);
  const CocoTruth all_classes = report.truth;
  if (one_class && !all_classes.categories.empty()) {
    report.truth = restricted_to(all_classes, {all_classes.categories.back().name});
  }
  const std::vector<CocoResult> raw_results = read_coco_results(result_path);
  report.findings = lint_coco(all_classes, truth_path, raw_results, result_path);
  const std::vector<ResultBox> results = known_results(report.truth, raw_results, result_path);
  report.results = results.size();
  const auto classes = boxes_by_class(report.truth, results);
  report.metrics = coco_metrics(report.truth, classes);
  report.confusion = confusion_counts(report.truth, results, report.error_score);
  report.worst = worst_pictures(picture_errors(report.truth, classes, report.error_score), 5);

  check_fractions(all_metrics(report.metrics), "");
  const std::vector<Metric>& summary = report.metrics.summary;
  FUZZ_CHECK(summary[6].value <= summary[7].value && summary[7].value <= summary[8].value);
  check_coco_counts(report);
  check_texts(coco_report_text(report), coco_report_json(report, {}),
              precision_recall_svg(report.metrics) + score_curves_svg(report.metrics) +
                  confusion_svg(report));
}

void check_mot_counts(const MotScores& scores, const MotClip& clip) {
  const ClearCounts& clear = scores.clear;
  check_fractions(mot_metrics(scores), "MOTA");
  FUZZ_CHECK(scores.hota.truths == clear.matches + clear.misses);
  FUZZ_CHECK(scores.identity_matches >= 0 && scores.identity_matches <= scores.hota.truths);
  FUZZ_CHECK(scores.hota.results == clear.matches + clear.false_boxes);
  FUZZ_CHECK(scores.identity_matches <= scores.hota.results);
  const auto counted = std::count_if(clip.objects.begin(), clip.objects.end(),
                                     [](const auto& object) { return !object.present.empty(); });
  FUZZ_CHECK(counted == clear.mostly_tracked + clear.partly_tracked + clear.mostly_lost);
}

void check_false_tracks(const MotMeasurement& measured) {
  long frames = 0;
  for (const FalseTrack& track : measured.false_tracks) {
    for (const FrameSpan& span : track.frames) {
      frames += span.last - span.first + 1;
    }
  }
  FUZZ_CHECK(frames == measured.scores.clear.false_boxes);
}

void evaluate_mot(const std::string& truth_path, const std::string& result_path, bool one_class) {
  MotFile truth = read_mot_truth(truth_path, {});
  MotFile result = read_mot_result(result_path, {});
  settle_classes(&truth, &result);
  MotReport report;
  report.findings = lint_tracks(truth, &result);
  MotClip clip = make_mot_clip(truth, result);
  const std::set<int> classes = classes_of(clip);
  if (one_class && !classes.empty()) {
    report.restricted_to = {*classes.begin()};
    clip = restricted_to(clip, report.restricted_to);
  }
  const MotMeasurement measured = measure_tracks(clip);
  report.combined = measured.scores;
  check_mot_counts(report.combined, clip);
  check_false_tracks(measured);
  for (const int class_id : classes_of(clip)) {
    const MotClip part = restricted_to(clip, {class_id});
    report.per_class[class_id] = measure_tracks(part).scores;
    check_mot_counts(report.per_class[class_id], part);
  }
  report.clips.push_back({"clip", truth_path, result_path, clip.objects, measured});
  check_texts(mot_report_text(report), mot_report_json(report, {}),
              timeline_svg("clip", {}, clip, measured) + hota_curve_svg(report.combined));
}

void compare(const std::string& first_path, const std::string& second_path) {
  const std::vector<ComparedRun> runs = {read_compared_run("first", first_path),
                                         read_compared_run("second", second_path)};
  long last = 0;
  for (const ComparedFrame& frame : choose_frames(runs, 3)) {
    FUZZ_CHECK(frame.number > last);
    last = frame.number;
    FUZZ_CHECK(named_frames(runs, {last})[0].boxes_alone == frame.boxes_alone);
    for (std::size_t i = 0; i < runs.size(); ++i) {
      FUZZ_CHECK(frame.boxes_alone[i] <= frame.records[i]->detections.size());
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static MemoryFile files[2];
  FuzzInput input(data, size);
  const uint8_t choice = input.byte();
  const std::vector<std::string> parts = parts_of(input.rest(), 2);
  const std::string& first = files[0].holding(parts[0]);
  const std::string& second = files[1].holding(parts[1]);
  const bool one_class = choice / 3 % 2 == 1;
  try {
    switch (choice % 3) {
      case 0:
        evaluate_coco(first, second, one_class);
        break;
      case 1:
        evaluate_mot(first, second, one_class);
        break;
      default:
        compare(first, second);
    }
  } catch (const ToolError& error) {
    FUZZ_CHECK(error.exit_code() == kInputError);
  }
  return 0;
}
