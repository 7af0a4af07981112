// SPDX-License-Identifier: Apache-2.0
// mot_timeline.cpp - the picture as SVG elements, one string each. Declared in mot.h.
#include "tools/eval/mot/mot.h"

#include <algorithm>
#include <cmath>

#include "tools/common/evaluation.h"
#include "tools/common/text.h"

namespace olvex_tools {

namespace {

// Pixels.
constexpr double kLabelsWidth = 130;
constexpr double kRightMargin = 40;
constexpr double kHeaderHeight = 70;
constexpr double kRowHeight = 28;
constexpr double kBarTop = 12;  // in a row; ids stand above the bars
constexpr double kBarHeight = 9;
constexpr double kDigitWidth = 5.5;
constexpr double kPlotNarrowest = 900;
constexpr double kPlotWidest = 12000;
constexpr double kFrameWidth = 2;  // wanted, within those
constexpr double kTickDistance = 60;
constexpr std::size_t kNameMost = 12;  // letters that fit beside an object's row

// Neighbouring ids get far apart hues: steps of the golden angle never come near each other soon.
std::string colour_of(long result_id) {
  constexpr double kGoldenAngle = 137.508;
  const double hue = std::fmod(static_cast<double>(result_id) * kGoldenAngle, 360);
  return format("hsl(%.0f,65%%,42%%)", hue);
}

// 1, 2 or 5 times a power of ten.
long tick_step(double frames_per_tick) {
  long step = 1;
  for (int i = 0; static_cast<double>(step) < frames_per_tick; ++i) {
    step = i % 3 == 1 ? step / 2 * 5 : step * 2;
  }
  return step;
}

class Timeline {
 public:
  Timeline(const ClassNames& names, const MotClip& clip,
           const std::vector<std::vector<FoundRun>>& runs)
      : names_(names), clip_(clip), runs_(runs) {
    if (!clip.frames.empty()) {
      frames_ = {clip.frames.front().number, clip.frames.back().number};
    }
    const double count = static_cast<double>(frames_.last - frames_.first + 1);
    plot_width_ = std::clamp(count * kFrameWidth, kPlotNarrowest, kPlotWidest);
    frame_width_ = plot_width_ / count;
  }

  std::string draw(const std::string& title) {
    const double width = kLabelsWidth + plot_width_ + kRightMargin;
    const double height =
        kHeaderHeight + kRowHeight * static_cast<double>(clip_.objects.size()) + 10;
    svg_ = svg_element("text", "x=\"8\" y=\"18\" font-size=\"13\"", xml_text(title));
    draw_legend();
    draw_ticks(height);
    for (std::size_t i = 0; i < clip_.objects.size(); ++i) {
      draw_object(clip_.objects[i], runs_[i], kHeaderHeight + kRowHeight * static_cast<double>(i));
    }
    return svg_document(width, height, 11, svg_);
  }

 private:
  double x_of(long frame) const {
    return kLabelsWidth + static_cast<double>(frame - frames_.first) * frame_width_;
  }

  void draw_text(double x, double y, const std::string& attributes, const std::string& text) {
    svg_ += svg_element("text", format("x=\"%.1f\" y=\"%.1f\"", x, y) + attributes, text);
  }

  void draw_line(double left, double right, double top, double bottom,
                 const std::string& attributes) {
    svg_ += svg_element("line", format("x1=\"%.1f\" x2=\"%.1f\" y1=\"%.1f\" y2=\"%.1f\" ", left,
                                       right, top, bottom) +
                                    attributes);
  }

  void draw_bar(double left, double right, double y, const std::string& colour,
                const std::string& tooltip) {
    svg_ += svg_element("rect",
                        format("x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" fill=\"%s\"",
                               left, y, right - left, kBarHeight, colour.c_str()),
                        "<title>" + tooltip + "</title>");
  }

