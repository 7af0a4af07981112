// coco_matching.h - overlap of boxes, and which detection finds which truth box.
// coco_metrics.h makes precision and recall of it, coco_picture_errors.h the errors of each picture.
//
// As published with: T.-Y. Lin, M. Maire, S. Belongie et al., "Microsoft COCO: Common Objects in
// Context", European Conference on Computer Vision, 2014, and its evaluation server.
#ifndef TOOLS_EVAL_COCO_COCO_MATCHING_H
#define TOOLS_EVAL_COCO_COCO_MATCHING_H

#include <cstddef>
#include <optional>
#include <vector>

#include "tools/eval/coco/coco_data.h"

namespace olvex_tools {

// The boxes of one class in one picture.
struct PictureBoxes {
  std::size_t picture = 0;            // index in CocoTruth::pictures
  std::vector<TruthBox> truths;       // in the order of the file
  std::vector<ResultBox> detections;  // by falling score, equal scores in the order of the file
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

}  // namespace olvex_tools

#endif  // TOOLS_EVAL_COCO_COCO_MATCHING_H
