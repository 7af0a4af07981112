// frame_conversion.h - pictures into the frame format that a model expects, and back.
// qv_ipu.h defines the formats; frame_source.h supplies the pictures.
#ifndef TOOLS_FRAMES_FRAME_CONVERSION_H
#define TOOLS_FRAMES_FRAME_CONVERSION_H

#include <cstddef>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "platform/host/host_image.h"

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

}  // namespace olvex_tools

#endif  // TOOLS_FRAMES_FRAME_CONVERSION_H