  // A line across the beginning of a bar, on a triangle below it.
  void draw_switch(double x, double bar_top) {
    svg_ += svg_element(
        "path", format("d=\"M%.1f %.1fv%.1fl-4 7h8l-4 -7\" fill=\"#d00000\" stroke=\"#d00000\"", x,
                       bar_top - 1, kBarHeight + 2));
  }

  void draw_legend() {
    constexpr double kTop = 28;
    constexpr double kMiddle = kTop + kBarHeight / 2;
    constexpr double kTextLine = kTop + kBarHeight;
    draw_bar(8, 38, kTop, colour_of(1), "found");
    draw_text(44, kTextLine, "", "found, with the result's id");
    draw_line(200, 230, kMiddle, kMiddle, kMissedStroke);
    draw_text(236, kTextLine, "", "in the truth");
    draw_line(320, 350, kMiddle, kMiddle, kIgnoredStroke);
    draw_text(356, kTextLine, "", "to be ignored");
    draw_switch(450, kTop);
    draw_text(458, kTextLine, "", "id switch");
  }

  void draw_ticks(double height) {
    const long step = tick_step(kTickDistance / frame_width_);
    for (long frame = (frames_.first + step - 1) / step * step; frame <= frames_.last;
         frame += step) {
      const double x = x_of(frame) + frame_width_ / 2;
      draw_line(x, x, kHeaderHeight - 6, height - 8, "stroke=\"#e4e4e4\"");
      draw_text(x, kHeaderHeight - 10, " text-anchor=\"middle\" fill=\"#606060\"",
                std::to_string(frame));
    }
    draw_text(kLabelsWidth - 8, kHeaderHeight - 10, " text-anchor=\"end\" fill=\"#606060\"",
              "frame");
  }

  void draw_object(const ClipObject& object, const std::vector<FoundRun>& runs, double top) {
    const double bar_top = top + kBarTop;
    const double middle = bar_top + kBarHeight / 2;
    draw_text(kLabelsWidth - 8, bar_top + kBarHeight, " text-anchor=\"end\"",
              xml_text(shortened(class_title(names_, object.class_id), kNameMost, "…")) + "  id " +
                  std::to_string(object.id));
    for (const FrameSpan& span : object.ignored) {
      draw_line(x_of(span.first), x_of(span.last + 1), middle, middle, kIgnoredStroke);
    }
    for (const FrameSpan& span : object.present) {
      draw_line(x_of(span.first), x_of(span.last + 1), middle, middle, kMissedStroke);
    }
    double text_end = 0;
    for (std::size_t i = 0; i < runs.size(); ++i) {
      const std::string id = std::to_string(runs[i].result_id);
      const double left = x_of(runs[i].frames.first);
      draw_bar(left, x_of(runs[i].frames.last + 1), bar_top, colour_of(runs[i].result_id),
               "id " + id + ", frames " + std::to_string(runs[i].frames.first) + " to " +
                   std::to_string(runs[i].frames.last));
      if (i > 0 && runs[i - 1].result_id != runs[i].result_id) {
        draw_switch(left, bar_top);
      }
      if (left >= text_end) {
        draw_text(left, bar_top - 2, " font-size=\"9\"", id);
        text_end = left + kDigitWidth * static_cast<double>(id.size()) + 2;
      }
    }
  }

  static constexpr char kMissedStroke[] = "stroke=\"#909090\" stroke-width=\"2\"";
  static constexpr char kIgnoredStroke[] =
      "stroke=\"#c8c8c8\" stroke-width=\"2\" stroke-dasharray=\"2 3\"";

  const ClassNames& names_;
  const MotClip& clip_;
  const std::vector<std::vector<FoundRun>>& runs_;
  FrameSpan frames_ = {1, 1};
  double plot_width_ = 0;
  double frame_width_ = 0;
  std::string svg_;
};

}  // namespace

std::string timeline_svg(const std::string& title, const ClassNames& names, const MotClip& clip,
                         const std::vector<std::vector<FoundRun>>& runs) {
  return Timeline(names, clip, runs).draw(title);
}

}  // namespace olvex_tools
