// SPDX-License-Identifier: Apache-2.0
// mot_timeline.cpp - the picture as SVG elements, one string each. Declared in mot.h.
#include "tools/eval/mot/mot.h"

#include <algorithm>
#include <cmath>
#include <map>

#include "tools/common/evaluation.h"
#include "tools/common/text.h"

namespace olvex_tools {

namespace {

// Pixels.
constexpr double kLabelsWidth = 130;
constexpr double kRightMargin = 40;
constexpr double kHeaderHeight = 86;
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

// Bars of false boxes; the lighter ones are of ids that find an object in other frames.
constexpr char kFalseColour[] = "#d00000";
constexpr char kPartlyFalseColour[] = "#f0a0a0";

// Of classes that the results have; all without results.
std::vector<std::size_t> drawn_objects(const MotClip& clip) {
  std::vector<std::size_t> drawn;
  for (std::size_t i = 0; i < clip.objects.size(); ++i) {
    if (clip.result_classes.empty() || clip.result_classes.count(clip.objects[i].class_id) > 0) {
      drawn.push_back(i);
    }
  }
  return drawn;
}

class Timeline {
 public:
  Timeline(const ClassNames& names, const MotClip& clip, const MotMeasurement& measured)
      : names_(names), clip_(clip), measured_(measured), drawn_(drawn_objects(clip)) {
    if (!clip.frames.empty()) {
      frames_ = {clip.frames.front().number, clip.frames.back().number};
    }
    const double count = static_cast<double>(frames_.last - frames_.first + 1);
    plot_width_ = std::clamp(count * kFrameWidth, kPlotNarrowest, kPlotWidest);
    frame_width_ = plot_width_ / count;
  }

  std::string draw(const std::string& title) {
    const std::size_t false_rows =
        measured_.false_tracks.empty() ? 0 : measured_.false_tracks.size() + 1;  // and a heading
    const double width = kLabelsWidth + plot_width_ + kRightMargin;
    const double height =
        kHeaderHeight + kRowHeight * static_cast<double>(drawn_.size() + false_rows) + 10;
    svg_ = svg_element("text", "x=\"8\" y=\"18\" font-size=\"13\"", xml_text(title));
    draw_legend();
    draw_ticks(height);
    double top = kHeaderHeight;
    for (const std::size_t i : drawn_) {
      draw_object(clip_.objects[i], measured_.runs[i], top);
      top += kRowHeight;
    }
    if (false_rows > 0) {
      draw_text(8, top + kBarTop + kBarHeight, " font-weight=\"bold\"", "false boxes, by id");
    }
    for (const FalseTrack& track : measured_.false_tracks) {
      top += kRowHeight;
      draw_false_track(track, top);
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
    draw_bar(530, 560, kTop, kFalseColour, "false");
    draw_text(566, kTextLine, "", "false, of an id that finds no object");
    draw_bar(775, 805, kTop, kPartlyFalseColour, "false");
    draw_text(811, kTextLine, "", "false, of an id that does at times");
    const std::string left_out = left_out_text();
    if (!left_out.empty()) {
      draw_text(8, kTextLine + 14, " fill=\"#606060\"", left_out);
    }
  }

  // "left out, never in the result: head (12 objects)", or nothing.
  std::string left_out_text() const {
    std::map<int, std::size_t> left_out;
    for (const ClipObject& object : clip_.objects) {
      ++left_out[object.class_id];
    }
    for (const std::size_t i : drawn_) {
      --left_out[clip_.objects[i].class_id];
    }
    std::vector<std::string> classes;
    for (const auto& [class_id, count] : left_out) {
      if (count > 0) {
        classes.push_back(class_title(names_, class_id) + " (" +
                          counted(count, "object", "objects") + ")");
      }
    }
    constexpr std::size_t kLetters = 150;
    return classes.empty()
               ? std::string()
               : xml_text(shortened("left out, never in the result: " + join(classes, ", "),
                                    kLetters, "…"));
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

  void draw_label(int class_id, long id, double bar_top) {
    draw_text(kLabelsWidth - 8, bar_top + kBarHeight, " text-anchor=\"end\"",
              xml_text(shortened(class_title(names_, class_id), kNameMost, "…")) + "  id " +
                  std::to_string(id));
  }

  void draw_false_track(const FalseTrack& track, double top) {
    const double bar_top = top + kBarTop;
    draw_label(track.class_id, track.result_id, bar_top);
    for (const FrameSpan& span : track.frames) {
      draw_bar(x_of(span.first), x_of(span.last + 1), bar_top,
               track.finds_an_object ? kPartlyFalseColour : kFalseColour,
               "id " + std::to_string(track.result_id) + ", false in frames " +
                   std::to_string(span.first) + " to " + std::to_string(span.last));
    }
  }

  void draw_object(const ClipObject& object, const std::vector<FoundRun>& runs, double top) {
    const double bar_top = top + kBarTop;
    const double middle = bar_top + kBarHeight / 2;
    draw_label(object.class_id, object.id, bar_top);
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
  const MotMeasurement& measured_;
  std::vector<std::size_t> drawn_;  // of the clip's objects
  FrameSpan frames_ = {1, 1};
  double plot_width_ = 0;
  double frame_width_ = 0;
  std::string svg_;
};

}  // namespace

std::string timeline_svg(const std::string& title, const ClassNames& names, const MotClip& clip,
                         const MotMeasurement& measured) {
  return Timeline(names, clip, measured).draw(title);
}

}  // namespace olvex_tools
