// SPDX-License-Identifier: Apache-2.0
// coco_metrics.cpp - from matches to curves, from curves to means.
#include "tools/eval/coco/coco.h"

#include <algorithm>
#include <bitset>
#include <utility>

namespace olvex_tools {

namespace {

constexpr std::size_t kThresholds = 10;  // of overlap

// Square pixels, both ends included.
struct AreaRange {
  double least;
  double most;
};

constexpr double kSmallSide = 32;
constexpr double kMediumSide = 96;
constexpr double kLargestArea = 1e10;
constexpr AreaRange kAreas[] = {{0, kLargestArea},
                                {0, kSmallSide* kSmallSide},
                                {kSmallSide * kSmallSide, kMediumSide* kMediumSide},
                                {kMediumSide * kMediumSide, kLargestArea}};
enum Area : std::size_t { kAny, kSmall, kMedium, kLarge, kAreaCount };

// One metric of the summary: the mean over classes, thresholds and, of precision, recall levels.
struct SummaryRow {
  const char* name;
  bool is_recall;
  Area area;
  std::size_t first_threshold;
  std::size_t last_threshold;
  std::size_t limit;  // detections per picture and class
};

constexpr std::size_t kLast = kThresholds - 1;
constexpr std::size_t kThreshold75 = 5;
constexpr SummaryRow kSummary[] = {
    {"AP", false, kAny, 0, kLast, kDetectionsCounted},
    {"AP50", false, kAny, 0, 0, kDetectionsCounted},
    {"AP75", false, kAny, kThreshold75, kThreshold75, kDetectionsCounted},
    {"APs", false, kSmall, 0, kLast, kDetectionsCounted},
    {"APm", false, kMedium, 0, kLast, kDetectionsCounted},
    {"APl", false, kLarge, 0, kLast, kDetectionsCounted},
    {"AR1", true, kAny, 0, kLast, 1},
    {"AR10", true, kAny, 0, kLast, 10},
    {"AR100", true, kAny, 0, kLast, kDetectionsCounted},
    {"ARs", true, kSmall, 0, kLast, kDetectionsCounted},
    {"ARm", true, kMedium, 0, kLast, kDetectionsCounted},
    {"ARl", true, kLarge, 0, kLast, kDetectionsCounted}};
constexpr std::size_t kSummaryRows = sizeof kSummary / sizeof kSummary[0];
constexpr std::size_t kRowAp50 = 1;

// Thresholds and recall levels are computed as start + i * step, rounding included: the published
// evaluation does so, and whether 7 of 20 reach the level 0.35 depends on the last bit.
double overlap_threshold(std::size_t i) {
  constexpr double kFirst = 0.5;
  constexpr double kEnd = 0.95;
  const double step = (kEnd - kFirst) / static_cast<double>(kThresholds - 1);
  return i + 1 == kThresholds ? kEnd : static_cast<double>(i) * step + kFirst;
}

double recall_level(std::size_t i) {
  constexpr double kStep = 1.0 / (kRecallLevels - 1);
  return i + 1 == kRecallLevels ? 1.0 : static_cast<double>(i) * kStep;
}

bool lies_in(double area, const AreaRange& range) {
  return area >= range.least && area <= range.most;
}

// What became of one detection, per threshold of overlap.
struct Outcome {
  double score = 0;
  std::size_t rank = 0;              // in its picture, from 0
  std::bitset<kThresholds> hit;      // found a truth box
  std::bitset<kThresholds> ignored;  // counts neither way
};

// The outcomes of one class in one range of areas, by descending score.
struct ClassOutcomes {
  std::vector<Outcome> outcomes;
  std::size_t truths = 0;  // ignored ones left out
};

void add_outcomes(const PictureBoxes& boxes, const Overlaps& overlaps, const AreaRange& range,
                  ClassOutcomes* sum) {
  std::vector<TruthRole> roles;
  for (const TruthBox& truth : boxes.truths) {
    roles.push_back({truth.ignored || !lies_in(truth.area, range), truth.crowd});
    sum->truths += roles.back().ignored ? 0u : 1u;
  }
  const std::size_t first = sum->outcomes.size();
  for (std::size_t i = 0; i < overlaps.detections(); ++i) {
    Outcome outcome;
    outcome.score = boxes.detections[i].score;
    outcome.rank = i;
    sum->outcomes.push_back(outcome);
  }
  for (std::size_t threshold = 0; threshold < kThresholds; ++threshold) {
    const auto matches = match_greedily(overlaps, roles, overlap_threshold(threshold));
    for (std::size_t i = 0; i < matches.size(); ++i) {
      const Box& box = boxes.detections[i].box;
      Outcome& outcome = sum->outcomes[first + i];
      outcome.hit[threshold] = matches[i].has_value();
      outcome.ignored[threshold] =
          matches[i] ? roles[*matches[i]].ignored : !lies_in(box.width * box.height, range);
    }
  }
}

ClassOutcomes outcomes_of(const std::vector<PictureBoxes>& pictures,
                          const std::vector<Overlaps>& overlaps, const AreaRange& range) {
  ClassOutcomes sum;
  for (std::size_t i = 0; i < pictures.size(); ++i) {
    add_outcomes(pictures[i], overlaps[i], range, &sum);
  }
  std::stable_sort(
      sum.outcomes.begin(), sum.outcomes.end(),
      [](const Outcome& left, const Outcome& right) { return left.score > right.score; });
  return sum;
}

struct Curve {
  double recall = 0;  // of all detections together
  PrecisionCurve precision = {};
};

// Precision at each recall level: the largest that is reached at that recall or beyond.
PrecisionCurve envelope(std::vector<double> precisions, const std::vector<double>& recalls) {
  for (std::size_t i = precisions.size(); i-- > 1;) {
    precisions[i - 1] = std::max(precisions[i - 1], precisions[i]);
  }
  PrecisionCurve curve = {};
  for (std::size_t level = 0; level < kRecallLevels; ++level) {
    const auto reached = std::lower_bound(recalls.begin(), recalls.end(), recall_level(level));
    if (reached != recalls.end()) {
      curve[level] = precisions[static_cast<std::size_t>(reached - recalls.begin())];
    }
  }
  return curve;
}

// Of the best detections of each picture, as many as limit.
Curve curve_of(const ClassOutcomes& sum, std::size_t threshold, std::size_t limit) {
  std::vector<double> precisions;
  std::vector<double> recalls;
  double hits = 0;
  double counted = 0;
  for (const Outcome& outcome : sum.outcomes) {
    if (outcome.rank >= limit) {
      continue;
    }
    if (!outcome.ignored[threshold]) {
      ++counted;
      hits += outcome.hit[threshold] ? 1 : 0;
    }
    // Ignored detections before the first that counts are no errors yet, nor anything else.
    precisions.push_back(counted == 0 ? 0 : hits / counted);
    recalls.push_back(hits / static_cast<double>(sum.truths));
  }
  Curve curve;
  curve.recall = recalls.empty() ? 0 : recalls.back();
  curve.precision = envelope(std::move(precisions), recalls);
  return curve;
}

// A mean of what is defined; undefined when nothing is.
class Mean {
 public:
  void add(double value) {
    sum_ += value;
    ++count_;
  }
  void add(const PrecisionCurve& curve) {
    for (const double value : curve) {
      add(value);
    }
  }
  std::optional<double> value() const {
    return count_ == 0 ? std::nullopt : std::make_optional(sum_ / static_cast<double>(count_));
  }

