// library_model.cpp - opens a model as the detection handle does, and explains each failure.
// video/det/src/det_schedule.cpp is the handle.
#include "tools/inside/library_model.h"

#include <cstddef>

#include "qv_sys.h"

#include "tools/common/command.h"
#include "tools/inside/result_codes.h"

namespace olvex_tools {

qv_host::Image read_model_file(const std::string& path, std::string* text_header) {
  try {
    return qv_host::read_image_file(path, text_header);
  } catch (const qv_host::ImageError& error) {
    throw ToolError(kModelError, error.what());
  }
}

LibraryModel::LibraryModel(const std::string& path, const std::string& name)
    : name_(name), model_(new DetAfModel) {
  std::string terminated_path = path;
  if (model_->cal_variable_size(&terminated_path[0], &variable_buffer_size_) != E_ALGO_SUCCESS) {
    refuse_model(name_, "the host accelerator does not take it as a model (see above)");
  }
  open_channel();
}

LibraryModel::LibraryModel(std::vector<char> file, const std::string& name)
    : name_(name), model_(new DetAfModel) {
  constexpr std::size_t kReadBeyond = 3;  // get_model_kvs may read so many bytes after the last
  const std::size_t size = file.size();
  file.resize(size + kReadBeyond);
  char* start = nullptr;
  get_model_kvs(file.data(), size, model_->model_kvs_, start);
  if (start == nullptr ||
      model_->cal_variable_size(start, static_cast<unsigned>(file.data() + size - start),
                                &variable_buffer_size_) != E_ALGO_SUCCESS) {
    refuse_model(name_, "the host accelerator does not take it as a model (see above)");
  }
  open_channel();
}

void LibraryModel::open_channel() {
  create_device();
  // A failing initialisation has destroyed the device.
  if (model_->model_init(0, 1) != E_ALGO_SUCCESS) {
    refuse_model(name_,
                 "the host accelerator cannot load the network, or its "
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
    throw ToolError(kAcceleratorError, std::string("the host accelerator cannot be brought up: ") +
                                           explain_result(code).text);
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
    const ResultCode& result = explain_result(code);
    throw ToolError(result.exit_code, name_ + ": the test run failed: " + result.text + " (code " +
                                          std::to_string(code) + ")");
  }
  return std::vector<BoxInfo>(boxes, boxes + count);
}

}  // namespace olvex_tools
