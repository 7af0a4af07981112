// SPDX-License-Identifier: Apache-2.0
// coco.h - the parts of eval coco: the files, the metrics, what went wrong in each picture, and the report.
// eval_coco_command.cpp puts them together.
#ifndef TOOLS_EVAL_COCO_COCO_H
#define TOOLS_EVAL_COCO_COCO_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tools/common/box.h"
#include "tools/common/evaluation.h"

namespace olvex_tools {

// ---- The files (coco_files.cpp) -----------------------------------------------------------------

struct CocoPicture {
  std::int64_t id = 0;
  double width = 0;   // pixels; 0: the file does not say
  double height = 0;  // pixels; 0: the file does not say
  std::string file_name;
};

struct CocoCategory {
  std::int64_t id = 0;
  std::string name;
};

struct TruthBox {
  std::optional<std::int64_t> id;
  std::size_t picture = 0;   // index in CocoTruth::pictures
  std::size_t category = 0;  // index in CocoTruth::categories
  Box box;
  double area = 0;       // square pixels; of the object, which may fill less than its box
  bool crowd = false;    // a box around many objects, which may be found any number of times
  bool ignored = false;  // neither missed when not found nor counted when found; so is a crowd
};

struct CocoTruth {
  std::vector<CocoPicture> pictures;     // by ascending id
  std::vector<CocoCategory> categories;  // by ascending id
  std::vector<TruthBox> boxes;           // in the order of the file
};

// A result as its file has it, with ids that the truth need not have.
struct CocoResult {
  std::int64_t image_id = 0;
  std::int64_t category_id = 0;
  Box box;
  double score = 0;
};

// A result whose picture and class the truth has.
struct ResultBox {
  std::size_t picture = 0;   // index in CocoTruth::pictures
  std::size_t category = 0;  // index in CocoTruth::categories
  Box box;
  double score = 0;
};

// The index of the element with that id. Requires: elements ascend by id.
template <typename Element>
std::optional<std::size_t> index_of_id(const std::vector<Element>& elements, std::int64_t id) {
  const auto found = std::lower_bound(
      elements.begin(), elements.end(), id,
      [](const Element& element, std::int64_t wanted) { return element.id < wanted; });
  return found != elements.end() && found->id == id
             ? std::make_optional(static_cast<std::size_t>(found - elements.begin()))
             : std::nullopt;
}

// Each throws ToolError (kInputError) that names file, item and member of what is wrong.
CocoTruth read_coco_truth(const std::string& path);
std::vector<CocoResult> read_coco_results(const std::string& path);

// The truth of these classes alone, each given by its id or its name. Throws ToolError (kUsageError)
// for one that the truth does not have.
CocoTruth restricted_to(const CocoTruth& truth, const std::vector<std::string>& classes);

// The results of the truth's classes, in their order. Throws ToolError (kInputError) for a picture
// that the truth does not have; path names the results.
std::vector<ResultBox> known_results(const CocoTruth& truth, const std::vector<CocoResult>& results,
                                     const std::string& path);

// What is usually a mistake in the files and would falsify the metrics unnoticed: ids that are shifted,
// corners in place of sizes, boxes that count for nothing. One finding per kind and file. In coco_lint.cpp.
std::vector<LintFinding> lint_coco(const CocoTruth& truth, const std::string& truth_path,
                                   const std::vector<CocoResult>& results,
                                   const std::string& result_path);

// Of these the ids alone. In coco_shift_lint.cpp.
void lint_shifted_ids(const CocoTruth& truth, const std::string& truth_path,
                      const std::vector<CocoResult>& results, const std::string& result_path,
                      std::vector<LintFinding>* findings);

// ---- The metrics (coco_metrics.cpp) -------------------------------------------------------------

// The twelve metrics of T.-Y. Lin, M. Maire, S. Belongie et al., "Microsoft COCO: Common Objects in
// Context", European Conference on Computer Vision, 2014, as its evaluation server computes them:
// precision at 101 recall levels with the envelope of M. Everingham et al., "The PASCAL Visual
// Object Classes (VOC) Challenge", International Journal of Computer Vision 88, 2010, averaged over
// the thresholds of overlap .50, .55, ... .95 and the classes.

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

// What a threshold of the score keeps, at overlap .50.
struct ScorePoint {
  std::optional<double> precision;  // empty where nothing is kept
  double recall = 0;
  double f1 = 0;  // harmonic mean of both
};

constexpr std::size_t kScoreThresholds = 101;  // 0.00, 0.01, ... 1.00

struct ScoreCurve {
  struct Best {
    double threshold = 0;  // with as few decimals as keep the same detections
    ScorePoint at;
  };
  std::array<ScorePoint, kScoreThresholds> points;
  std::optional<Best> best;  // the highest of those with the best F1; empty where nothing is found
};

// A detection that counts.
struct ScoredHit {
  double score = 0;
  bool hit = false;
};

double score_threshold(std::size_t i);

// A detection is kept when its score is the threshold or more, as by the library. Requires: truths is above 0.
// In coco_scores.cpp.
ScoreCurve score_curve(std::vector<ScoredHit> detections, std::size_t truths);

struct ClassMetrics {
  CocoCategory category;
  std::size_t truths = 0;   // ignored ones left out
  std::size_t ignored = 0;  // truth boxes
  std::size_t detections = 0;
  std::vector<Metric> values;  // of the names of CocoMetrics::summary; undefined without truth
  std::optional<PrecisionCurve>
      precision50;                   // at each recall level, overlap .50; empty without truth
  std::optional<ScoreCurve> scores;  // empty without truth
};

// The class's value of that name. Requires: there is one.
const std::optional<double>& value_of(const ClassMetrics& metrics, const std::string& name);

struct CocoMetrics {
  std::vector<Metric> summary;  // AP, AP50, AP75, APs, APm, APl, AR1, AR10, AR100, ARs, ARm, ARl
  std::vector<ClassMetrics> classes;
  std::optional<PrecisionCurve> precision50;  // mean over the classes that have truth
  std::optional<ScoreCurve> scores;           // of the boxes of these classes together
};

// classes: see boxes_by_class.
CocoMetrics coco_metrics(const CocoTruth& truth,
                         const std::vector<std::vector<PictureBoxes>>& classes);

// The summary, then AP:NAME, AP50:NAME and so on of every class.
std::vector<Metric> all_metrics(const CocoMetrics& metrics);

// Their names, which do not depend on results.
std::vector<std::string> coco_metric_names(const CocoTruth& truth);

// ---- The errors (coco_matching.cpp) -------------------------------------------------------------

constexpr double kErrorOverlap = 0.5;  // from which a detection has found a truth box

enum class Fate {
  kFound,   // truth box with a detection of its class
  kMissed,  // truth box without
  kHit,     // detection of a truth box
  kFalse    // detection of nothing, of another class, or the second of the same
};

// Ignored truth boxes and the detections of them are left out.
struct JudgedBox {
  Box box;
  std::size_t category = 0;
  double score = 0;  // of a detection
  Fate fate = Fate::kFound;
};

struct PictureErrors {
  std::size_t picture = 0;
  std::vector<JudgedBox> boxes;
  std::size_t hits = 0;
  std::size_t misses = 0;
  std::size_t false_boxes = 0;
};

// One element per picture of the truth. Detections below least_score are left out; matching is that
// of the metrics, per class.
std::vector<PictureErrors> picture_errors(const CocoTruth& truth,
                                          const std::vector<std::vector<PictureBoxes>>& classes,
                                          double least_score);

// Those with the most misses and false boxes, as many as count; none without any. Equal ones by id.
std::vector<PictureErrors> worst_pictures(const std::vector<PictureErrors>& pictures,
                                          std::size_t count);

// How often a truth box of one class (first) was detected as another (second). Class indices; in
// first the number of classes stands for nothing being there, in second for nothing being detected.
using ConfusionCounts = std::map<std::pair<std::size_t, std::size_t>, std::size_t>;

// In each picture the pair of truth box and detection with the largest overlap is taken first,
// whatever the classes, then the next of boxes that are still free; at equal overlap a pair of one
// class goes first, then the higher score. Free detections that overlap an ignored truth box are
// left out.
ConfusionCounts confusion_counts(const CocoTruth& truth, const std::vector<ResultBox>& results,
                                 double least_score);

// Throws ToolError (kInputError) for an input whose frames cannot be drawn on. In coco_worst_pictures.cpp.
void require_pictures(const std::string& input);

// Writes worst_01_image_139.png and so on into folder, which is made. input: the video, picture or
// folder that the results were made from; its frames have the image ids that olvex-det run gives
// them. Throws ToolError (kInputError) when it cannot be read, or lacks one of the pictures.
// Requires: require_pictures passed. In coco_worst_pictures.cpp.
void draw_worst_pictures(const CocoTruth& truth, const std::vector<PictureErrors>& worst,
                         const std::string& input, const std::string& folder);

// ---- The report (coco_report.cpp) ---------------------------------------------------------------

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
// schema/eval_coco.schema.json defines it.
std::string coco_report_json(const CocoReport& report, const std::vector<MetricMinimum>& minimums);

// One curve per class that has truth, and their mean, at overlap .50, with a legend of AP50s. In
// coco_plot.cpp.
std::string precision_recall_svg(const CocoMetrics& metrics);

// Precision, recall and F1 over the threshold of the score, side by side, of each class that has truth and of all
// together, with the best thresholds. In coco_plot.cpp.
std::string score_curves_svg(const CocoMetrics& metrics);

// The classes that the confusion has, then the number of classes for none. In coco_report.cpp.
std::set<std::size_t> shown_in_confusion(const CocoReport& report);

// In coco_confusion_plot.cpp.
std::string confusion_svg(const CocoReport& report);

}  // namespace olvex_tools

#endif  // TOOLS_EVAL_COCO_COCO_H
