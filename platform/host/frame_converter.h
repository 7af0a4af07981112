// SPDX-License-Identifier: Apache-2.0
// frame_converter.h - converts the camera's frame to the network's input planes.
// docs/model-images.md shows the frame layouts; channel.cpp uses it.
#ifndef PLATFORM_HOST_FRAME_CONVERTER_H
#define PLATFORM_HOST_FRAME_CONVERTER_H

#include <cstddef>

#include <opencv2/core/mat.hpp>

#include "platform/host/host_image.h"

namespace qv_host {

class FrameConverter {
 public:
  // Takes the pitch alignments from the device attributes; 0 counts as 1. Throws HostError when the
  // padded frame would not fit the contract's 31-bit sizes.
  FrameConverter(const InputDescription& input, const QV_IPU_DevAttr_s& attributes);

  // The input tensor as the contract describes it.
  QV_IPU_TensorDesc_t tensor_description() const;

  // Bytes that a frame has to have: everything up to the last pixel, without the padding after it.
  std::size_t needed_size() const { return needed_size_; }

  // Network input for a frame, 1 x C x H x W. Requires: needed_size() readable bytes.
  cv::Mat convert(const void* frame) const;

 private:
  // The picture with its channels in the network's order.
  cv::Mat in_network_order(const void* frame) const;
  cv::Mat from_nv12(const void* frame) const;

  InputDescription input_;
  std::size_t pitch_ = 0;         // bytes from row to row
  std::size_t luma_rows_ = 0;     // rows of the first plane, padding included
  std::size_t element_size_ = 0;  // bytes of the frame's elements alone
  std::size_t padded_size_ = 0;   // bytes with the padding
  std::size_t needed_size_ = 0;
  std::size_t width_alignment_ = 1;   // bytes
  std::size_t height_alignment_ = 1;  // rows
};

}  // namespace qv_host

#endif  // PLATFORM_HOST_FRAME_CONVERTER_H