 private:
  double sum_ = 0;
  std::size_t count_ = 0;
};

using SummaryMeans = std::array<Mean, kSummaryRows>;

std::vector<Metric> summary_of(const SummaryMeans& means) {
  std::vector<Metric> summary;
  for (std::size_t i = 0; i < kSummaryRows; ++i) {
    summary.push_back({kSummary[i].name, means[i].value()});
  }
  return summary;
}

// The boxes of all classes that have truth.
struct PooledScores {
  std::vector<ScoredHit> detections;
  std::size_t truths = 0;
};

// The curve of the class, which is added to that of all. Requires: the class has truth.
ScoreCurve class_scores(const ClassOutcomes& sum, PooledScores* pooled) {
  std::vector<ScoredHit> detections;
  for (const Outcome& outcome : sum.outcomes) {
    if (!outcome.ignored[0]) {
      detections.push_back({outcome.score, outcome.hit[0]});
    }
  }
  pooled->detections.insert(pooled->detections.end(), detections.begin(), detections.end());
  pooled->truths += sum.truths;
  return score_curve(std::move(detections), sum.truths);
}

// Adds the class to the means and the scores of all.
ClassMetrics class_metrics(const CocoCategory& category, const std::vector<PictureBoxes>& pictures,
                           SummaryMeans* means, PooledScores* pooled) {
  ClassMetrics metrics;
  metrics.category = category;
  std::vector<Overlaps> overlaps;
  for (const PictureBoxes& boxes : pictures) {
    overlaps.emplace_back(boxes, kDetectionsCounted);
    metrics.detections += boxes.detections.size();
    for (const TruthBox& truth : boxes.truths) {
      ++(truth.ignored ? metrics.ignored : metrics.truths);
    }
  }
  std::array<ClassOutcomes, kAreaCount> outcomes;
  for (std::size_t area = 0; area < kAreaCount; ++area) {
    outcomes[area] = outcomes_of(pictures, overlaps, kAreas[area]);
  }
  SummaryMeans own;
  for (std::size_t i = 0; i < kSummaryRows; ++i) {
    const SummaryRow& row = kSummary[i];
    const ClassOutcomes& sum = outcomes[row.area];
    for (std::size_t t = row.first_threshold; t <= row.last_threshold && sum.truths > 0; ++t) {
      const Curve curve = curve_of(sum, t, row.limit);
      for (Mean* const mean : {&own[i], &(*means)[i]}) {
        row.is_recall ? mean->add(curve.recall) : mean->add(curve.precision);
      }
      if (i == kRowAp50) {
        metrics.precision50 = curve.precision;
      }
    }
  }
  metrics.values = summary_of(own);
  if (outcomes[kAny].truths > 0) {
    metrics.scores = class_scores(outcomes[kAny], pooled);
  }
  return metrics;
}

std::optional<PrecisionCurve> mean_precision50(const std::vector<ClassMetrics>& classes) {
  PrecisionCurve curve = {};
  for (std::size_t level = 0; level < kRecallLevels; ++level) {
    Mean mean;
    for (const ClassMetrics& metrics : classes) {
      if (metrics.precision50) {
        mean.add((*metrics.precision50)[level]);
      }
    }
    if (!mean.value()) {
      return std::nullopt;
    }
    curve[level] = *mean.value();
  }
  return curve;
}

}  // namespace

CocoMetrics coco_metrics(const CocoTruth& truth,
                         const std::vector<std::vector<PictureBoxes>>& classes) {
  CocoMetrics metrics;
  SummaryMeans means;
  PooledScores pooled;
  for (std::size_t category = 0; category < classes.size(); ++category) {
    metrics.classes.push_back(
        class_metrics(truth.categories[category], classes[category], &means, &pooled));
  }
  metrics.summary = summary_of(means);
  if (pooled.truths > 0) {
    metrics.scores = score_curve(std::move(pooled.detections), pooled.truths);
  }
  metrics.precision50 = mean_precision50(metrics.classes);
  return metrics;
}

const std::optional<double>& value_of(const ClassMetrics& metrics, const std::string& name) {
  return std::find_if(metrics.values.begin(), metrics.values.end(),
                      [&](const Metric& metric) { return metric.name == name; })
      ->value;
}

std::vector<Metric> all_metrics(const CocoMetrics& metrics) {
  std::vector<Metric> all = metrics.summary;
  for (const ClassMetrics& item : metrics.classes) {
    for (const Metric& metric : item.values) {
      all.push_back({metric.name + ":" + item.category.name, metric.value});
    }
  }
  return all;
}

std::vector<std::string> coco_metric_names(const CocoTruth& truth) {
  std::vector<std::string> names;
  for (const SummaryRow& row : kSummary) {
    names.push_back(row.name);
  }
  for (const CocoCategory& category : truth.categories) {
    for (const SummaryRow& row : kSummary) {
      names.push_back(row.name + (":" + category.name));
    }
  }
  return names;
}

}  // namespace olvex_tools
