// SPDX-License-Identifier: Apache-2.0
// foreign_platform.cpp - chooses the platform, and asks it what an image cannot be asked.
#include "tools/inside/foreign_platform.h"

#include <fstream>
#include <iterator>

#include "base/sdet/start_pattern.h"
#include "platform/host/qv_host.h"
#include "platform/replay/qv_replay.h"
#include "tools/common/command.h"
#include "tools/common/text.h"
#include "tools/inside/library_model.h"

namespace olvex_tools {

namespace {

constexpr unsigned kLargestSide = 8192;  // pixels, as in a description

struct Platform {
  std::string library;  // empty: the host accelerator
  std::string firmware;
};

Platform chosen;

std::string text_before_pattern(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (!file) {
    refuse_model(path, "cannot be read");
  }
  const std::size_t start = text.find(kStartPattern);
  if (start == std::string::npos) {
    refuse_model(path, std::string("there is no \"") + kStartPattern +
                           "\", with which the platform's part of a model file begins");
  }
  return text.substr(0, start);
}

// Of U8 and FP32 frames the order of the colours is not known: red first, as a description leaves it.
qv_host::InputDescription input_of(const QV_IPU_SubNet_InputOutputDesc_t& description,
                                   const std::string& path) {
  const QV_IPU_TensorDesc_t& tensor = description.astQV_InputTensorDescs[0];
  const QV_U32 height = tensor.u32TensorShape[1];
  const QV_U32 width = tensor.u32TensorShape[2];
  if (description.u32InputTensorCount != 1 || height < 1 || width < 1 || height > kLargestSide ||
      width > kLargestSide) {
    refuse_model(path, accelerator_name() + " describes " +
                           std::to_string(description.u32InputTensorCount) +
                           " inputs, the first of " +
                           size_text(static_cast<int>(width), static_cast<int>(height)) +
                           " pixels; a model has one, of at most " + std::to_string(kLargestSide) +
                           " pixels each way");
  }
  qv_host::InputDescription input;
  input.width = static_cast<int>(width);
  input.height = static_cast<int>(height);
  input.format = tensor.eElmFormat;
  return input;
}

}  // namespace

Option add_platform_option(OptionTable* options, std::string* library) {
  return options->add("--platform", "LIB.so", library,
                      "Use this platform's library, and IMAGE compiled for it, instead of the host "
                      "accelerator");
}

void use_platform(const std::string& library, const std::string& firmware) {
  chosen = {library, firmware};
  const std::string fault = library.empty() ? "" : qv_replay::use_platform(library);
  if (!fault.empty()) {
    throw ToolError(
        kAcceleratorError,
        "--platform: " + fault +
            ". Give a library for this processor with the calls of qv_ipu.h and qv_sys.h");
  }
}

bool platform_is_foreign() {
  return !chosen.library.empty();
}

std::string accelerator_name() {
  return platform_is_foreign() ? "the platform " + chosen.library : "the host accelerator";
}

const std::string& platform_firmware() {
  return chosen.firmware;
}

InvokeTimes last_invoke_times() {
  InvokeTimes times;
  if (platform_is_foreign()) {
    times.network = qv_replay::last_invoke_time();
  } else {
    QV_HOST_LastInvokeTimes(&times.conversion, &times.network);
  }
  return times;
}

qv_host::Image read_opaque_model(const std::string& path, std::string* text_header) {
  qv_host::Image image;
  *text_header = text_before_pattern(path);
  LibraryModel model(path, path);
  image.description.input = input_of(model.model().desc_, path);
  return image;
}

}  // namespace olvex_tools
