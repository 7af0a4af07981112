// SPDX-License-Identifier: Apache-2.0
// curve_plot.cpp - the curves as SVG elements; all lengths are pixels. Declared in curve_plot.h.
#include "tools/common/curve_plot.h"

#include <algorithm>

#include "tools/common/evaluation.h"
#include "tools/common/text.h"

namespace olvex_tools {

namespace {

constexpr int kLoneSide = 480;  // of the square that curves lie in
constexpr int kSideOfMany = 380;
constexpr int kLeft = 72;
constexpr int kTop = 56;
constexpr int kBelow = 64;
constexpr int kLegendGap = 28;
constexpr int kLegendWidth = 230;
constexpr int kLegendWidthOfMany = 310;
constexpr int kLegendRow = 22;
constexpr int kGridSteps = 10;
constexpr std::size_t kNameMost = 22;  // letters that fit into the legend

// The colours of M. Okabe and K. Ito, "Color Universal Design", 2008, that stand out on white:
// readers with any kind of colour vision tell them apart.
constexpr const char* kColours[] = {"#0072b2", "#d55e00", "#009e73",
                                    "#cc79a7", "#e69f00", "#56b4e9"};
constexpr std::size_t kColourCount = sizeof kColours / sizeof kColours[0];
// When the colours are used up, they come again with another dash.
constexpr const char* kDashes[] = {"", "7 4", "2 3", "9 3 2 3"};
constexpr std::size_t kDashCount = sizeof kDashes / sizeof kDashes[0];

std::string number(int value) {
  return std::to_string(value);
}

// Attributes of the lines of series n.
std::string stroke_of(const PlotSeries& series, std::size_t n) {
  if (series.emphasised) {
    return "stroke=\"#1a1a1a\" stroke-width=\"3\"";
  }
  const std::string dash = kDashes[n / kColourCount % kDashCount];
  return "stroke=\"" + std::string(kColours[n % kColourCount]) + "\" stroke-width=\"1.8\"" +
         (dash.empty() ? "" : " stroke-dasharray=\"" + dash + "\"");
}

std::string text_at(const std::string& x, const std::string& y, const std::string& attributes,
                    const std::string& text) {
  return svg_element("text", "x=\"" + x + "\" y=\"" + y + "\" text-anchor=" + attributes, text);
}

// One square with its grid and curves.
class PanelDrawing {
 public:
  PanelDrawing(int left, int side) : left_(left), side_(side) {}

  std::string draw(const CurvePlot& plot, std::size_t panel) const {
    std::string svg = grid() + titles(plot.panels[panel]);
    if (plot.panels[panel].guide) {
      svg += guide(*plot.panels[panel].guide);
    }
    for (std::size_t i = 0; i < plot.series.size(); ++i) {
      svg += curve(plot.series[i].curves[panel], stroke_of(plot.series[i], i));
    }
    return svg;
  }

 private:
  std::string x_of(double share) const { return format("%.1f", left_ + share * side_); }
  std::string y_of(double share) const { return format("%.1f", kTop + (1 - share) * side_); }

  std::string grid_lines(double share, const std::string& colour) const {
    return svg_element("path", "d=\"M" + x_of(share) + " " + y_of(0) + "V" + y_of(1) + "M" +
                                   x_of(0) + " " + y_of(share) + "H" + x_of(1) + "\" stroke=\"" +
                                   colour + "\"");
  }

  std::string grid() const {
    constexpr double kBaseline = 4;  // below the middle of a figure
    std::string svg;
    for (int i = 0; i <= kGridSteps; ++i) {
      const double share = static_cast<double>(i) / kGridSteps;
      const std::string text = format("%.1f", share);
      const std::string y = format("%.1f", kTop + (1 - share) * side_ + kBaseline);
      svg += grid_lines(share, i == 0 ? "#404040" : "#e2e2e2");
      svg += text_at(x_of(share), number(kTop + side_ + 20), "\"middle\"", text);
      svg += text_at(number(left_ - 10), y, "\"end\"", text);
    }
    return svg;
  }

  std::string titles(const PlotPanel& panel) const {
    const std::string middle_x = number(left_ + side_ / 2);
    const std::string middle_y = number(kTop + side_ / 2);
    const std::string turned_x = number(left_ - 50);
    return text_at(middle_x, "30", "\"middle\" font-size=\"17\" font-weight=\"bold\"",
                   panel.title) +
           text_at(middle_x, number(kTop + side_ + 46), "\"middle\" font-size=\"14\"",
                   panel.x_title) +
           text_at(turned_x, middle_y,
                   "\"middle\" font-size=\"14\" transform=\"rotate(-90 " + turned_x + " " +
                       middle_y + ")\"",
                   panel.y_title);
  }

  std::string guide(double x) const {
    return svg_element("path", "d=\"M" + x_of(x) + " " + y_of(0) + "V" + y_of(1) +
                                   "\" stroke=\"#1a1a1a\" stroke-dasharray=\"4 3\"");
  }

  std::string curve(const Curve& curve, const std::string& stroke) const {
    const std::string points = join(curve.points, " ", [this](const CurvePoint& point) {
      return x_of(point.x) + "," + y_of(point.y);
    });
    std::string svg = svg_element("polyline", "fill=\"none\" stroke-linejoin=\"round\" " + stroke +
                                                  " points=\"" + points + "\"");
    if (curve.mark) {
      svg +=
          svg_element("circle", "cx=\"" + x_of(curve.mark->x) + "\" cy=\"" + y_of(curve.mark->y) +
                                    "\" r=\"4\" fill=\"#ffffff\" " + stroke);
    }
    return svg;
  }

  int left_;
  int side_;
};

std::string legend(const CurvePlot& plot, int left, int right) {
  std::string svg = text_at(number(right), number(kTop + 4), "\"end\"", plot.legend_heading);
  int y = kTop;
  for (std::size_t i = 0; i < plot.series.size(); ++i) {
    const PlotSeries& series = plot.series[i];
    y += kLegendRow;
    svg += svg_element("path",
                       "d=\"M" + number(left) + " " + number(y) + "h30\" " + stroke_of(series, i));
    svg += text_at(number(left + 38), number(y + 4), "\"start\"",
                   xml_text(shortened(series.name, kNameMost, "…")));
    svg += text_at(number(right), number(y + 4), "\"end\"", series.value);
  }
  if (plot.series.empty()) {
    svg += text_at(number(left), number(y + kLegendRow), "\"start\"", plot.empty_note);
  }
  return svg;
}

}  // namespace

std::string curve_plot_svg(const CurvePlot& plot) {
  const bool is_lone = plot.panels.size() == 1;
  const int side = is_lone ? kLoneSide : kSideOfMany;
  std::string svg;
  int end = 0;
  for (std::size_t panel = 0; panel < plot.panels.size(); ++panel) {
    svg += PanelDrawing(end + kLeft, side).draw(plot, panel);
    end += kLeft + side;
  }
  const int legend_left = end + kLegendGap;
  const int legend_right = legend_left + (is_lone ? kLegendWidth : kLegendWidthOfMany);
  const int rows = static_cast<int>(std::min<std::size_t>(plot.series.size() + 2, 1000000));
  const int height = kTop + std::max(side, rows * kLegendRow) + kBelow;
  return svg_document(legend_right + 24, height, 12, svg + legend(plot, legend_left, legend_right));
}

}  // namespace olvex_tools
