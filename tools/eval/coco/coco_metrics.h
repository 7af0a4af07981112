// coco_metrics.h - which detection finds which truth box, and the average precision and recall of a result.
// coco_report.h prints the metrics.
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

#include "tools/eval/coco/coco_files.h"
#include "tools/common/evaluation.h"

namespace olvex_tools {

// The boxes of one class in one picture. In coco_matching.cpp, up to match_greedily.
struct PictureBoxes {
  std::size_t picture = 0;            // index in CocoTruth::pictures
  std::vector<TruthBox> truths;       // in the order of the file
  std::vector<ResultBox> detections;  // by descending score, equal scores in the order of the file
};

// For each class of the truth its pictures that have a truth box or a detection, by ascending id.
std::vector<std::vector<PictureBoxes>> boxes_by_class(const CocoTruth& truth,
                                                      const std::vector<ResultBox>& results);

// The overlap of each detection with each truth box; a crowd, of which a detection is a part, is
// overlapped by the share of the detection that lies in it.
class Overlaps {
 public:
  // Only the first so many detections are looked at.
  Overlaps(const PictureBoxes& boxes, std::size_t detections_most);

  std::size_t detections() const { return detections_; }
  std::size_t truths() const { return truths_; }
  double at(std::size_t detection, std::size_t truth) const {
    return values_[detection * truths_ + truth];
  }

 private:
  std::size_t detections_;
  std::size_t truths_;
  std::vector<double> values_;
};

// How a truth box takes part in one matching.
struct TruthRole {
  bool ignored = false;
  bool crowd = false;
};

// The truth box that each detection finds, if any. Detections choose in their order: each takes the
// truth box with the largest overlap, the last among equals, that is still free and overlaps by the
// threshold at least. Ignored ones are left for detections that find no other; a crowd stays free.
// Requires: one role per truth box.
std::vector<std::optional<std::size_t>> match_greedily(const Overlaps& overlaps,
                                                       const std::vector<TruthRole>& roles,
                                                       double threshold);

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
