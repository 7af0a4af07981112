// SPDX-License-Identifier: Apache-2.0
// host_session.h - a device of the host accelerator and channels on images made in the test, for
// host_accelerator_test.cpp and host_refusal_test.cpp.
#ifndef TESTS_PLATFORM_HOST_SESSION_H
#define TESTS_PLATFORM_HOST_SESSION_H

#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/host/host_image.h"
#include "platform/host/qv_host.h"
#include "qv_sys.h"

namespace host_session {

// A U8 input of 16 x 16 pixels and the outputs of tiny_onnx::decoded_network.
inline qv_host::Description decoded_description() {
  qv_host::Description description;
  description.input.width = description.input.height = 16;
  description.input.format = QV_IPU_FORMAT_U8;
  description.decoded.boxes = "boxes";
  description.decoded.scores = "scores";
  return description;
}

// What the library's read callback does: copies from the context's address without looking.
inline int copy_from_memory(void* dst, int offset, int size, char* ctx) {
  std::memcpy(dst, ctx + offset, static_cast<std::size_t>(size));
  return 0;
}

inline QV_S32 open_channel(const std::vector<char>& image, QV_U32* channel) {
  QV_IPUChnAttr_s attributes = {};
  attributes.u32OutputBufDepth = 1;
  return QV_IPU_CreateCHN(channel, &attributes, copy_from_memory, const_cast<char*>(image.data()));
}

// As the library does: the count of input tensors stays 0.
inline QV_S32 flush_and_invoke(QV_U32 channel, const void* frame, std::size_t flushed_size,
                               QV_IPU_TensorVector_t* output) {
  QV_IPU_TensorVector_t input = {};
  input.astArrayTensors[0].ptTensorData[0] = const_cast<void*>(frame);
  QV_SYS_FlushInvCache(const_cast<void*>(frame), static_cast<QV_U32>(flushed_size));
  return QV_IPU_Invoke(channel, &input, output);
}

struct Device {
  explicit Device(QV_U32 yuv_height_alignment = 2) {
    QV_IPU_DevAttr_s attributes = {};
    attributes.u32YUV420_W_Pitch_Alignment = attributes.u32XRGB_W_Pitch_Alignment = 16;
    attributes.u32YUV420_H_Pitch_Alignment = yuv_height_alignment;
    EXPECT_EQ(0, QV_IPU_CreateDevice(&attributes, nullptr, nullptr, 0));
  }
  ~Device() { EXPECT_EQ(0, QV_IPU_DestroyDevice()); }
};

// An open channel with its output buffers.
struct Channel {
  QV_U32 id = 0;
  QV_IPU_SubNet_InputOutputDesc_t tensors = {};
  QV_IPU_TensorVector_t buffers = {};

  Channel(const qv_host::Description& description, const std::vector<char>& network) {
    EXPECT_EQ(0, open_channel(qv_host::build_image(description, network), &id));
    EXPECT_EQ(0, QV_IPU_GetInOutTensorDesc(id, &tensors));
    EXPECT_EQ(0, QV_IPU_GetOutputTensors(id, &buffers));
  }

  // What is reported of a tensor except its shape.
  static std::string facts_of(const QV_IPU_TensorDesc_t& tensor) {
    std::ostringstream text;
    text << tensor.name << " format " << tensor.eElmFormat << ", scale " << tensor.fScalar
         << ", zero " << tensor.s64ZeroPoint << ", run " << tensor.u32InnerMostStride << ", bytes "
         << tensor.u32BufSize << " of " << tensor.s32AlignedBufSize << ", aligned "
         << tensor.u32InputWidthAlignment << " x " << tensor.u32InputHeightAlignment << ", layout "
         << tensor.eLayoutType;
    return text.str();
  }

  std::string output_shapes() const {  // such as "1x1x5x4 1x1 "
    std::string text;
    for (QV_U32 i = 0; i < tensors.u32OutputTensorCount; ++i) {
      const QV_IPU_TensorDesc_t& tensor = tensors.astQV_OutputTensorDescs[i];
      for (QV_U32 axis = 0; axis < tensor.u32TensorDim; ++axis) {
        const char end = axis + 1 == tensor.u32TensorDim ? ' ' : 'x';
        text += std::to_string(tensor.u32TensorShape[axis]) + end;
      }
    }
    return text;
  }

  QV_S32 run(const std::vector<unsigned char>& frame) {
    return flush_and_invoke(id, frame.data(), frame.size(), &buffers);
  }

  // One element of the last output as a real value.
  float value(std::size_t tensor, std::size_t index) const {
    const void* data = buffers.astArrayTensors[tensor].ptTensorData[0];
    const QV_IPU_TensorDesc_t& description = tensors.astQV_OutputTensorDescs[tensor];
    if (description.eElmFormat == QV_IPU_FORMAT_FP32) {
      return static_cast<const float*>(data)[index];
    }
    return static_cast<float>(static_cast<const std::int16_t*>(data)[index]) * description.fScalar;
  }
};

}  // namespace host_session

#endif  // TESTS_PLATFORM_HOST_SESSION_H
