// SPDX-License-Identifier: Apache-2.0
// eval_coco_command.cpp - the subcommand eval coco: its options, and the way from files to a report.
#include <cstdio>
#include <memory>

#include "tools/eval/coco/coco.h"
#include "tools/common/command.h"
#include "tools/common/output_file.h"
#include "tools/common/subcommands.h"
#include "tools/frames/own_files.h"

namespace olvex_tools {

namespace {

constexpr long kWorstMost = 1000;

const char kDescription[] = "Measure boxes against the truth: average precision and recall";

const char kManual[] =
    "TRUTH is a COCO instances file: images, annotations (an \"ignore\": 1 is honoured beside\n"
    "iscrowd) and categories, whose ids are the library's class ids, from 0. RESULT is what\n"
    "olvex-det run --coco writes; run it with a low threshold, as precision is measured at all\n"
    "scores.\n\n"
    "Examples:\n"
    "  olvex-det run detector.qtm pictures/ --threshold 0.01 --coco results.json\n"
    "  olvex-det eval coco truth.json results.json\n"
    "  olvex-det eval coco truth.json results.json --min AP50=0.6 --min AP50:person=0.7\n"
    "  olvex-det eval coco truth.json results.json --plot curves.svg --classes person,car\n"
    "  olvex-det eval coco truth.json results.json --plot-scores scores.svg\n"
    "  olvex-det eval coco truth.json results.json --worst-pictures worst/ --input pictures/\n"
    "  olvex-det eval coco truth.json results.json --json - | jq .metrics.AP\n\n"
    "Metrics are fractions, as in 0.85; \"-\" is undefined: a class without truth, which no mean\n"
    "counts. The best threshold is the score with the best F1, the harmonic mean of precision and\n"
    "recall, at overlap 0.5: what run --threshold and the library take.\n"
    "Pictures of the worst: hits green on the truth in white, false boxes red, misses\n"
    "dashed yellow; frame n of the input is image n, or the number that a picture is named by, as\n"
    "with olvex-det run. Warnings name probable mistakes in the files, such as class ids that are\n"
    "numbered from 1. Exit code 1: a metric is below its --min.";

struct CommandLine {
  std::string truth;
  std::string result;
  std::vector<std::string> classes;
  std::vector<std::string> minimums;
  double error_score = 0.5;
  long worst = 5;
  std::string json;
  std::string plot;
  std::string score_plot;
  std::string confusion_plot;
  std::string worst_folder;
  std::string input;
};

void check_options(const CommandLine& line) {
  if (!(line.error_score >= 0 && line.error_score <= 1)) {
    refuse_usage("--confusion-score must be from 0 to 1");
  }
  if (line.worst_folder.empty() != line.input.empty()) {
    refuse_usage(
        "--worst-pictures and --input go together: the folder to draw into, and the video or "
        "pictures to draw on");
  }
  require_own_files({{"--json", line.json},
                     {"--plot", line.plot},
                     {"--plot-scores", line.score_plot},
                     {"--plot-confusion", line.confusion_plot},
                     {"--worst-pictures", line.worst_folder}},
                    {line.truth, line.result, line.input});
  if (!line.input.empty()) {
    require_pictures(line.input);
  }
}

// Files to a report; also what --min needs, which is checked before the long part.
CocoReport evaluate(const CommandLine& line, const std::vector<MetricMinimum>& minimums) {
  CocoReport report;
  report.truth_path = line.truth;
  report.result_path = line.result;
  report.error_score = line.error_score;
  report.truth = read_coco_truth(line.truth);
  const CocoTruth all_classes = report.truth;
  if (!line.classes.empty()) {
    report.truth = restricted_to(all_classes, line.classes);
  }
  require_known_metrics(minimums, coco_metric_names(report.truth));
  const std::vector<CocoResult> raw_results = read_coco_results(line.result);
  report.findings = lint_coco(all_classes, line.truth, raw_results, line.result);
  print_findings("olvex-det eval coco", report.findings);
  const std::vector<ResultBox> results = known_results(report.truth, raw_results, line.result);
  report.results = results.size();
  const auto classes = boxes_by_class(report.truth, results);
  report.metrics = coco_metrics(report.truth, classes);
  report.confusion = confusion_counts(report.truth, results, line.error_score);
  report.worst = worst_pictures(picture_errors(report.truth, classes, line.error_score),
                                static_cast<std::size_t>(line.worst));
  return report;
}

int run(const CommandLine& line) {
  check_options(line);
  const std::vector<MetricMinimum> minimums = parse_minimums(line.minimums, "AP50=0.6");
  const CocoReport report = evaluate(line, minimums);
  if (!line.json.empty()) {
    write_output(line.json, stdout, coco_report_json(report, minimums));
  }
  if (!line.plot.empty()) {
    write_output(line.plot, stdout, precision_recall_svg(report.metrics));
  }
  if (!line.score_plot.empty()) {
    write_output(line.score_plot, stdout, score_curves_svg(report.metrics));
  }
  if (!line.confusion_plot.empty()) {
    write_output(line.confusion_plot, stdout, confusion_svg(report));
  }
  print_report(coco_report_text(report),
               {line.json, line.plot, line.score_plot, line.confusion_plot});
  if (!line.worst_folder.empty()) {
    draw_worst_pictures(report.truth, report.worst, line.input, line.worst_folder);
  }
  return check_minimums(minimums, all_metrics(report.metrics));
}

}  // namespace

void add_eval_coco_command(CLI::App& eval, Command* chosen) {
  const auto line = std::make_shared<CommandLine>();
  OptionTable options(&eval, "coco", kDescription, kManual, chosen, [line] { return run(*line); });
  options.add("TRUTH", "", &line->truth, "COCO instances file").required();
  options.add("RESULT", "", &line->result, "COCO results file").required();
  options
      .add("--classes", "CLASS,CLASS...", &line->classes,
           "Classes that count, by id or name, as in 0,1")
      .split_at(',');
  add_minimum_option(&options, &line->minimums);
  options
      .add("--confusion-score", "NUMBER", &line->error_score,
           "Score that a box needs for the confusion table and the worst pictures")
      .shows_default();
  options.add("--json", "FILE|-", &line->json,
              "Everything for programs, see eval_coco.schema.json");
  options.add("--plot", "FILE|-", &line->plot,
              "Precision over recall of each class, an SVG picture");
  options.add("--plot-scores", "FILE|-", &line->score_plot,
              "Precision, recall and F1 over the threshold of the score, an SVG picture");
  options.add("--plot-confusion", "FILE|-", &line->confusion_plot,
              "The confusion of classes, an SVG picture");
  options.add("--worst", "N", &line->worst, "Pictures to list, those with most errors")
      .shows_default()
      .range(0L, kWorstMost);
  options.add("--worst-pictures", "FOLDER", &line->worst_folder,
              "Draw the worst pictures into this folder");
  options.add("--input", "VIDEO|FOLDER", &line->input, "What the results come from, to draw on");
}

}  // namespace olvex_tools
