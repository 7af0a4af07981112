// SPDX-License-Identifier: Apache-2.0
// coco_matching.cpp - greedy matching by descending score; and at one overlap within each class for the
// errors of a picture, across classes for the confusion. Declared in coco.h.
#include <algorithm>
#include <map>
#include <tuple>

#include "tools/eval/coco/coco.h"

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

// ---- Errors and confusion -----------------------------------------------------------------------

namespace {

std::vector<TruthRole> roles_of(const std::vector<TruthBox>& truths) {
  std::vector<TruthRole> roles;
  roles.reserve(truths.size());
  for (const TruthBox& truth : truths) {
    roles.push_back({truth.ignored, truth.crowd});
  }
  return roles;
}

// Detections come by descending score.
std::size_t count_from_score(const std::vector<ResultBox>& detections, double least_score) {
  const auto end = std::find_if(detections.begin(), detections.end(),
                                [&](const ResultBox& box) { return box.score < least_score; });
  return static_cast<std::size_t>(end - detections.begin());
}

void add_class(const PictureBoxes& boxes, double least_score, PictureErrors* errors) {
  const Overlaps overlaps(boxes, count_from_score(boxes.detections, least_score));
  const auto matches = match_greedily(overlaps, roles_of(boxes.truths), kErrorOverlap);
  std::vector<bool> found(boxes.truths.size(), false);
  for (std::size_t i = 0; i < matches.size(); ++i) {
    const ResultBox& detection = boxes.detections[i];
    if (matches[i]) {
      found[*matches[i]] = true;
      if (boxes.truths[*matches[i]].ignored) {
        continue;
      }
    }
    ++(matches[i] ? errors->hits : errors->false_boxes);
    errors->boxes.push_back({detection.box, detection.category, detection.score,
                             matches[i] ? Fate::kHit : Fate::kFalse});
  }
  for (std::size_t i = 0; i < boxes.truths.size(); ++i) {
    const TruthBox& truth = boxes.truths[i];
    if (!truth.ignored) {
      errors->misses += found[i] ? 0u : 1u;
      errors->boxes.push_back(
          {truth.box, truth.category, 0, found[i] ? Fate::kFound : Fate::kMissed});
    }
  }
}

// The boxes of all classes in one picture.
struct MixedBoxes {
  std::vector<TruthBox> truths;
  std::vector<ResultBox> detections;
};

std::vector<MixedBoxes> boxes_by_picture(const CocoTruth& truth,
                                         const std::vector<ResultBox>& results,
                                         double least_score) {
  std::vector<MixedBoxes> pictures(truth.pictures.size());
  for (const TruthBox& box : truth.boxes) {
    pictures[box.picture].truths.push_back(box);
  }
  for (const ResultBox& box : results) {
    if (box.score >= least_score) {
      pictures[box.picture].detections.push_back(box);
    }
  }
  return pictures;
}

struct Pair {
  std::size_t truth;
  std::size_t detection;
  double overlap;
  bool same_class;
  double score;
};

std::vector<Pair> pairs_by_overlap(const MixedBoxes& boxes) {
  std::vector<Pair> pairs;
  for (std::size_t t = 0; t < boxes.truths.size(); ++t) {
    const TruthBox& truth = boxes.truths[t];
    for (std::size_t d = 0; d < boxes.detections.size() && !truth.ignored; ++d) {
      const ResultBox& detection = boxes.detections[d];
      const double value = overlap(detection.box, truth.box, false);
      if (value >= kErrorOverlap) {
        pairs.push_back({t, d, value, truth.category == detection.category, detection.score});
      }
    }
  }
  std::stable_sort(pairs.begin(), pairs.end(), [](const Pair& left, const Pair& right) {
    return std::tie(left.overlap, left.same_class, left.score) >
           std::tie(right.overlap, right.same_class, right.score);
  });
  return pairs;
}

bool overlaps_ignored(const MixedBoxes& boxes, const Box& detection) {
  return std::any_of(boxes.truths.begin(), boxes.truths.end(), [&](const TruthBox& truth) {
    return truth.ignored && overlap(detection, truth.box, truth.crowd) >= kErrorOverlap;
  });
}

void add_confusion(const MixedBoxes& boxes, std::size_t no_class, ConfusionCounts* counts) {
  std::vector<bool> found(boxes.truths.size(), false);
  std::vector<bool> used(boxes.detections.size(), false);
  for (const Pair& pair : pairs_by_overlap(boxes)) {
    if (!found[pair.truth] && !used[pair.detection]) {
      found[pair.truth] = true;
      used[pair.detection] = true;
      ++(*counts)[{boxes.truths[pair.truth].category, boxes.detections[pair.detection].category}];
    }
  }
  for (std::size_t i = 0; i < found.size(); ++i) {
    if (!found[i] && !boxes.truths[i].ignored) {
      ++(*counts)[{boxes.truths[i].category, no_class}];
    }
  }
  for (std::size_t i = 0; i < used.size(); ++i) {
    if (!used[i] && !overlaps_ignored(boxes, boxes.detections[i].box)) {
      ++(*counts)[{no_class, boxes.detections[i].category}];
    }
  }
}

}  // namespace

std::vector<PictureErrors> picture_errors(const CocoTruth& truth,
                                          const std::vector<std::vector<PictureBoxes>>& classes,
                                          double least_score) {
  std::vector<PictureErrors> pictures(truth.pictures.size());
  for (std::size_t i = 0; i < pictures.size(); ++i) {
    pictures[i].picture = i;
  }
  for (const std::vector<PictureBoxes>& one_class : classes) {
    for (const PictureBoxes& boxes : one_class) {
      add_class(boxes, least_score, &pictures[boxes.picture]);
    }
  }
  return pictures;
}

std::vector<PictureErrors> worst_pictures(const std::vector<PictureErrors>& pictures,
                                          std::size_t count) {
  const auto errors = [](const PictureErrors& picture) {
    return picture.misses + picture.false_boxes;
  };
  std::vector<std::size_t> order;
  for (std::size_t i = 0; i < pictures.size(); ++i) {
    if (errors(pictures[i]) > 0) {
      order.push_back(i);
    }
  }
  std::stable_sort(order.begin(), order.end(), [&](std::size_t left, std::size_t right) {
    return errors(pictures[left]) > errors(pictures[right]);
  });
  std::vector<PictureErrors> worst;
  for (std::size_t i = 0; i < order.size() && i < count; ++i) {
    worst.push_back(pictures[order[i]]);
  }
  return worst;
}

ConfusionCounts confusion_counts(const CocoTruth& truth, const std::vector<ResultBox>& results,
                                 double least_score) {
  ConfusionCounts counts;
  for (const MixedBoxes& boxes : boxes_by_picture(truth, results, least_score)) {
    add_confusion(boxes, truth.categories.size(), &counts);
  }
  return counts;
}

}  // namespace olvex_tools
