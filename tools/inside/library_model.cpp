// SPDX-License-Identifier: Apache-2.0
// library_model.cpp - opens a model as the detection handle does, and explains each failure.
// video/det/src/det_schedule.cpp is the handle.
#include "tools/inside/library_model.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <regex>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "olvex_det.h"
#include "platform/host/qv_host.h"
#include "qv_sys.h"

#include "tools/common/command.h"
#include "tools/inside/foreign_platform.h"

namespace olvex_tools {

// ---- Codes in words -----------------------------------------------------------------------------

namespace {

const ResultCode kResultCodes[] = {
    {E_ALGO_INVALID_PARAM, kUsageError,
     "the options do not go together: strict mode needs the tracker"},
    {E_ALGO_DEVICE_FAULT, kModelError,
     "the accelerator refused the model. Check it with: olvex-det inspect"},
    {E_ALGO_LOADMODEL_FAIL, kModelError,
     "the model cannot be used: it has one output only, and no decoder takes that. Pack it with "
     "its boxes and scores, or with its three raw layers"},
    {E_ALGO_NOT_INIT, kModelError, "the detector is not initialised"},
    {E_ALGO_FILEIO_ERROR, kInputError,
     "the frame dump cannot be written. QK_ALGO_S names an INI file; check the folder that its key "
     "QK_ALGO_I names (no line end after it), or unset QK_ALGO_S"},
    {E_ALGO_INVALID_OUTPUT_SIZE, kModelError,
     "no decoder takes the shape of the model's outputs. Check them with: olvex-det inspect"},
    {E_ALGO_INVALID_DECODE_MODE, kModelError,
     "no decoder takes the element type of the model's outputs; they must be FP32 or INT16"},
    {QV_HOST_NO_DEVICE, kAcceleratorError, "the host accelerator has no device"},
    {QV_HOST_DEVICE_EXISTS, kAcceleratorError,
     "the host accelerator's device exists already in this process"},
    {QV_HOST_NO_CHANNEL, kAcceleratorError, "the host accelerator's channel is closed"},
    {QV_HOST_BAD_ARGUMENT, kAcceleratorError,
     "the host accelerator was given an argument that it cannot take"},
    {QV_HOST_OUT_OF_ORDER, kAcceleratorError,
     "the host accelerator got its output buffers back out of order"},
    {QV_HOST_READ_FAILED, kAcceleratorError, "the host accelerator cannot read the model"},
    {QV_HOST_BAD_IMAGE, kAcceleratorError, "the host accelerator finds the model damaged"},
    {QV_HOST_BAD_NETWORK, kAcceleratorError,
     "the host accelerator cannot load the model's network, or its outputs do not fit the "
     "description"},
    {QV_HOST_BAD_FRAME, kAcceleratorError,
     "the host accelerator finds the frame missing or too short"},
    {QV_HOST_INFERENCE_FAILED, kAcceleratorError,
     "the host accelerator failed while it ran the network"},
    {QV_HOST_OUT_OF_MEMORY, kAcceleratorError, "the host accelerator has no memory left"},
    {QV_HOST_INTERNAL_ERROR, kAcceleratorError,
     "the host accelerator has an internal fault; please report it"},
};

const ResultCode kUnknownCode = {0, kAcceleratorError,
                                 "the accelerator failed with an unknown code"};

}  // namespace

const ResultCode& explain_result(QV_S32 code) {
  const auto* const end = std::end(kResultCodes);
  const auto* const found =
      std::find_if(std::begin(kResultCodes), end,
                   [code](const ResultCode& result) { return result.code == code; });
  const bool is_of_host = code >= QV_HOST_NO_DEVICE && code <= QV_HOST_INTERNAL_ERROR;
  return found == end || (is_of_host && platform_is_foreign()) ? kUnknownCode : *found;
}

// ---- The model ----------------------------------------------------------------------------------

qv_host::Image read_model_file(const std::string& path, std::string* text_header) {
  if (platform_is_foreign()) {
    return read_opaque_model(path, text_header);
  }
  try {
    return qv_host::read_image_file(path, text_header);
  } catch (const qv_host::ImageError& error) {
    throw ToolError(kModelError, error.what());
  }
}

namespace {

// Holds back what is printed on standard error. Other threads must print nothing meanwhile.
class HeldErrors {
 public:
  explicit HeldErrors(bool wanted) : hold_(wanted ? memfd_create("errors", MFD_CLOEXEC) : -1) {
    if (hold_ >= 0) {
      std::fflush(stderr);
      former_ = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
      dup2(hold_, STDERR_FILENO);
    }
  }
  ~HeldErrors() { release(); }
  HeldErrors(const HeldErrors&) = delete;
  HeldErrors& operator=(const HeldErrors&) = delete;

