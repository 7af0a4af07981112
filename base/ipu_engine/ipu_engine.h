// SPDX-License-Identifier: Apache-2.0
// ipu_engine.h - the owner of one accelerator channel: sizing, opening, tensor descriptions,
// closing. Independent of detection; base/sdet/sdet_model.h derives from it.
//
// The device is the detection handle's. It must be up before a channel is opened, and the engine
// takes it down when opening fails.
#ifndef BASE_IPU_ENGINE_IPU_ENGINE_H
#define BASE_IPU_ENGINE_IPU_ENGINE_H

#include "platform/contract/olvex_platform.h"

#include "utils/olvex_stl/simplestl.h"

class IpuEngine {
 public:
  IpuEngine();

  // Notes the path and asks the platform, which reads the file itself, for the working memory that
  // the model needs. *variable_size is written on success only. Returns 0, or -1 (logged).
  int cal_variable_size(char* model_path, unsigned int* variable_size);

  // The score that a box needs, for the decoders. The spelling is the operation's name.
  void set_theshold(float threshold);

  // Opens a channel for the model of cal_variable_size and reads its description. Requires: the
  // device is up. Returns 0, or E_ALGO_LOADMODEL_FAIL (logged) with channel and device closed
  // again.
  int model_init(int input_buf_depth, int output_buf_depth);

  // Width and height in pixels and element format of the first input. Requires: model_init
  // succeeded.
  void get_model_attri(QV_U32* width, QV_U32* height, QV_IPU_ELEMENT_FORMAT* format);

  // Gives the output tensors back and closes the channel, whatever the platform returns. Returns 0.
  int model_deinit();

  QV_U32 u32channelid_;
  QV_IPU_SubNet_InputOutputDesc_t desc_;        // of the channel's network
  QV_IPU_TensorVector_t output_tensor_vector_;  // held from model_init to model_deinit
  olvex::string model_path_;                    // of cal_variable_size
  QV_FLOAT threshold_;

 protected:
  // Tensor descriptions that can be read, whatever the platform counts.
  static unsigned int readable_tensors(QV_U32 count);

  void log_input_tensors();
};

// A tensor's name as a terminated text: the platform's array may be in use up to its last byte.
struct TensorName {
  explicit TensorName(const QV_IPU_TensorDesc_t& tensor);
  char text[OLVEX_TENSOR_NAME_SIZE + 1];
};

#endif  // BASE_IPU_ENGINE_IPU_ENGINE_H
