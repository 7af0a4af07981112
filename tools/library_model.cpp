// library_model.cpp - opens a model as the detection handle does, and explains each failure.
// Read library_model.h first; video/det/src/det_schedule.cpp is the handle.
#include "tools/library_model.h"

#include <cstdio>

#include "qv_sys.h"

#include "platform/host/qv_host.h"

#include "tools/command.h"

namespace olvex_tools {

namespace {

std::string explain_code(int code) {
  switch (code) {
    case QV_HOST_NO_CHANNEL:
      return "the channel is closed";
    case QV_HOST_DEVICE_EXISTS:
      return "an accelerator device exists already in this process";
    case QV_HOST_READ_FAILED:
      return "the model cannot be read";
    case QV_HOST_BAD_IMAGE:
      return "the offline model is damaged; pack it again";
    case QV_HOST_BAD_NETWORK:
      return "the network does not load, or its outputs are not what the description says";
    case QV_HOST_BAD_FRAME:
      return "the frame is too small for the model's input";
    case QV_HOST_INFERENCE_FAILED:
      return "the network failed while it ran";
    case E_ALGO_LOADMODEL_FAIL:
      return "the library could not load the model, or takes no model with a single output";
    case E_ALGO_INVALID_OUTPUT_SIZE:
      return "the library has no decoder for output tensors of these shapes";
    case E_ALGO_INVALID_DECODE_MODE:
      return "the library has no decoder for output tensors of this element type";
    default: {
      char text[32];
      std::snprintf(text, sizeof text, "code 0x%x", static_cast<unsigned>(code));
      return text;
    }
  }
}

// Failures of the library's decoding; every other code comes from the platform.
bool is_decoding_failure(int code) {
  return code == E_ALGO_LOADMODEL_FAIL || code == E_ALGO_INVALID_OUTPUT_SIZE ||
         code == E_ALGO_INVALID_DECODE_MODE;
}

}  // namespace

LibraryModel::LibraryModel(const std::string& path, const std::string& name)
    : name_(name), model_(new DetAfModel) {
  std::string terminated_path = path;
  if (model_->cal_variable_size(&terminated_path[0], &variable_buffer_size_) != E_ALGO_SUCCESS) {
    throw ToolError(kModelError,
                    name_ + ": the host accelerator does not take it as a model (see above)");
  }
  create_device();
  // A failing initialisation has destroyed the device.
  if (model_->model_init(0, 1) != E_ALGO_SUCCESS) {
    throw ToolError(kModelError, name_ +
                                     ": the host accelerator cannot load the network, or its "
                                     "outputs are not as described (see above)");
  }
  channel_open_ = true;
}

LibraryModel::~LibraryModel() {
  if (channel_open_) {
    model_->model_deinit();
    QV_IPU_DestroyDevice();
  }
}

void LibraryModel::create_device() {
  QV_IPU_DevAttr_s attributes = {};
  attributes.u32MaxVariableBufSize = variable_buffer_size_;
  attributes.u32YUV420_W_Pitch_Alignment = 16;
  attributes.u32YUV420_H_Pitch_Alignment = 2;
  attributes.u32XRGB_W_Pitch_Alignment = 16;
  std::string firmware;  // the host accelerator has none
  const int code = QV_IPU_CreateDevice(&attributes, nullptr, &firmware[0], 0);
  if (code != 0) {
    throw ToolError(kAcceleratorError,
                    "the host accelerator cannot be brought up: " + explain_code(code));
  }
}

std::vector<BoxInfo> LibraryModel::detect(std::vector<unsigned char>* frame, float threshold) {
  model_->set_theshold(threshold);
  QV_IPU_TensorVector_t input = {};
  input.u32TensorCount = 1;
  input.astArrayTensors[0].ptTensorData[0] = frame->data();
  QV_SYS_FlushInvCache(frame->data(), static_cast<QV_U32>(frame->size()));
  unsigned width = 0;
  unsigned height = 0;
  QV_IPU_ELEMENT_FORMAT format = QV_IPU_FORMAT_UNKNOWN;
  model_->get_model_attri(&width, &height, &format);
  BoxInfo* boxes = nullptr;
  int count = 0;
  const int code = model_->model_invoke(&input, &boxes, &count, width, height);
  if (code != E_ALGO_SUCCESS) {
    throw ToolError(is_decoding_failure(code) ? kModelError : kAcceleratorError,
                    name_ + ": the test run failed: " + explain_code(code));
  }
  return std::vector<BoxInfo>(boxes, boxes + count);
}

}  // namespace olvex_tools
