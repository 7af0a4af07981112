// SPDX-License-Identifier: Apache-2.0
// model_loading.cpp - DetAfModel: a model from its image to an open channel, and who releases the image.
// sdet_model.cpp runs frames.
#include "base/sdet/sdet_model.h"

#include <string.h>
#include <sys/mman.h>

#include "utils/log/olvex_log.h"
#include "utils/records/algo_types.h"
#include "base/sdet/start_pattern.h"

OLVEX_LOG_CLOCK;

DetAfModel::DetAfModel()
    : num_key_point_(0),
      p_model_file_(NULL),
      p_model_(NULL),
      model_file_size_(0),
      mapping_(NULL),
      mapping_size_(0) {}

DetAfModel::~DetAfModel() {
  release_own_image();
}

// Deliberate: a buffer of the caller's is unmapped like our own mapping. The platform has its copy
// of the model by then, and the caller hands over a mapping, not heap memory.
void DetAfModel::release_image() {
  if (p_model_file_ != mapping_) {
    munmap(p_model_file_, model_file_size_);
  }
  release_mapping();
  forget_image();
}

void DetAfModel::forget_image() {
  p_model_file_ = NULL;
  p_model_ = NULL;
  model_file_size_ = 0;
}

void DetAfModel::release_mapping() {
  if (mapping_ != NULL) {
    munmap(mapping_, mapping_size_);
    mapping_ = NULL;
  }
}

void DetAfModel::release_own_image() {
  if (mapping_ != NULL) {
    release_mapping();
    forget_image();
  }
}

int DetAfModel::query_variable_size(unsigned int* variable_size) {
  QV_IPU_OfflineModelStaticInfo_s info = QV_IPU_OfflineModelStaticInfo_s();
  const QV_S32 result = QV_IPU_GetOfflineModeStaticInfo(H2SerializedReadFunc, p_model_, &info);
  if (result == 0) {
    *variable_size = info.u32VariableBufferSize;
  }
  return result;
}

// Takes over what get_model_ptr has mapped, also when an allocation fails while it reads the pairs.
class DetAfModel::NewMapping {
 public:
  explicit NewMapping(DetAfModel& model) : size(0), pattern(NULL), model_(model) {}
  ~NewMapping() {
    model_.model_file_size_ = size;
    if (size != 0) {
      model_.release_mapping();
      model_.mapping_ = model_.p_model_file_;
      model_.mapping_size_ = size;
      model_.p_model_ = pattern;
    }
  }
  NewMapping(const NewMapping&) = delete;
  NewMapping& operator=(const NewMapping&) = delete;

  unsigned int size;  // 0 while nothing is mapped
  char* pattern;      // NULL: a file without one must not go on with the model of an earlier call

 private:
  DetAfModel& model_;
};

// Where nothing is mapped, an earlier mapping stays with the pointers that may lead into it.
int DetAfModel::map_model_file(char* model_path) {
  NewMapping mapping(*this);
  return get_model_ptr(model_path, p_model_file_, mapping.size, model_kvs_, mapping.pattern);
}

int DetAfModel::cal_variable_size(char* model_path, unsigned int* variable_size) {
  OLVEX_DEBUG("enter model file version DetAfModel::cal_variable_size");
  OLVEX_DEBUG_FORMAT("enter %s\n", "cal_variable_size");
  if (map_model_file(model_path) != E_ALGO_SUCCESS) {
    OLVEX_ERROR_FORMAT("failed to get_model_ptr: %s\n", model_path);
    return E_ALGO_LOADMODEL_FAIL;
  }
  if (query_variable_size(variable_size) != 0) {
    OLVEX_ERROR_FORMAT("get Model variable buffer size failed! model path:%s\n", model_path);
    release_image();
    return E_ALGO_LOADMODEL_FAIL;
  }
  OLVEX_DEBUG_FORMAT("model variable buffer size = %lu\n",
                     static_cast<unsigned long>(*variable_size));
  return E_ALGO_SUCCESS;
}

int DetAfModel::cal_variable_size(char* model_buffer, unsigned int size,
                                  unsigned int* variable_size) {
  OLVEX_DEBUG("enter model pointer version DetAfModel::cal_variable_size");
  OLVEX_DEBUG_FORMAT("enter %s\n", "cal_variable_size");
  release_mapping();
  p_model_file_ = model_buffer;
  p_model_ = model_buffer;
  model_file_size_ = size;
  if (query_variable_size(variable_size) != 0) {
    OLVEX_ERROR("get Model variable buffer size failed! model buffer");
    return E_ALGO_LOADMODEL_FAIL;
  }
  return E_ALGO_SUCCESS;
}

