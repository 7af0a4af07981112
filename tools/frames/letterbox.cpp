// letterbox.cpp - the picture's place in the frame, and the way back along each axis.
// Declared in letterbox.h.
#include "tools/frames/letterbox.h"

#include <algorithm>
#include <cmath>

namespace olvex_tools {

namespace {

// The library multiplies sides in 32 bits where it holds boxes still.
constexpr double kLongestSide = 65535;

int rounded_extent(double extent, double longest) {
  return static_cast<int>(std::lround(std::clamp(extent, 1.0, longest)));
}

// Side of the whole frame where the picture's part of it has the display's side.
int padded_side(int frame, int part, int display) {
  return rounded_extent(static_cast<double>(frame) * display / part, kLongestSide);
}

// One axis of the way back: reported side to frame pixels to display pixels.
struct Axis {
  double factor;
  double offset;  // display pixels
  double last;    // highest position, as the library has it

  Axis(int reported, int frame, int start, int part, int display)
      : factor(static_cast<double>(frame) / reported * display / part),
        offset(static_cast<double>(start) * display / part),
        last(display - 1) {}

  void apply(float* position) const {
    const double moved = static_cast<double>(*position) * factor - offset;
    *position = static_cast<float>(std::min(std::max(0.0, moved), last));  // NaN: 0
  }
};

}  // namespace

cv::Rect picture_area(qv_host::Resize resize, cv::Size picture, cv::Size frame) {
  if (resize == qv_host::Resize::kStretch) {
    return {cv::Point(), frame};
  }
  const double factor = std::min(static_cast<double>(frame.width) / picture.width,
                                 static_cast<double>(frame.height) / picture.height);
  const cv::Size part(rounded_extent(picture.width * factor, frame.width),
                      rounded_extent(picture.height * factor, frame.height));
  const bool centred = resize == qv_host::Resize::kLetterboxCentred;
  return {centred ? cv::Point((frame.width - part.width) / 2, (frame.height - part.height) / 2)
                  : cv::Point(),
          part};
}

PaddingRemoval::PaddingRemoval(const cv::Rect& area, cv::Size frame, cv::Size display)
    : area_(area),
      frame_(frame),
      display_(display),
      padded_(padded_side(frame.width, area.width, display.width),
              padded_side(frame.height, area.height, display.height)) {}

bool PaddingRemoval::apply(cv::Size reported, Detection* detection) const {
  if (area_.size() == frame_ && reported == display_) {
    return true;
  }
  const Axis across(reported.width, frame_.width, area_.x, area_.width, display_.width);
  const Axis down(reported.height, frame_.height, area_.y, area_.height, display_.height);
  for (KeyPoint& point : detection->key_points) {
    across.apply(&point.x);
    down.apply(&point.y);
  }
  auto& [left, top, right, bottom] = detection->corners;
  for (float* const x : {&left, &right}) {
    across.apply(x);
  }
  for (float* const y : {&top, &bottom}) {
    down.apply(y);
  }
  detection->x = static_cast<std::uint32_t>(left);
  detection->y = static_cast<std::uint32_t>(top);
  detection->width = static_cast<std::uint32_t>(right - left);
  detection->height = static_cast<std::uint32_t>(bottom - top);
  return right > left && bottom > top;
}

}  // namespace olvex_tools
