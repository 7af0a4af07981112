// SPDX-License-Identifier: Apache-2.0
// ipu_engine.cpp - one accelerator channel.
#include "base/ipu_engine/ipu_engine.h"

#include <string.h>

#include "utils/log/olvex_log.h"
#include "utils/records/algo_types.h"

OLVEX_LOG_CLOCK;

TensorName::TensorName(const QV_IPU_TensorDesc_t& tensor) {
  memcpy(text, tensor.name, OLVEX_TENSOR_NAME_SIZE);
  text[OLVEX_TENSOR_NAME_SIZE] = 0;
}

IpuEngine::IpuEngine() : u32channelid_(0), desc_(), output_tensor_vector_(), threshold_(0.0f) {}

unsigned int IpuEngine::readable_tensors(QV_U32 count) {
  return olvex::min<unsigned int>(count, OLVEX_MAX_TENSORS);
}

int IpuEngine::cal_variable_size(char* model_path, unsigned int* variable_size) {
  model_path_ = model_path;
  QV_IPU_OfflineModelStaticInfo_s info = QV_IPU_OfflineModelStaticInfo_s();
  if (QV_IPU_GetOfflineModeStaticInfo(NULL, model_path, &info) != 0) {
    OLVEX_ERROR_FORMAT("get Model variable buffer size failed! modelpath:%s\n", model_path);
    return -1;
  }
  *variable_size = info.u32VariableBufferSize;
  return 0;
}

void IpuEngine::set_theshold(float threshold) {
  threshold_ = threshold;
}

int IpuEngine::model_init(int input_buf_depth, int output_buf_depth) {
  QV_IPUChnAttr_s attributes = QV_IPUChnAttr_s();
  attributes.u32InputBufDepth = static_cast<QV_U32>(input_buf_depth);
  attributes.u32OutputBufDepth = static_cast<QV_U32>(output_buf_depth);
  if (QV_IPU_CreateCHN(&u32channelid_, &attributes, NULL, model_path_.data()) != 0) {
    // Deliberate: the blank at the end stays, as log searches compare the text byte by byte.
    OLVEX_ERROR("create ipu channel failed! ");
    QV_IPU_DestroyDevice();
    return E_ALGO_LOADMODEL_FAIL;
  }
  const QV_S32 result = QV_IPU_GetInOutTensorDesc(u32channelid_, &desc_);
  if (result != 0) {
    OLVEX_ERROR_FORMAT("fail to get network description %d\n", result);
    QV_IPU_DestroyCHN(u32channelid_);
    QV_IPU_DestroyDevice();
    return E_ALGO_LOADMODEL_FAIL;
  }
  log_input_tensors();
  for (unsigned int i = 0; i < readable_tensors(desc_.u32OutputTensorCount); ++i) {
    const QV_IPU_TensorDesc_t& tensor = desc_.astQV_OutputTensorDescs[i];
    OLVEX_INFO_FORMAT(
        "output tensor [%d], name: %s, shape %d %d %d %d, format: %d, fScalar: %f\n",
        static_cast<int>(i), TensorName(tensor).text, static_cast<int>(tensor.u32TensorShape[0]),
        static_cast<int>(tensor.u32TensorShape[1]), static_cast<int>(tensor.u32TensorShape[2]),
        static_cast<int>(tensor.u32TensorShape[3]), static_cast<int>(tensor.eElmFormat),
        static_cast<double>(tensor.fScalar));
  }
  memset(&output_tensor_vector_, 0, sizeof(output_tensor_vector_));
  QV_IPU_GetOutputTensors(u32channelid_, &output_tensor_vector_);
  return 0;
}

void IpuEngine::log_input_tensors() {
  for (unsigned int i = 0; i < readable_tensors(desc_.u32InputTensorCount); ++i) {
    const QV_IPU_TensorDesc_t& tensor = desc_.astQV_InputTensorDescs[i];
    OLVEX_INFO_FORMAT(
        "input tensor [%d], name: %s, shape %d %d %d %d, format: %d, fScalar: %f\n",
        static_cast<int>(i), TensorName(tensor).text, static_cast<int>(tensor.u32TensorShape[0]),
        static_cast<int>(tensor.u32TensorShape[1]), static_cast<int>(tensor.u32TensorShape[2]),
        static_cast<int>(tensor.u32TensorShape[3]), static_cast<int>(tensor.eElmFormat),
        static_cast<double>(tensor.fScalar));
  }
}

void IpuEngine::get_model_attri(QV_U32* width, QV_U32* height, QV_IPU_ELEMENT_FORMAT* format) {
  const QV_IPU_TensorDesc_t& input = desc_.astQV_InputTensorDescs[0];
  *width = input.u32TensorShape[2];
  *height = input.u32TensorShape[1];
  *format = input.eElmFormat;
}

int IpuEngine::model_deinit() {
  OLVEX_INFO("QV_IPU_PutOutputTensors");
  QV_IPU_PutOutputTensors(u32channelid_, &output_tensor_vector_);
  OLVEX_INFO("QV_IPU_DestroyCHN");
  QV_IPU_DestroyCHN(u32channelid_);
  return 0;
}
