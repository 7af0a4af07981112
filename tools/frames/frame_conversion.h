// SPDX-License-Identifier: Apache-2.0
// frame_conversion.h - pictures into the frame format that a model expects, and back; where a picture lies in
// its frame, and boxes of the frame taken back to the picture. qv_ipu.h defines the formats; frame_source.h
// supplies the pictures; docs/model-images.md has the formulas.
#ifndef TOOLS_FRAMES_FRAME_CONVERSION_H
#define TOOLS_FRAMES_FRAME_CONVERSION_H

#include <cstddef>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "platform/host/host_image.h"

#include "tools/frames/frame_record.h"

namespace olvex_tools {

// How a frame lies in memory, as the camera would deliver it.
struct FrameLayout {
  int width = 0;   // pixels
  int height = 0;  // pixels
  QV_IPU_ELEMENT_FORMAT format = QV_IPU_FORMAT_NV12;
  qv_host::ColourOrder order = qv_host::ColourOrder::kRgb;  // of U8, GRAY and FP32
  qv_host::Resize resize = qv_host::Resize::kStretch;
  std::size_t row_bytes = 0;  // from one row to the next, of the Y plane for NV12
  std::size_t size = 0;       // bytes of the whole frame
};

// Throws ToolError for a format that no camera delivers (INT8, for example).
FrameLayout frame_layout(const qv_host::InputDescription& input);

// "NV12".
std::string format_name(QV_IPU_ELEMENT_FORMAT format);

// "NV12 352x352, 185856 bytes".
std::string describe(const FrameLayout& layout);

// A picture (8-bit BGR) whose colours change from one corner to the other.
cv::Mat generated_gradient(int width, int height);

// The pixels of a frame that such a picture fills.
cv::Rect picture_area(const FrameLayout& layout, cv::Size picture);

// Brings the picture (8-bit BGR) to the frame's size and writes it into frame, which is resized to
// layout.size bytes; the bytes between rows are zero. Where the layout keeps the aspect, the pixels outside
// of picture_area() are gray.
void convert_to_frame(const cv::Mat& picture, const FrameLayout& layout,
                      std::vector<unsigned char>* frame);

// The picture (8-bit BGR) that a frame shows. Requires: frame holds layout.size bytes.
cv::Mat picture_of_frame(const std::vector<unsigned char>& frame, const FrameLayout& layout);

// ---- The picture's place in its frame -----------------------------------------------------------

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

#endif  // TOOLS_FRAMES_FRAME_CONVERSION_H
