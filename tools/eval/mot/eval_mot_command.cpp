// SPDX-License-Identifier: Apache-2.0
// eval_mot_command.cpp - the subcommand eval mot: its options, and the way from files to a report.
#include <cstdio>
#include <filesystem>
#include <memory>

#include "tools/common/command.h"
#include "tools/eval/mot/mot.h"
#include "tools/common/output_file.h"
#include "tools/common/subcommands.h"
#include "tools/frames/own_files.h"

namespace olvex_tools {

namespace {

namespace fs = std::filesystem;

const char kDescription[] = "Measure tracks against the truth: HOTA, MOTA, IDF1 and their parts";

const char kManual[] =
    "TRUTH has a row per box: frame,id,left,top,width,height,consider,class,visibility,moving,\n"
    "with frames from 1 and 0 for consider where a box is to be ignored; the last three columns\n"
    "may be missing. RESULT is what olvex-det run --track --mot writes, or another program's file\n"
    "in MOTChallenge format. Classes are numbers; --class-map says which of the library's classes\n"
    "those of TRUTH are. A row whose class is -1 or missing is of the other file's only class.\n"
    "Give more pairs to measure several clips as one: they get a row each, and --min acts on "
    "their\n"
    "combined values.\n\n"
    "Examples:\n"
    "  olvex-det run detector.qtm street.mp4 --track --mot result.txt\n"
    "  olvex-det eval mot truth.txt result.txt\n"
    "  olvex-det eval mot truth.txt result.txt --timeline objects.svg --classes 0\n"
    "  olvex-det eval mot gt.txt result.txt --class-names classes.txt --class-map 1=person,3=car\n"
    "  olvex-det eval mot a.txt a_result.txt b.txt b_result.txt --min MOTA=0.6 --min IDF1=0.7\n"
    "  olvex-det eval mot truth.txt result.txt --json - | jq .combined.metrics.HOTA\n\n"
    "Metrics are fractions, as in 0.85; \"-\" is undefined. Warnings name probable mistakes in\n"
    "the files, such as frames that are numbered from 0. Exit code 1: a metric is below its --min.";

struct CommandLine {
  std::vector<std::string> files;  // truth and result in turn
  std::vector<int> classes;
  std::string class_map;
  std::string result_class_map;
  std::string class_names;
  std::vector<std::string> minimums;
  std::string json;
  std::string timeline;
  std::string plot;
};

void require_pairs(const CommandLine& line) {
  if (line.files.size() % 2 != 0) {
    refuse_usage("there is no RESULT for the TRUTH " + line.files.back() +
                 ": give files in pairs, TRUTH RESULT [TRUTH RESULT ...]");
  }
  if (!line.timeline.empty() && line.files.size() > 2) {
    refuse_usage("--timeline draws one clip: give a single TRUTH and RESULT");
  }
}

std::vector<MetricMinimum> read_minimums(const CommandLine& line) {
  std::vector<std::string> names;
  for (const Metric& metric : mot_metrics({})) {
    names.push_back(metric.name);
  }
  std::vector<MetricMinimum> minimums = parse_minimums(line.minimums, "MOTA=0.6");
  require_known_metrics(minimums, names);
  return minimums;
}

// After the truth's file, unless another clip's is named so too.
std::string clip_name(const std::vector<std::string>& files, std::size_t truth) {
  std::string name = fs::path(files[truth]).stem().string();
  for (std::size_t other = 0; other < files.size(); other += 2) {
    if (other != truth && fs::path(files[other]).stem().string() == name) {
      return files[truth];
    }
  }
  return name;
}

// of_all: the clip's scores, which are those of its class where there is one only.
void add_classes(const MotClip& clip, const MotScores& of_all, MotReport* report) {
  const std::set<int> classes = classes_of(clip);
  for (const int class_id : classes) {
    report->per_class[class_id].add(
        classes.size() == 1 ? of_all : measure_tracks(restricted_to(clip, {class_id})).scores);
  }
}

struct ClassMaps {
  ClassMap truth;
  ClassMap result;
};

// Adds the names that the maps give to classes.
ClassMaps read_class_maps(const CommandLine& line, ClassNames* names) {
  const bool may_add_names = line.class_names.empty();
  ClassMaps maps;
  if (!line.class_map.empty()) {
    maps.truth = ClassMap("--class-map", line.class_map, may_add_names, names);
  }
  if (!line.result_class_map.empty()) {
    maps.result = ClassMap("--result-class-map", line.result_class_map, may_add_names, names);
  }
  return maps;
}

void add_clip(const CommandLine& line, const ClassMaps& maps, std::size_t truth_index,
              MotReport* report) {
  MotFile truth = read_mot_truth(line.files[truth_index], maps.truth);
  MotFile result = read_mot_result(line.files[truth_index + 1], maps.result);
  settle_classes(&truth, &result);
  const std::vector<LintFinding> findings = lint_tracks(truth, &result);
  print_findings("olvex-det eval mot", findings);
  report->findings.insert(report->findings.end(), findings.begin(), findings.end());
  MotClip clip = make_mot_clip(truth, result);
  if (!report->restricted_to.empty()) {
    clip = restricted_to(clip, report->restricted_to);
  }
  MotMeasurement measured = measure_tracks(clip);
  add_classes(clip, measured.scores, report);
  report->combined.add(measured.scores);
  report->clips.push_back({clip_name(line.files, truth_index), truth.path, result.path,
                           clip.objects, std::move(measured)});
  if (!line.timeline.empty()) {
    const MotClipReport& drawn = report->clips.back();
    write_output(line.timeline, stdout,
                 timeline_svg(drawn.name + ": " + drawn.result_path, report->class_names, clip,
                              drawn.measured));
  }
}

int evaluate(const CommandLine& line) {
  require_pairs(line);
  std::vector<std::string> read_paths = line.files;
  read_paths.insert(read_paths.end(), {line.class_names, line.class_map, line.result_class_map});
  require_own_files({{"--json", line.json}, {"--timeline", line.timeline}, {"--plot", line.plot}},
                    read_paths);
  const std::vector<MetricMinimum> minimums = read_minimums(line);
  MotReport report;
  report.class_names = class_names_of(line.class_names);
  const ClassMaps maps = read_class_maps(line, &report.class_names);
  report.restricted_to.insert(line.classes.begin(), line.classes.end());
  for (std::size_t i = 0; i < line.files.size(); i += 2) {
    add_clip(line, maps, i, &report);
  }
  if (!line.json.empty()) {
    write_output(line.json, stdout, mot_report_json(report, minimums));
  }
  if (!line.plot.empty()) {
    write_output(line.plot, stdout, hota_curve_svg(report.combined));
  }
  print_report(mot_report_text(report), {line.json, line.timeline, line.plot});
  return check_minimums(minimums, mot_metrics(report.combined));
}

}  // namespace

void add_eval_mot_command(CLI::App& eval, Command* chosen) {
  const auto line = std::make_shared<CommandLine>();
  OptionTable options(&eval, "mot", kDescription, kManual, chosen,
                      [line] { return evaluate(*line); });
  options.add("FILES", "", &line->files, "Pairs of files: TRUTH RESULT [TRUTH RESULT ...]")
      .required();
  options
      .add("--classes", "N,N...", &line->classes, "Class ids that count in both files, as in 0,1")
      .split_at(',')
      .range(0, kClassMost);
  options.add("--class-map", "FILE|N=CLASS,...", &line->class_map,
              "Classes that the numbers in TRUTH are, by id or name; - ignores; -1: none given");
  options.add("--result-class-map", "FILE|N=CLASS,...", &line->result_class_map,
              "The same for RESULT; - leaves out");
  options.add("--class-names", "FILE", &line->class_names,
              "Names for reports and pictures, one on each line, by class id");
  add_minimum_option(&options, &line->minimums);
  options.add("--json", "FILE|-", &line->json,
              "Values, findings and the runs of each object, see eval_mot.schema.json");
  options.add("--plot", "FILE|-", &line->plot,
              "HOTA and its parts over the overlap of a match, an SVG picture");
  options.add(
      "--timeline", "FILE|-", &line->timeline,
      "A picture (SVG) of each object, when it was found under which id, and of false boxes");
}

}  // namespace olvex_tools
