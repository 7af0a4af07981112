// letterbox.h - where a picture lies in the frame that is made of it, and boxes of the frame taken back to the
// picture. frame_conversion.h makes the frames; docs/model-images.md has the formulas.
#ifndef TOOLS_FRAMES_LETTERBOX_H
#define TOOLS_FRAMES_LETTERBOX_H

#include <opencv2/core.hpp>

#include "platform/host/host_image.h"
#include "tools/frames/frame_record.h"

namespace olvex_tools {

// The pixels of the frame that the picture fills; the others are padding. Sizes are above 0.
cv::Rect picture_area(qv_host::Resize resize, cv::Size picture, cv::Size frame);

// Takes what the library reports on frames with padding to the display size of the picture alone.
class PaddingRemoval {
 public:
  // display  size in pixels that the picture without padding stands for
  PaddingRemoval(const cv::Rect& area, cv::Size frame, cv::Size display);

  // The display size to give the library: that of the whole frame at the scale of display, to the pixel.
  // It is display where there is no padding.
  cv::Size padded_display() const { return padded_; }

  // reported  the display size that the library was given, any
  // Corners and key points are cut at the picture's edges as the library cuts them at the frame's, and the
  // whole pixels are those of the corners. Does nothing where there is no padding. False for a box that lies
  // in the padding.
  bool apply(cv::Size reported, Detection* detection) const;

 private:
  cv::Rect area_;
  cv::Size frame_;
  cv::Size display_;
  cv::Size padded_;
};

}  // namespace olvex_tools

#endif  // TOOLS_FRAMES_LETTERBOX_H
