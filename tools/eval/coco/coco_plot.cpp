// SPDX-License-Identifier: Apache-2.0
// coco_plot.cpp - the curves as SVG elements; all lengths are pixels. Declared in coco.h.
#include "tools/eval/coco/coco.h"

#include <algorithm>
#include <vector>

#include "tools/common/evaluation.h"
#include "tools/common/text.h"

namespace olvex_tools {

namespace {

constexpr int kSide = 480;  // of the square that the curves lie in
constexpr int kLeft = 72;
constexpr int kTop = 56;
constexpr int kBelow = 64;
constexpr int kLegendGap = 28;
constexpr int kLegendWidth = 230;
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

struct Series {
  std::string name;
  double ap50 = 0;
  const PrecisionCurve* curve = nullptr;
  std::string stroke;  // attributes of its line
};

std::string x_of(double recall) {
  return format("%.1f", kLeft + recall * kSide);
}

std::string y_of(double precision) {
  return format("%.1f", kTop + (1 - precision) * kSide);
}

std::string number(int value) {
  return std::to_string(value);
}

std::vector<Series> series_of(const CocoMetrics& metrics) {
  std::vector<Series> all;
  for (const ClassMetrics& item : metrics.classes) {
    if (!item.precision50) {
      continue;
    }
    const std::string dash = kDashes[all.size() / kColourCount % kDashCount];
    std::string stroke =
        "stroke=\"" + std::string(kColours[all.size() % kColourCount]) + "\" stroke-width=\"1.8\"";
    if (!dash.empty()) {
      stroke += " stroke-dasharray=\"" + dash + "\"";
    }
    all.push_back({item.category.name, *item.ap50, &*item.precision50, stroke});
  }
  if (metrics.precision50 && all.size() > 1) {
    double sum = 0;
    for (const double precision : *metrics.precision50) {
      sum += precision;
    }
    all.push_back({"mean of classes", sum / static_cast<double>(kRecallLevels),
                   &*metrics.precision50, "stroke=\"#1a1a1a\" stroke-width=\"3\""});
  }
  return all;
}

std::string text_at(const std::string& x, const std::string& y, const std::string& attributes,
                    const std::string& text) {
  return svg_element("text", "x=\"" + x + "\" y=\"" + y + "\" text-anchor=" + attributes, text);
}

std::string grid_lines(double share, const std::string& colour) {
  return svg_element("path", "d=\"M" + x_of(share) + " " + y_of(0) + "V" + y_of(1) + "M" + x_of(0) +
                                 " " + y_of(share) + "H" + x_of(1) + "\" stroke=\"" + colour +
                                 "\"");
}

std::string grid() {
  constexpr double kBaseline = 4;  // below the middle of a figure
  std::string svg;
  for (int i = 0; i <= kGridSteps; ++i) {
    const double share = static_cast<double>(i) / kGridSteps;
    const std::string text = format("%.1f", share);
    const std::string y = format("%.1f", kTop + (1 - share) * kSide + kBaseline);
    svg += grid_lines(share, i == 0 ? "#404040" : "#e2e2e2");
    svg += text_at(x_of(share), number(kTop + kSide + 20), "\"middle\"", text);
    svg += text_at(number(kLeft - 10), y, "\"end\"", text);
  }
  return svg;
}

std::string titles() {
  const std::string middle_x = number(kLeft + kSide / 2);
  const std::string middle_y = number(kTop + kSide / 2);
  return text_at(middle_x, "30", "\"middle\" font-size=\"17\" font-weight=\"bold\"",
                 "Precision over recall at overlap 0.50") +
         text_at(middle_x, number(kTop + kSide + 46), "\"middle\" font-size=\"14\"", "Recall") +
         text_at("22", middle_y,
                 "\"middle\" font-size=\"14\" transform=\"rotate(-90 22 " + middle_y + ")\"",
                 "Precision");
}

std::string curve(const Series& series) {
  std::string points;
  for (std::size_t level = 0; level < kRecallLevels; ++level) {
    const double recall = static_cast<double>(level) / static_cast<double>(kRecallLevels - 1);
    points += (level == 0 ? "" : " ") + x_of(recall) + "," + y_of((*series.curve)[level]);
  }
  return svg_element("polyline", "fill=\"none\" stroke-linejoin=\"round\" " + series.stroke +
                                     " points=\"" + points + "\"");
}

std::string legend(const std::vector<Series>& all) {
  const int left = kLeft + kSide + kLegendGap;
  const int right = left + kLegendWidth;
  std::string svg = text_at(number(right), number(kTop + 4), "\"end\"", "AP50");
  int y = kTop;
  for (const Series& series : all) {
    y += kLegendRow;
    svg += svg_element("path", "d=\"M" + number(left) + " " + number(y) + "h30\" " + series.stroke);
    svg += text_at(number(left + 38), number(y + 4), "\"start\"",
                   xml_text(shortened(series.name, kNameMost, "…")));
    svg += text_at(number(right), number(y + 4), "\"end\"", format("%.3f", series.ap50));
  }
  if (all.empty()) {
    svg += text_at(number(left), number(y + kLegendRow), "\"start\"", "no class has truth");
  }
  return svg;
}

}  // namespace

std::string precision_recall_svg(const CocoMetrics& metrics) {
  const std::vector<Series> all = series_of(metrics);
  const int width = kLeft + kSide + kLegendGap + kLegendWidth + 24;
  const int rows = static_cast<int>(std::min<std::size_t>(all.size() + 2, 1000000));
  const int height = kTop + std::max(kSide, rows * kLegendRow) + kBelow;
  std::string svg = grid() + titles();
  for (const Series& series : all) {
    svg += curve(series);
  }
  return svg_document(width, height, 12, svg + legend(all));
}

}  // namespace olvex_tools
