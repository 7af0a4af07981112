// SPDX-License-Identifier: Apache-2.0
// frame_conversion.cpp - the formats' memory layouts as OpenCV matrices over one buffer, so that
// every conversion writes straight into the frame.
#include "tools/frames/frame_conversion.h"

#include <algorithm>
#include <cmath>

#include <opencv2/imgproc.hpp>

#include "tools/common/command.h"
#include "tools/common/text.h"

namespace olvex_tools {

namespace {

using qv_host::ColourOrder;

constexpr std::size_t kRowAlignment = OLVEX_ROW_ALIGNMENT;  // bytes, of NV12 and the 4-byte formats

std::size_t round_up(std::size_t value, std::size_t step) {
  return (value + step - 1) / step * step;
}

// The planes of an NV12 frame without the padding at the end of rows. Width and height are even:
// no model image has others.
struct Nv12Planes {
  cv::Mat y;
  cv::Mat uv;
};

Nv12Planes nv12_planes(unsigned char* frame, const FrameLayout& layout) {
  unsigned char* const uv = frame + layout.row_bytes * static_cast<std::size_t>(layout.height);
  return {cv::Mat(layout.height, layout.width, CV_8UC1, frame, layout.row_bytes),
          cv::Mat(layout.height / 2, layout.width / 2, CV_8UC2, uv, layout.row_bytes)};
}

// A frame that is one plane of the given OpenCV element type.
cv::Mat single_plane(unsigned char* frame, const FrameLayout& layout, int type) {
  return cv::Mat(layout.height, layout.width, type, frame, layout.row_bytes);
}

void write_nv12(const cv::Mat& picture, const FrameLayout& layout, unsigned char* frame) {
  cv::Mat planar;  // Y, then U, then V, each without padding
  cv::cvtColor(picture, planar, cv::COLOR_BGR2YUV_I420);
  const int half_width = layout.width / 2;
  const int half_height = layout.height / 2;
  unsigned char* const u = planar.ptr(layout.height);
  unsigned char* const v = u + half_width * half_height;
  const cv::Mat chroma[] = {cv::Mat(half_height, half_width, CV_8UC1, u),
                            cv::Mat(half_height, half_width, CV_8UC1, v)};
  Nv12Planes planes = nv12_planes(frame, layout);
  planar.rowRange(0, layout.height).copyTo(planes.y);
  cv::merge(chroma, 2, planes.uv);
}

cv::Mat read_nv12(unsigned char* frame, const FrameLayout& layout) {
  const Nv12Planes planes = nv12_planes(frame, layout);
  cv::Mat picture;
  cv::cvtColorTwoPlane(planes.y, planes.uv, picture, cv::COLOR_YUV2BGR_NV12);
  return picture;
}

// U8, GRAY and FP32: the channels one after the other, or the only one.
int packed_type(const FrameLayout& layout) {
  const int depth = layout.format == QV_IPU_FORMAT_FP32 ? CV_32F : CV_8U;
  return CV_MAKETYPE(depth, layout.order == ColourOrder::kGray ? 1 : 3);
}

void write_packed(const cv::Mat& picture, const FrameLayout& layout, unsigned char* frame) {
  cv::Mat ordered;  // a copy where pixels change: the picture is drawn on later
  if (layout.order == ColourOrder::kBgr) {
    ordered = picture;
  } else {
    const bool gray = layout.order == ColourOrder::kGray;
    cv::cvtColor(picture, ordered, gray ? cv::COLOR_BGR2GRAY : cv::COLOR_BGR2RGB);
  }
  cv::Mat plane = single_plane(frame, layout, packed_type(layout));
  ordered.convertTo(plane, plane.depth());
}

cv::Mat read_packed(unsigned char* frame, const FrameLayout& layout) {
  cv::Mat picture;
  single_plane(frame, layout, packed_type(layout)).convertTo(picture, CV_8U);
  if (layout.order != ColourOrder::kBgr) {
    const bool gray = layout.order == ColourOrder::kGray;
    cv::cvtColor(picture, picture, gray ? cv::COLOR_GRAY2BGR : cv::COLOR_RGB2BGR);
  }
  return picture;
}

cv::Mat resized(const cv::Mat& picture, const FrameLayout& layout) {
  const cv::Size size(layout.width, layout.height);
  if (picture.size() == size) {
    return picture;
  }
  const cv::Rect area = picture_area(layout, picture.size());
  // Averaging keeps small objects from falling between the samples when the picture shrinks.
  const bool shrinks = picture.cols > area.width && picture.rows > area.height;
  cv::Mat result(size, CV_8UC3, cv::Scalar::all(qv_host::kPaddingLevel));
  cv::Mat part = result(area);
  cv::resize(picture, part, part.size(), 0, 0, shrinks ? cv::INTER_AREA : cv::INTER_LINEAR);
  return result;
}

}  // namespace

FrameLayout frame_layout(const qv_host::InputDescription& input) {
  FrameLayout layout;
  layout.width = input.width;
  layout.height = input.height;
  layout.format = input.format;
  layout.order = input.frame_order;
  layout.resize = input.resize;
  const auto width = static_cast<std::size_t>(input.width);
  const auto height = static_cast<std::size_t>(input.height);
  switch (input.format) {
    case QV_IPU_FORMAT_NV12:
      layout.row_bytes = round_up(width, kRowAlignment);
      layout.size = layout.row_bytes * height / 2 * 3;
      return layout;
    case QV_IPU_FORMAT_ARGB8888:
    case QV_IPU_FORMAT_ABGR8888:
      layout.row_bytes = round_up(width * 4, kRowAlignment);
      break;
    case QV_IPU_FORMAT_U8:
      layout.row_bytes = width * 3;
      break;
    case QV_IPU_FORMAT_GRAY:
      layout.order = ColourOrder::kGray;
      layout.row_bytes = width;
      break;
    case QV_IPU_FORMAT_FP32:
      // A network of one gray plane takes its float frames in one channel too.
      if (input.network_order == ColourOrder::kGray) {
        layout.order = ColourOrder::kGray;
      }
      layout.row_bytes = width * sizeof(float) * (layout.order == ColourOrder::kGray ? 1 : 3);
      break;
    default:
      throw ToolError(kModelError, "the model asks for input in element format " +
                                       std::to_string(static_cast<int>(input.format)) +
                                       ", which no picture can be converted to. Pack it with NV12, "
                                       "ARGB8888, ABGR8888, U8, GRAY or FP32");
  }
  layout.size = layout.row_bytes * height;
  return layout;
}

std::string format_name(QV_IPU_ELEMENT_FORMAT format) {
  switch (format) {
    case QV_IPU_FORMAT_U8:
      return "U8";
    case QV_IPU_FORMAT_NV12:
      return "NV12";
    case QV_IPU_FORMAT_INT16:
      return "INT16";
    case QV_IPU_FORMAT_FP32:
      return "FP32";
    case QV_IPU_FORMAT_ARGB8888:
      return "ARGB8888";
    case QV_IPU_FORMAT_ABGR8888:
      return "ABGR8888";
    case QV_IPU_FORMAT_GRAY:
      return "GRAY";
    default:
      return "format " + std::to_string(static_cast<int>(format));
  }
}

std::string describe(const FrameLayout& layout) {
  return format_name(layout.format) + " " + size_text(layout.width, layout.height) + ", " +
         std::to_string(layout.size) + " bytes";
}

cv::Rect picture_area(const FrameLayout& layout, cv::Size picture) {
  return picture_area(layout.resize, picture, cv::Size(layout.width, layout.height));
}

void convert_to_frame(const cv::Mat& picture, const FrameLayout& layout,
                      std::vector<unsigned char>* frame) {
  frame->assign(layout.size, 0);
  unsigned char* const bytes = frame->data();
  const cv::Mat input = resized(picture, layout);
  cv::Mat plane;
  switch (layout.format) {
    case QV_IPU_FORMAT_NV12:
      write_nv12(input, layout, bytes);
      break;
    case QV_IPU_FORMAT_ARGB8888:
      plane = single_plane(bytes, layout, CV_8UC4);
      cv::cvtColor(input, plane, cv::COLOR_BGR2BGRA);
      break;
    case QV_IPU_FORMAT_ABGR8888:
      plane = single_plane(bytes, layout, CV_8UC4);
      cv::cvtColor(input, plane, cv::COLOR_BGR2RGBA);
      break;
    default:
      write_packed(input, layout, bytes);
  }
}

cv::Mat picture_of_frame(const std::vector<unsigned char>& frame, const FrameLayout& layout) {
  // OpenCV has no matrix over constant bytes; nothing below writes to them.
  unsigned char* const bytes = const_cast<unsigned char*>(frame.data());
  cv::Mat picture;
  switch (layout.format) {
    case QV_IPU_FORMAT_NV12:
      return read_nv12(bytes, layout);
    case QV_IPU_FORMAT_ARGB8888:
      cv::cvtColor(single_plane(bytes, layout, CV_8UC4), picture, cv::COLOR_BGRA2BGR);
      return picture;
    case QV_IPU_FORMAT_ABGR8888:
      cv::cvtColor(single_plane(bytes, layout, CV_8UC4), picture, cv::COLOR_RGBA2BGR);
      return picture;
    default:
      return read_packed(bytes, layout);
  }
}

cv::Mat generated_gradient(int width, int height) {
  cv::Mat picture(height, width, CV_8UC3);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      picture.at<cv::Vec3b>(y, x) = cv::Vec3b(
          static_cast<unsigned char>(255 * x / width), static_cast<unsigned char>(255 * y / height),
          static_cast<unsigned char>(255 * (x + y) / (width + height)));
    }
  }
  return picture;
}

// ---- The picture's place in its frame, and the way back along each axis -------------------------

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