// Takes down what model_init opened when a scope is left without keep(): by a failing call, or by an
// allocation that fails. A closed channel takes its output tensors with it.
class DetAfModel::OpenChannel {
 public:
  explicit OpenChannel(DetAfModel& model) : model_(model), is_kept_(false) {}
  ~OpenChannel() {
    if (!is_kept_) {
      QV_IPU_DestroyCHN(model_.u32channelid_);
      QV_IPU_DestroyDevice();
      model_.release_image();
    }
  }
  OpenChannel(const OpenChannel&) = delete;
  OpenChannel& operator=(const OpenChannel&) = delete;

  void keep() { is_kept_ = true; }

 private:
  DetAfModel& model_;
  bool is_kept_;
};

int DetAfModel::model_init(int input_buf_depth, int output_buf_depth) {
  QV_IPUChnAttr_s attributes = QV_IPUChnAttr_s();
  attributes.u32InputBufDepth = static_cast<QV_U32>(input_buf_depth);
  attributes.u32OutputBufDepth = static_cast<QV_U32>(output_buf_depth);
  if (p_model_file_ == NULL || p_model_ == NULL || model_file_size_ == 0) {
    if (model_path_.empty()) {
      OLVEX_ERROR("please call cal_variable_size before call model_init!");
      return E_ALGO_LOADMODEL_FAIL;
    }
    return IpuEngine::model_init(input_buf_depth, output_buf_depth);
  }

  // Deliberate: a failure below takes the device down, also one that the application made, so that
  // a model whose channel cannot be opened leaves no device behind.
  QV_S32 result = QV_IPU_CreateCHN(&u32channelid_, &attributes, H2SerializedReadFunc, p_model_);
  if (result != 0) {
    OLVEX_ERROR_FORMAT("create ipu channel failed! (error code = %x)\n",
                       static_cast<unsigned int>(result));
    QV_IPU_DestroyDevice();
    release_image();
    return E_ALGO_LOADMODEL_FAIL;
  }
  OpenChannel channel(*this);
  result = QV_IPU_GetInOutTensorDesc(u32channelid_, &desc_);
  if (result != 0) {
    OLVEX_ERROR_FORMAT("fail to get network description %d\n", result);
    return E_ALGO_LOADMODEL_FAIL;
  }
  log_tensors_and_learn_keys();
  memset(&output_tensor_vector_, 0, sizeof(output_tensor_vector_));
  QV_IPU_GetOutputTensors(u32channelid_, &output_tensor_vector_);
  release_image();
  get_class_id_map();
  channel.keep();
  return E_ALGO_SUCCESS;
}

void DetAfModel::log_tensors_and_learn_keys() {
  log_input_tensors();
  for (unsigned int i = 0; i < readable_tensors(desc_.u32OutputTensorCount); ++i) {
    const QV_IPU_TensorDesc_t& tensor = desc_.astQV_OutputTensorDescs[i];
    const TensorName name(tensor);
    OLVEX_INFO_FORMAT(
        "output tensor [%d], name: %s, shape %d %d %d %d, format: %d\n", static_cast<int>(i),
        name.text, static_cast<int>(tensor.u32TensorShape[0]),
        static_cast<int>(tensor.u32TensorShape[1]), static_cast<int>(tensor.u32TensorShape[2]),
        static_cast<int>(tensor.u32TensorShape[3]), static_cast<int>(tensor.eElmFormat));
    if (i == 0) {
      learn_keys_from_name(name);
    }
  }
}

// A model can carry its pairs in the name of its first output, the only way for a model in memory.
void DetAfModel::learn_keys_from_name(const TensorName& name) {
  // Zeros after the name keep the scan for the start pattern inside the buffer.
  char text[OLVEX_TENSOR_NAME_SIZE + kStartPatternSize] = {0};
  memcpy(text, name.text, OLVEX_TENSOR_NAME_SIZE);
  olvex::vector<ModelKeyValue_t> kvs;
  char* pattern_in_name = NULL;
  get_model_kvs(text, OLVEX_TENSOR_NAME_SIZE, kvs, pattern_in_name);
  if (!kvs.empty()) {
    model_kvs_ = kvs;
  }
}
