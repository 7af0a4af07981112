// SPDX-License-Identifier: Apache-2.0
// coco_plot.cpp - what the curves of eval coco show. Declared in coco.h.
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

}  // namespace

std::string precision_recall_svg(const CocoMetrics& metrics) {
  CurvePlot plot;
  plot.panels = {{"Precision over recall at overlap 0.50", "Recall", "Precision", {}}};
  plot.legend_heading = "AP50";
  plot.empty_note = "no class has truth";
  for (const ClassMetrics& item : metrics.classes) {
    if (item.precision50) {
      plot.series.push_back(precision_series(item.category.name, *item.precision50, *item.ap50));
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