  // What was printed; from now on it is printed as usual.
  std::string release() {
    std::string text;
    if (hold_ >= 0) {
      std::fflush(stderr);
      dup2(former_, STDERR_FILENO);
      text.resize(static_cast<std::size_t>(std::max<off_t>(0, lseek(hold_, 0, SEEK_END))));
      const ssize_t count = pread(hold_, text.data(), text.size(), 0);
      text.resize(static_cast<std::size_t>(std::max<ssize_t>(0, count)));
      close(former_);
      close(hold_);
      hold_ = -1;
    }
    return text;
  }

 private:
  int hold_;
  int former_ = -1;
};

// What the accelerator said of a file, without the file's name and the engine's own calls.
std::string reason_in(const std::string& text, const std::string& path) {
  const std::size_t name = text.find(path + ": ");
  std::string reason = name == std::string::npos ? text : text.substr(name + path.size() + 2);
  const std::string of_engine = engine_reason(text);
  return of_engine.empty() ? reason.substr(0, reason.find('\n')) : of_engine;
}

}  // namespace

std::string engine_reason(const std::string& text) {
  std::smatch node;
  if (std::regex_search(text, node,
                        std::regex(R"(Node \[([^@\]]*)@[^\]]*\]:\([^!)]*!([^)]*)\))"))) {
    return "the network engine does not take the node \"" + node.str(2) + "\" (operator " +
           node.str(1) + ") in this form; export the network for another version of the operators";
  }
  for (const char* const engine : {"does not load in OpenCV's dnn module", "fails to run"}) {
    if (text.find(engine) != std::string::npos) {
      return std::string("the network ") + engine +
             "; do the input's size and colour order fit it? If so, it is damaged or beyond the "
             "engine: export it again";
    }
  }
  return "";
}

LibraryModel::LibraryModel(const std::string& path, const std::string& name)
    : name_(name), model_(new DetAfModel) {
  std::string terminated_path = path;
  if (model_->cal_variable_size(&terminated_path[0], &variable_buffer_size_) != E_ALGO_SUCCESS) {
    refuse_model(name_, accelerator_name() + " does not take it as a model (see above)");
  }
  open_channel(path);
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
    refuse_model(name_, accelerator_name() + " does not take it as a model (see above)");
  }
  open_channel("");
}

void LibraryModel::open_channel(const std::string& path) {
  create_device();
  // What is printed names the file, and a user has not named it.
  HeldErrors errors(path != name_);
  const bool is_open = model_->model_init(0, 1) == E_ALGO_SUCCESS;
  const std::string printed = errors.release();
  // A failing initialisation has destroyed the device.
  if (!is_open && !printed.empty()) {
    refuse_model(name_, reason_in(printed, path));
  }
  std::fputs(printed.c_str(), stderr);
  if (!is_open) {
    refuse_model(name_, accelerator_name() +
                            " cannot load the network, or its "
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
  std::string firmware = platform_firmware();
  const int code = QV_IPU_CreateDevice(&attributes, nullptr, &firmware[0], 0);
  if (code != 0) {
    throw ToolError(kAcceleratorError,
                    accelerator_name() + " cannot be brought up: " + explain_result(code).text);
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
