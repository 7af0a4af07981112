// SPDX-License-Identifier: Apache-2.0
// curve_plot.h - curves between 0 and 1 as an SVG picture: one square or several side by side, and a legend.
#ifndef TOOLS_COMMON_CURVE_PLOT_H
#define TOOLS_COMMON_CURVE_PLOT_H

#include <optional>
#include <string>
#include <vector>

namespace olvex_tools {

// Both from 0 to 1.
struct CurvePoint {
  double x = 0;
  double y = 0;
};

struct Curve {
  std::vector<CurvePoint> points;
  std::optional<CurvePoint> mark;  // a dot on it
};

// What is drawn in one colour.
struct PlotSeries {
  std::string name;
  std::string value;          // at the right of the legend
  bool emphasised = false;    // thick and black
  std::vector<Curve> curves;  // one per panel
};

struct PlotPanel {
  std::string title;
  std::string x_title;
  std::string y_title;
  std::optional<double> guide;  // x of an upright line
};

struct CurvePlot {
  std::vector<PlotPanel> panels;
  std::vector<PlotSeries> series;
  std::string legend_heading;  // above the values
  std::string empty_note;      // where there are no series
};

std::string curve_plot_svg(const CurvePlot& plot);

}  // namespace olvex_tools

#endif  // TOOLS_COMMON_CURVE_PLOT_H
