// host_session.cpp - see host_session.h.
#include "tests/platform/host_session.h"

#include <cstdint>
#include <cstring>

#include <gtest/gtest.h>

namespace host_session {

int copy_from_memory(void* dst, int offset, int size, char* ctx) {
  std::memcpy(dst, ctx + offset, static_cast<std::size_t>(size));
  return 0;
}

QV_S32 open_channel(const std::vector<char>& image, QV_U32* channel) {
  QV_IPUChnAttr_s attributes = {};
  attributes.u32OutputBufDepth = 1;
  return QV_IPU_CreateCHN(channel, &attributes, copy_from_memory, const_cast<char*>(image.data()));
}

QV_S32 flush_and_invoke(QV_U32 channel, const void* frame, std::size_t flushed_size,
                        QV_IPU_TensorVector_t* output) {
  QV_IPU_TensorVector_t input = {};
  input.astArrayTensors[0].ptTensorData[0] = const_cast<void*>(frame);
  QV_SYS_FlushInvCache(const_cast<void*>(frame), static_cast<QV_U32>(flushed_size));
  return QV_IPU_Invoke(channel, &input, output);
}

Device::Device(QV_U32 yuv_height_alignment) {
  QV_IPU_DevAttr_s attributes = {};
  attributes.u32YUV420_W_Pitch_Alignment = 16;
  attributes.u32YUV420_H_Pitch_Alignment = yuv_height_alignment;
  attributes.u32XRGB_W_Pitch_Alignment = 16;
  EXPECT_EQ(0, QV_IPU_CreateDevice(&attributes, nullptr, nullptr, 0));
}

Device::~Device() {
  EXPECT_EQ(0, QV_IPU_DestroyDevice());
}

Channel::Channel(const qv_host::Description& description, const std::vector<char>& network) {
  EXPECT_EQ(0, open_channel(qv_host::build_image(description, network), &id));
  EXPECT_EQ(0, QV_IPU_GetInOutTensorDesc(id, &tensors_));
  EXPECT_EQ(0, QV_IPU_GetOutputTensors(id, &buffers));
}

const QV_IPU_TensorDesc_t& Channel::output(std::size_t i) const {
  return tensors_.astQV_OutputTensorDescs[i];
}

std::string Channel::output_shape(std::size_t i) const {
  std::string text;
  for (QV_U32 axis = 0; axis < output(i).u32TensorDim; ++axis) {
    text += (axis == 0 ? "" : "x") + std::to_string(output(i).u32TensorShape[axis]);
  }
  return text;
}

QV_S32 Channel::run(const std::vector<unsigned char>& frame) {
  return flush_and_invoke(id, frame.data(), frame.size(), &buffers);
}

float Channel::value(std::size_t tensor, std::size_t index) const {
  const void* data = buffers.astArrayTensors[tensor].ptTensorData[0];
  if (output(tensor).eElmFormat == QV_IPU_FORMAT_INT16) {
    return static_cast<float>(static_cast<const std::int16_t*>(data)[index]) *
           output(tensor).fScalar;
  }
  return static_cast<const float*>(data)[index];
}

}  // namespace host_session
