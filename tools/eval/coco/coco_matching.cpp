// coco_matching.cpp - greedy matching by descending score. Declared in coco.h.
#include "tools/eval/coco/coco.h"

#include <algorithm>
#include <map>

namespace olvex_tools {

namespace {

// Among truth boxes that are ignored, or among those that are not: the best free one.
std::optional<std::size_t> best_free(const Overlaps& overlaps, std::size_t detection,
                                     const std::vector<TruthRole>& roles,
                                     const std::vector<bool>& taken, bool ignored,
                                     double threshold) {
  std::optional<std::size_t> best;
  double best_overlap = threshold;
  for (std::size_t truth = 0; truth < overlaps.truths(); ++truth) {
    const bool free = !taken[truth] || roles[truth].crowd;
    if (!free || roles[truth].ignored != ignored || overlaps.at(detection, truth) < best_overlap) {
      continue;
    }
    best = truth;
    best_overlap = overlaps.at(detection, truth);
  }
  return best;
}

}  // namespace

std::vector<std::vector<PictureBoxes>> boxes_by_class(const CocoTruth& truth,
                                                      const std::vector<ResultBox>& results) {
  std::vector<std::map<std::size_t, PictureBoxes>> cells(truth.categories.size());
  for (const TruthBox& box : truth.boxes) {
    cells[box.category][box.picture].truths.push_back(box);
  }
  for (const ResultBox& box : results) {
    cells[box.category][box.picture].detections.push_back(box);
  }
  std::vector<std::vector<PictureBoxes>> classes(cells.size());
  for (std::size_t category = 0; category < cells.size(); ++category) {
    for (auto& [picture, boxes] : cells[category]) {
      boxes.picture = picture;
      std::stable_sort(
          boxes.detections.begin(), boxes.detections.end(),
          [](const ResultBox& left, const ResultBox& right) { return left.score > right.score; });
      classes[category].push_back(std::move(boxes));
    }
  }
  return classes;
}

Overlaps::Overlaps(const PictureBoxes& boxes, std::size_t detections_most)
    : detections_(std::min(boxes.detections.size(), detections_most)),
      truths_(boxes.truths.size()) {
  values_.reserve(detections_ * truths_);
  for (std::size_t i = 0; i < detections_; ++i) {
    for (const TruthBox& truth : boxes.truths) {
      values_.push_back(overlap(boxes.detections[i].box, truth.box, truth.crowd));
    }
  }
}

std::vector<std::optional<std::size_t>> match_greedily(const Overlaps& overlaps,
                                                       const std::vector<TruthRole>& roles,
                                                       double threshold) {
  std::vector<std::optional<std::size_t>> matches(overlaps.detections());
  std::vector<bool> taken(overlaps.truths(), false);
  for (std::size_t detection = 0; detection < matches.size(); ++detection) {
    std::optional<std::size_t>& match = matches[detection];
    match = best_free(overlaps, detection, roles, taken, false, threshold);
    if (!match) {
      match = best_free(overlaps, detection, roles, taken, true, threshold);
    }
    if (match) {
      taken[*match] = true;
    }
  }
  return matches;
}

}  // namespace olvex_tools
