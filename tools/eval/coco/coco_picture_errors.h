// coco_picture_errors.h - what went wrong in each picture at one score: hits, false boxes, misses;
// and which class was taken for which.
// coco_report.h prints both.
#ifndef TOOLS_EVAL_COCO_COCO_PICTURE_ERRORS_H
#define TOOLS_EVAL_COCO_COCO_PICTURE_ERRORS_H

#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tools/eval/coco/coco_data.h"
#include "tools/eval/coco/coco_matching.h"

namespace olvex_tools {

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

// Writes worst_01_image_139.png and so on into folder, which is made. input: the video, picture or
// folder that the results were made from; its frames have the image ids that olvex-det run gives
// them. Throws ToolError (kInputError) when it cannot be read, or lacks one of the pictures.
// In coco_worst_pictures.cpp.
void draw_worst_pictures(const CocoTruth& truth, const std::vector<PictureErrors>& worst,
                         const std::string& input, const std::string& folder);

}  // namespace olvex_tools

#endif  // TOOLS_EVAL_COCO_COCO_PICTURE_ERRORS_H
