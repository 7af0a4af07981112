// SPDX-License-Identifier: Apache-2.0
// mot_plot.cpp - HOTA and its parts at each overlap, as curves. Declared in mot.h.
#include "tools/common/curve_plot.h"
#include "tools/eval/mot/mot.h"

namespace olvex_tools {

std::string hota_curve_svg(const MotScores& scores) {
  CurvePlot plot;
  plot.panels = {{"HOTA and its parts over the overlap", "Overlap of a match", "Value", {}}};
  plot.legend_heading = "mean";
  plot.empty_note = "there is no truth";
  const std::vector<Metric> means = mot_metrics(scores);
  const auto curve = hota_curve(scores.hota);
  const std::size_t parts = scores.hota.truths > 0 ? hota_metrics({}).size() : 0;
  for (std::size_t i = 0; i < parts; ++i) {
    PlotSeries series = {means[i].name, metric_text(means[i].value), i == 0, {{}}};
    for (std::size_t t = 0; t < kHotaThresholds; ++t) {
      series.curves.front().points.push_back({hota_threshold(t), *hota_metrics(curve[t])[i].value});
    }
    plot.series.push_back(series);
  }
  return curve_plot_svg(plot);
}

}  // namespace olvex_tools
