// coco_report.h - what eval coco found, as text for the screen and as JSON.
// schema/eval_coco.schema.json defines the JSON; eval_coco_command.cpp puts the report together.
#ifndef TOOLS_EVAL_COCO_COCO_REPORT_H
#define TOOLS_EVAL_COCO_COCO_REPORT_H

#include <cstddef>
#include <string>
#include <vector>

#include "tools/eval/coco/coco_data.h"
#include "tools/eval/coco/coco_lint.h"
#include "tools/eval/coco/coco_metrics.h"
#include "tools/eval/coco/coco_picture_errors.h"
#include "tools/common/metric_minimums.h"

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

}  // namespace olvex_tools

#endif  // TOOLS_EVAL_COCO_COCO_REPORT_H
