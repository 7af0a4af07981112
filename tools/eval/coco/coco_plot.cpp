// SPDX-License-Identifier: Apache-2.0
// coco_plot.cpp - what the curves of eval coco show. Declared in coco.h.
#include <algorithm>

#include "tools/common/curve_plot.h"
#include "tools/common/text.h"
#include "tools/eval/coco/coco.h"

namespace olvex_tools {

namespace {

PlotSeries precision_series(const std::string& name, const PrecisionCurve& precision, double mean) {
  PlotSeries series = {name, format("%.3f", mean), false, {{}}};
  for (std::size_t level = 0; level < kRecallLevels; ++level) {
    const double recall = static_cast<double>(level) / static_cast<double>(kRecallLevels - 1);
    series.curves.front().points.push_back({recall, precision[level]});
  }
  return series;
}

// What is drawn of a point in one of the panels.
using PointValue = std::optional<double> (*)(const ScorePoint& point);
constexpr PointValue kPointValues[] = {
    [](const ScorePoint& point) { return point.precision; },
    [](const ScorePoint& point) { return std::optional<double>(point.recall); },
    [](const ScorePoint& point) { return std::optional<double>(point.f1); }};

PlotSeries score_series(const std::string& name, const ScoreCurve& scores) {
  const auto& best = scores.best;
  PlotSeries series = {
      name, best ? format("%.15g / %.3f", best->threshold, best->at.f1) : "-", false, {}};
  for (const PointValue value_of_point : kPointValues) {
    Curve curve;
    for (std::size_t i = 0; i < kScoreThresholds; ++i) {
      if (const std::optional<double> value = value_of_point(scores.points[i])) {
        curve.points.push_back({score_threshold(i), *value});
      }
    }
    if (best) {
      curve.mark = {std::clamp(best->threshold, 0.0, 1.0), *value_of_point(best->at)};
    }
    series.curves.push_back(curve);
  }
  return series;
}

}  // namespace

std::string score_curves_svg(const CocoMetrics& metrics) {
  CurvePlot plot;
  plot.panels = {{"Precision", "Threshold of the score, at overlap 0.50", "Precision", {}},
                 {"Recall", "Threshold of the score, at overlap 0.50", "Recall", {}},
                 {"F1", "Threshold of the score, at overlap 0.50", "F1", {}}};
  plot.legend_heading = "best threshold / its F1";
  plot.empty_note = "no class has truth";
  for (const ClassMetrics& item : metrics.classes) {
    if (item.scores) {
      plot.series.push_back(score_series(item.category.name, *item.scores));
    }
  }
  if (metrics.scores && plot.series.size() > 1) {
    plot.series.push_back(score_series("all boxes", *metrics.scores));
    plot.series.back().emphasised = true;
  }
  if (metrics.scores && metrics.scores->best) {
    for (PlotPanel& panel : plot.panels) {
      panel.guide = std::clamp(metrics.scores->best->threshold, 0.0, 1.0);
    }
  }
  return curve_plot_svg(plot);
}

std::string precision_recall_svg(const CocoMetrics& metrics) {
  CurvePlot plot;
  plot.panels = {{"Precision over recall at overlap 0.50", "Recall", "Precision", {}}};
  plot.legend_heading = "AP50";
  plot.empty_note = "no class has truth";
  for (const ClassMetrics& item : metrics.classes) {
    if (item.precision50) {
      plot.series.push_back(
          precision_series(item.category.name, *item.precision50, *value_of(item, "AP50")));
    }
  }
  if (metrics.precision50 && plot.series.size() > 1) {
    double sum = 0;
    for (const double precision : *metrics.precision50) {
      sum += precision;
    }
    plot.series.push_back(precision_series("mean of classes", *metrics.precision50,
                                           sum / static_cast<double>(kRecallLevels)));
    plot.series.back().emphasised = true;
  }
  return curve_plot_svg(plot);
}

}  // namespace olvex_tools
