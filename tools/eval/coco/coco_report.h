// coco_report.h - what eval coco found, as text for the screen, as JSON, and its curves as an SVG picture.
// schema/eval_coco.schema.json defines the JSON; eval_coco_command.cpp puts the report together.
#ifndef TOOLS_EVAL_COCO_COCO_REPORT_H
#define TOOLS_EVAL_COCO_COCO_REPORT_H

#include <cstddef>
#include <string>
#include <vector>

#include "tools/eval/coco/coco_files.h"
#include "tools/eval/coco/coco_metrics.h"
#include "tools/eval/coco/coco_picture_errors.h"
#include "tools/common/evaluation.h"

namespace olvex_tools {

struct CocoReport {
  std::string truth_path;
  std::string result_path;
  CocoTruth truth;           // of the classes that were evaluated
  std::size_t results = 0;   // of those classes
  double error_score = 0.5;  // from which a detection counts for the confusion and the errors
  CocoMetrics metrics;
  ConfusionCounts confusion;
  std::vector<PictureErrors> worst;
  std::vector<LintFinding> findings;
};

std::string coco_report_text(const CocoReport& report);
std::string coco_report_json(const CocoReport& report, const std::vector<MetricMinimum>& minimums);

// One curve per class that has truth, and their mean, at overlap .50, with a legend of AP50s. In
// coco_plot.cpp.
std::string precision_recall_svg(const CocoMetrics& metrics);

}  // namespace olvex_tools

#endif  // TOOLS_EVAL_COCO_COCO_REPORT_H
