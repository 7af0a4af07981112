// SPDX-License-Identifier: Apache-2.0
// coco_confusion_plot.cpp - the confusion as a matrix of coloured cells; all lengths are pixels. Declared in coco.h.
#include <algorithm>
#include <cmath>

#include "tools/common/evaluation.h"
#include "tools/common/text.h"
#include "tools/eval/coco/coco.h"

namespace olvex_tools {

namespace {

constexpr double kLeft = 190;
constexpr double kTop = 190;
constexpr double kRight = 130;  // the last column's name leans over it
constexpr double kBelow = 24;
constexpr double kNarrowest = 530;   // what the titles need
constexpr double kMatrixSide = 560;  // wanted
constexpr double kCellSmallest = 14;
constexpr double kCellLargest = 56;
constexpr double kDigitWidth = 7;
constexpr std::size_t kNameMost = 20;

struct Colour {
  double red;
  double green;
  double blue;
};
constexpr Colour kCorrect = {0, 114, 178};
constexpr Colour kWrong = {213, 94, 0};

// White for 0, the colour itself for 1. Small shares are raised: one error among hundreds is to be seen.
std::string tinted(const Colour& colour, double share) {
  const double strength = std::sqrt(share);
  const auto channel = [&](double full) { return 255 + (full - 255) * strength; };
  return format("#%02x%02x%02x", static_cast<int>(channel(colour.red)),
                static_cast<int>(channel(colour.green)), static_cast<int>(channel(colour.blue)));
}

class ConfusionMatrix {
 public:
  explicit ConfusionMatrix(const CocoReport& report)
      : report_(report), shown_(shown_in_confusion(report)) {
    cell_ =
        std::clamp(kMatrixSide / static_cast<double>(shown_.size()), kCellSmallest, kCellLargest);
  }

  std::string draw() {
    const double side = cell_ * static_cast<double>(shown_.size());
    draw_titles(side);
    double top = kTop;
    for (const std::size_t truth : shown_) {
      draw_row(truth, top);
      top += cell_;
    }
    return svg_document(std::max(kLeft + side + kRight, kNarrowest), kTop + side + kBelow, 12,
                        svg_);
  }

 private:
  std::string name_of(std::size_t category, const char* none) const {
    const std::vector<CocoCategory>& categories = report_.truth.categories;
    return xml_text(
        category < categories.size() ? shortened(categories[category].name, kNameMost, "…") : none);
  }

  std::size_t count_of(std::size_t truth, std::size_t result) const {
    const auto count = report_.confusion.find({truth, result});
    return count == report_.confusion.end() ? 0 : count->second;
  }

  void draw_text(double x, double y, const std::string& attributes, const std::string& text) {
    svg_ += svg_element("text", format("x=\"%.1f\" y=\"%.1f\" ", x, y) + attributes, text);
  }

  void draw_titles(double side) {
    draw_text(16, 28, "font-size=\"17\" font-weight=\"bold\"",
              "Confusion at overlap 0.5 and score " + format("%g", report_.error_score));
    draw_text(16, 48, "",
              "rows: truth, columns: results; blue right, orange wrong, by the share of the row");
    double x = kLeft + cell_ / 2 + 4;
    for (const std::size_t result : shown_) {
      const std::string turned = format("transform=\"rotate(-45 %.1f %.1f)\"", x, kTop - 8);
      draw_text(x, kTop - 8, turned, name_of(result, "missed"));
      x += cell_;
    }
    svg_ += svg_element("rect", format("x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" "
                                       "fill=\"none\" stroke=\"#404040\"",
                                       kLeft, kTop, side, side));
  }

  void draw_row(std::size_t truth, double top) {
    draw_text(kLeft - 10, top + cell_ / 2 + 4, "text-anchor=\"end\"", name_of(truth, "nothing"));
    std::size_t sum = 0;
    for (const std::size_t result : shown_) {
      sum += count_of(truth, result);
    }
    double left = kLeft;
    for (const std::size_t result : shown_) {
      draw_cell(truth, result, sum, left, top);
      left += cell_;
    }
  }

  void draw_cell(std::size_t truth, std::size_t result, std::size_t sum, double left, double top) {
    const std::size_t none = report_.truth.categories.size();
    const std::size_t count = count_of(truth, result);
    const double share = sum > 0 ? static_cast<double>(count) / static_cast<double>(sum) : 0;
    // The pair of nothing and missed does not exist.
    const std::string fill = truth == none && result == none
                                 ? "#e4e4e4"
                                 : tinted(truth == result ? kCorrect : kWrong, share);
    const std::string tooltip = name_of(truth, "nothing") + " as " + name_of(result, "missed") +
                                format(": %zu of %zu", count, sum);
    svg_ += svg_element("rect",
                        format("x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" fill=\"%s\" "
                               "stroke=\"#c8c8c8\"",
                               left, top, cell_, cell_, fill.c_str()),
                        "<title>" + tooltip + "</title>");
    const std::string text = std::to_string(count);
    constexpr double kDark = 0.35;
    if (count > 0 && static_cast<double>(text.size()) * kDigitWidth + 4 <= cell_) {
      draw_text(
          left + cell_ / 2, top + cell_ / 2 + 4,
          share > kDark ? "text-anchor=\"middle\" fill=\"#ffffff\"" : "text-anchor=\"middle\"",
          text);
    }
  }

  const CocoReport& report_;
  std::set<std::size_t> shown_;
  double cell_;
  std::string svg_;
};

}  // namespace

std::string confusion_svg(const CocoReport& report) {
  return ConfusionMatrix(report).draw();
}

}  // namespace olvex_tools
