// coco_metrics.cpp - from matches to curves, from curves to means.
#include "tools/eval/coco/coco.h"

#include <algorithm>
#include <bitset>
#include <cmath>
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
constexpr AreaRange kAnyArea = {0, kLargestArea};
constexpr AreaRange kSmall = {0, kSmallSide* kSmallSide};
constexpr AreaRange kMedium = {kSmallSide * kSmallSide, kMediumSide* kMediumSide};
constexpr AreaRange kLarge = {kMediumSide * kMediumSide, kLargestArea};

// Thresholds and recall levels are computed as start + i * step, rounding included: the published
// evaluation does so, and whether 7 of 20 reach the level 0.35 depends on the last bit.
double overlap_threshold(std::size_t i) {
  constexpr double kFirst = 0.5;
  constexpr double kLast = 0.95;
  const double step = (kLast - kFirst) / static_cast<double>(kThresholds - 1);
  return i + 1 == kThresholds ? kLast : static_cast<double>(i) * step + kFirst;
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

struct Means {
  Mean ap, ap50, ap75, ap_small, ap_medium, ap_large;
  Mean ar1, ar10, ar100, ar_small, ar_medium, ar_large;
  std::array<Mean, kRecallLevels> precision50;
};

void add_range(const ClassOutcomes& sum, Mean* precision, Mean* recall) {
  if (sum.truths == 0) {
    return;
  }
  for (std::size_t threshold = 0; threshold < kThresholds; ++threshold) {
    const Curve curve = curve_of(sum, threshold, kDetectionsCounted);
    precision->add(curve.precision);
    recall->add(curve.recall);
  }
}

// Everything that takes all areas; also the class's own metrics.
void add_any_area(const ClassOutcomes& sum, Means* means, ClassMetrics* metrics) {
  constexpr std::size_t kThreshold50 = 0;
  constexpr std::size_t kThreshold75 = 5;
  if (sum.truths == 0) {
    return;
  }
  Mean ap;
  Mean ap50;
  for (std::size_t threshold = 0; threshold < kThresholds; ++threshold) {
    const Curve curve = curve_of(sum, threshold, kDetectionsCounted);
    ap.add(curve.precision);
    means->ap.add(curve.precision);
    means->ar100.add(curve.recall);
    means->ar10.add(curve_of(sum, threshold, 10).recall);
    means->ar1.add(curve_of(sum, threshold, 1).recall);
    if (threshold == kThreshold50) {
      ap50.add(curve.precision);
      means->ap50.add(curve.precision);
      metrics->precision50 = curve.precision;
      for (std::size_t level = 0; level < kRecallLevels; ++level) {
        means->precision50[level].add(curve.precision[level]);
      }
    }
    if (threshold == kThreshold75) {
      means->ap75.add(curve.precision);
    }
  }
  metrics->ap = ap.value();
  metrics->ap50 = ap50.value();
}

ClassMetrics class_metrics(const CocoCategory& category, const std::vector<PictureBoxes>& pictures,
                           Means* means) {
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
  add_any_area(outcomes_of(pictures, overlaps, kAnyArea), means, &metrics);
  add_range(outcomes_of(pictures, overlaps, kSmall), &means->ap_small, &means->ar_small);
  add_range(outcomes_of(pictures, overlaps, kMedium), &means->ap_medium, &means->ar_medium);
  add_range(outcomes_of(pictures, overlaps, kLarge), &means->ap_large, &means->ar_large);
  return metrics;
}

std::vector<Metric> summary_of(const Means& means) {
  return {{"AP", means.ap.value()},         {"AP50", means.ap50.value()},
          {"AP75", means.ap75.value()},     {"APs", means.ap_small.value()},
          {"APm", means.ap_medium.value()}, {"APl", means.ap_large.value()},
          {"AR1", means.ar1.value()},       {"AR10", means.ar10.value()},
          {"AR100", means.ar100.value()},   {"ARs", means.ar_small.value()},
          {"ARm", means.ar_medium.value()}, {"ARl", means.ar_large.value()}};
}

std::optional<PrecisionCurve> mean_curve(const std::array<Mean, kRecallLevels>& means) {
  if (!means[0].value()) {
    return std::nullopt;
  }
  PrecisionCurve curve = {};
  for (std::size_t level = 0; level < kRecallLevels; ++level) {
    curve[level] = *means[level].value();
  }
  return curve;
}

}  // namespace

CocoMetrics coco_metrics(const CocoTruth& truth,
                         const std::vector<std::vector<PictureBoxes>>& classes) {
  CocoMetrics metrics;
  Means means;
  for (std::size_t category = 0; category < classes.size(); ++category) {
    metrics.classes.push_back(class_metrics(truth.categories[category], classes[category], &means));
  }
  metrics.summary = summary_of(means);
  metrics.precision50 = mean_curve(means.precision50);
  return metrics;
}

std::vector<Metric> all_metrics(const CocoMetrics& metrics) {
  std::vector<Metric> all = metrics.summary;
  for (const ClassMetrics& item : metrics.classes) {
    all.push_back({"AP:" + item.category.name, item.ap});
    all.push_back({"AP50:" + item.category.name, item.ap50});
  }
  return all;
}

std::vector<std::string> coco_metric_names(const CocoTruth& truth) {
  std::vector<std::string> names;
  for (const Metric& metric : summary_of(Means())) {
    names.push_back(metric.name);
  }
  for (const CocoCategory& category : truth.categories) {
    names.push_back("AP:" + category.name);
    names.push_back("AP50:" + category.name);
  }
  return names;
}

}  // namespace olvex_tools
