// SPDX-License-Identifier: Apache-2.0
// coco_scores.cpp - what each threshold of the score keeps, and the best one. Declared in coco.h.
#include <algorithm>
#include <cmath>
#include <limits>

#include "tools/eval/coco/coco.h"

namespace olvex_tools {

namespace {

ScorePoint point_of(std::size_t hits, std::size_t counted, std::size_t truths) {
  const auto number = [](std::size_t count) { return static_cast<double>(count); };
  ScorePoint point;
  if (counted > 0) {
    point.precision = number(hits) / number(counted);
  }
  point.recall = number(hits) / number(truths);
  point.f1 = 2 * number(hits) / number(counted + truths);
  return point;
}

// The number with the fewest decimals, two at least, that keeps the same detections as the lowest of their scores:
// above the next lower one. Where there is none, the results end there, and what is below was not measured.
double short_threshold(double lowest_kept, double highest_left) {
  if (std::isinf(highest_left)) {
    return lowest_kept;
  }
  constexpr int kFewestDigits = 2;
  constexpr int kMostDigits = 15;
  for (int digits = kFewestDigits; digits <= kMostDigits; ++digits) {
    const double unit = std::pow(10.0, digits);
    // The first where the score has no more decimals itself.
    for (const double units : {std::round(lowest_kept * unit), std::floor(lowest_kept * unit)}) {
      if (units / unit > highest_left && units / unit <= lowest_kept) {
        return units / unit;
      }
    }
  }
  return lowest_kept;
}

}  // namespace

double score_threshold(std::size_t i) {
  return static_cast<double>(i) / (kScoreThresholds - 1);
}

ScoreCurve score_curve(std::vector<ScoredHit> detections, std::size_t truths) {
  std::sort(detections.begin(), detections.end(),
            [](const ScoredHit& left, const ScoredHit& right) { return left.score > right.score; });
  ScoreCurve curve;
  std::size_t sampled = kScoreThresholds;  // thresholds from here on are done
  std::size_t hits = 0;
  for (std::size_t kept = 0; kept <= detections.size(); ++kept) {
    hits += kept > 0 && detections[kept - 1].hit ? 1 : 0;
    constexpr double kNone = -std::numeric_limits<double>::infinity();
    const double next = kept < detections.size() ? detections[kept].score : kNone;
    const ScorePoint point = point_of(hits, kept, truths);
    for (; sampled > 0 && score_threshold(sampled - 1) > next; --sampled) {
      curve.points[sampled - 1] = point;
    }
    const bool is_step = kept > 0 && detections[kept - 1].score > next;
    if (is_step && point.f1 > (curve.best ? curve.best->at.f1 : 0)) {
      curve.best = {short_threshold(detections[kept - 1].score, next), point};
    }
  }
  return curve;
}

}  // namespace olvex_tools
