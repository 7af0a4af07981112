// coco_metrics.h - average precision and average recall of a result.
// coco_matching.h says which detection finds what, coco_report.h prints the metrics.
//
// The twelve metrics of T.-Y. Lin, M. Maire, S. Belongie et al., "Microsoft COCO: Common Objects in
// Context", European Conference on Computer Vision, 2014, as its evaluation server computes them:
// precision at 101 recall levels with the envelope of M. Everingham et al., "The PASCAL Visual
// Object Classes (VOC) Challenge", International Journal of Computer Vision 88, 2010, averaged over
// the thresholds of overlap .50, .55, ... .95 and the classes.
#ifndef TOOLS_EVAL_COCO_COCO_METRICS_H
#define TOOLS_EVAL_COCO_COCO_METRICS_H

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "tools/eval/coco/coco_data.h"
#include "tools/eval/coco/coco_matching.h"
#include "tools/common/evaluation.h"

namespace olvex_tools {

constexpr std::size_t kRecallLevels = 101;       // 0.00, 0.01, ... 1.00
constexpr std::size_t kDetectionsCounted = 100;  // per picture and class

using PrecisionCurve = std::array<double, kRecallLevels>;

struct ClassMetrics {
  CocoCategory category;
  std::size_t truths = 0;   // ignored ones left out
  std::size_t ignored = 0;  // truth boxes
  std::size_t detections = 0;
  std::optional<double> ap;  // empty without truth, as are the others
  std::optional<double> ap50;
  std::optional<PrecisionCurve> precision50;  // at each recall level, overlap .50
};

struct CocoMetrics {
  std::vector<Metric> summary;  // AP, AP50, AP75, APs, APm, APl, AR1, AR10, AR100, ARs, ARm, ARl
  std::vector<ClassMetrics> classes;
  std::optional<PrecisionCurve> precision50;  // mean over the classes that have truth
};

// classes: see boxes_by_class.
CocoMetrics coco_metrics(const CocoTruth& truth,
                         const std::vector<std::vector<PictureBoxes>>& classes);

// The summary, then AP:NAME and AP50:NAME of every class.
std::vector<Metric> all_metrics(const CocoMetrics& metrics);

// Their names, which do not depend on results.
std::vector<std::string> coco_metric_names(const CocoTruth& truth);

}  // namespace olvex_tools

#endif  // TOOLS_EVAL_COCO_COCO_METRICS_H
