// SPDX-License-Identifier: Apache-2.0
// frame_converter.cpp - colour conversion and planes by OpenCV, one function per frame format.
#include "platform/host/frame_converter.h"

#include <algorithm>
#include <cstdint>
#include <limits>

#include <opencv2/imgproc.hpp>

#include "platform/host/host_error.h"

namespace qv_host {
namespace {

std::size_t align_up(std::size_t value, std::size_t alignment) {
  return (value + alignment - 1) / alignment * alignment;
}

bool is_gray(const InputDescription& input) {
  return input.network_order == ColourOrder::kGray;
}

// Channels of one pixel as the frame stores it; NV12 has Y, U and V, the latter two at half size.
int frame_channels(const InputDescription& input) {
  switch (input.format) {
    case QV_IPU_FORMAT_GRAY:
      return 1;
    case QV_IPU_FORMAT_ARGB8888:
    case QV_IPU_FORMAT_ABGR8888:
      return 4;
    case QV_IPU_FORMAT_FP32:
      return is_gray(input) ? 1 : 3;
    default:
      return 3;
  }
}

// Reorders the channels of a picture whose first three are in the given order.
cv::Mat reorder(const cv::Mat& picture, ColourOrder order, ColourOrder wanted) {
  if (picture.channels() == 1 && wanted == ColourOrder::kGray) {
    return picture;
  }
  cv::Mat result;
  if (picture.channels() == 1) {
    cv::cvtColor(picture, result, cv::COLOR_GRAY2RGB);
    return result;
  }
  const bool alpha = picture.channels() == 4;
  if (wanted == ColourOrder::kGray) {
    const int from_rgb = alpha ? cv::COLOR_RGBA2GRAY : cv::COLOR_RGB2GRAY;
    const int from_bgr = alpha ? cv::COLOR_BGRA2GRAY : cv::COLOR_BGR2GRAY;
    cv::cvtColor(picture, result, order == ColourOrder::kRgb ? from_rgb : from_bgr);
    return result;
  }
  if (order == wanted && !alpha) {
    return picture;
  }
  const int swapped = alpha ? cv::COLOR_RGBA2BGR : cv::COLOR_RGB2BGR;
  cv::cvtColor(picture, result, order == wanted ? cv::COLOR_RGBA2RGB : swapped);
  return result;
}

// Interleaved picture to one plane per channel, each value (channel - mean) * scale.
template <typename Element>
void normalise(const cv::Mat& picture, const InputDescription& input, cv::Mat* planes) {
  const int channels = picture.channels();
  for (int c = 0; c < channels; ++c) {
    const float mean = input.mean[static_cast<std::size_t>(c)];
    const float scale = input.scale[static_cast<std::size_t>(c)];
    float* destination = planes->ptr<float>(0, c);
    for (int y = 0; y < picture.rows; ++y) {
      const Element* source = picture.ptr<Element>(y) + c;
      for (int x = 0; x < picture.cols; ++x, source += channels) {
        *destination++ = (static_cast<float>(*source) - mean) * scale;
      }
    }
  }
}

}  // namespace

FrameConverter::FrameConverter(const InputDescription& input, const QV_IPU_DevAttr_s& attributes)
    : input_(input) {
  const std::size_t width = static_cast<std::size_t>(input.width);
  const std::size_t height = static_cast<std::size_t>(input.height);
  const std::size_t element = input.format == QV_IPU_FORMAT_FP32 ? sizeof(float) : 1;
  std::size_t row = width * static_cast<std::size_t>(frame_channels(input)) * element;
  luma_rows_ = height;
  if (input.format == QV_IPU_FORMAT_NV12) {
    row = width;
    width_alignment_ = std::max(1u, attributes.u32YUV420_W_Pitch_Alignment);
    height_alignment_ = std::max(1u, attributes.u32YUV420_H_Pitch_Alignment);
    luma_rows_ = align_up(height, height_alignment_);
  } else if (input.format == QV_IPU_FORMAT_ARGB8888 || input.format == QV_IPU_FORMAT_ABGR8888) {
    width_alignment_ = std::max(1u, attributes.u32XRGB_W_Pitch_Alignment);
  }
  pitch_ = align_up(row, width_alignment_);
  element_size_ = row * height;
  padded_size_ = pitch_ * luma_rows_;
  needed_size_ = pitch_ * (height - 1) + row;
  if (input.format == QV_IPU_FORMAT_NV12) {
    element_size_ += row * height / 2;
    needed_size_ = padded_size_ + pitch_ * (height / 2 - 1) + row;
    padded_size_ += pitch_ * ((luma_rows_ + 1) / 2);
  }
  constexpr std::uint64_t kLargest = std::numeric_limits<QV_S32>::max();
  if (pitch_ > kLargest || luma_rows_ > kLargest || padded_size_ > kLargest) {
    throw HostError(QV_HOST_BAD_ARGUMENT,
                    "the device's pitch alignments (" + std::to_string(width_alignment_) +
                        " bytes, " + std::to_string(height_alignment_) +
                        " rows) make a frame larger than 2 GiB; set smaller ones");
  }
}

QV_IPU_TensorDesc_t FrameConverter::tensor_description() const {
  QV_IPU_TensorDesc_t description = {};
  description.u32TensorDim = 4;
  description.eElmFormat = input_.format;
  description.u32TensorShape[0] = 1;
  description.u32TensorShape[1] = static_cast<QV_U32>(input_.height);
  description.u32TensorShape[2] = static_cast<QV_U32>(input_.width);
  description.u32TensorShape[3] = static_cast<QV_U32>(frame_channels(input_));
  input_.name.copy(description.name, sizeof description.name - 1);
  description.u32InnerMostStride = static_cast<QV_U32>(pitch_);
  description.fScalar = 1.f;
  description.s32AlignedBufSize = static_cast<QV_S32>(padded_size_);
  description.u32BufSize = static_cast<QV_U32>(element_size_);
  description.u32InputWidthAlignment = static_cast<QV_U32>(width_alignment_);
  description.u32InputHeightAlignment = static_cast<QV_U32>(height_alignment_);
  description.eLayoutType = QV_IPU_LAYOUT_NHWC;
  return description;
}

cv::Mat FrameConverter::from_nv12(const void* frame) const {
  // OpenCV's view of foreign pixels is not const; nothing here writes to them.
  char* luma = static_cast<char*>(const_cast<void*>(frame));
  const cv::Mat y(input_.height, input_.width, CV_8UC1, luma, pitch_);
  const cv::Mat uv(input_.height / 2, input_.width / 2, CV_8UC2, luma + pitch_ * luma_rows_,
                   pitch_);
  cv::Mat picture;
  cv::cvtColorTwoPlane(y, uv, picture, cv::COLOR_YUV2RGB_NV12);
  return picture;
}

cv::Mat FrameConverter::in_network_order(const void* frame) const {
  if (input_.format == QV_IPU_FORMAT_NV12) {
    return reorder(from_nv12(frame), ColourOrder::kRgb, input_.network_order);
  }
  const int depth = input_.format == QV_IPU_FORMAT_FP32 ? CV_32F : CV_8U;
  const cv::Mat picture(input_.height, input_.width, CV_MAKETYPE(depth, frame_channels(input_)),
                        const_cast<void*>(frame), pitch_);
  ColourOrder order = input_.frame_order;
  if (input_.format == QV_IPU_FORMAT_ARGB8888) {
    order = ColourOrder::kBgr;
  } else if (input_.format == QV_IPU_FORMAT_ABGR8888) {
    order = ColourOrder::kRgb;
  }
  return reorder(picture, order, input_.network_order);
}

cv::Mat FrameConverter::convert(const void* frame) const {
  if (input_.format == QV_IPU_FORMAT_FP32 &&
      reinterpret_cast<std::uintptr_t>(frame) % alignof(float) != 0) {
    throw HostError(QV_HOST_BAD_FRAME, "an FP32 frame has to start at a multiple of 4 bytes");
  }
  const cv::Mat picture = in_network_order(frame);
  const int shape[] = {1, picture.channels(), input_.height, input_.width};
  cv::Mat planes(4, shape, CV_32F);
  if (picture.depth() == CV_32F) {
    normalise<float>(picture, input_, &planes);
  } else {
    normalise<unsigned char>(picture, input_, &planes);
  }
  return planes;
}

}  // namespace qv_host
