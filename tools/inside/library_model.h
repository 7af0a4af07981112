// SPDX-License-Identifier: Apache-2.0
// library_model.h - one model opened through the library's own loading code, so that pack and inspect see
// exactly what the library will make of it; and the codes of the library and of the host accelerator in
// words. command.h has the exit codes, qv_host.h the accelerator's codes.
#ifndef TOOLS_INSIDE_LIBRARY_MODEL_H
#define TOOLS_INSIDE_LIBRARY_MODEL_H

#include <memory>
#include <string>
#include <vector>

#include "base/sdet/sdet_model.h"
#include "platform/host/host_image.h"
#include "qv_types.h"

#include "tools/common/command.h"

namespace olvex_tools {

// ---- Codes in words -----------------------------------------------------------------------------

struct ResultCode {
  QV_S32 code;
  ExitCode exit_code;
  const char* text;  // one sentence without its full stop
};

// Of an unknown code, what is common to all of them.
const ResultCode& explain_result(QV_S32 code);

// ---- The model ----------------------------------------------------------------------------------

// The description and the checked parts of a model file; *text_header gets what stands before the start
// pattern. Of a model of a foreign platform, see foreign_platform.h. Throws ToolError.
// Requires: a LibraryLog exists.
qv_host::Image read_model_file(const std::string& path, std::string* text_header);

// A device, and on it a channel for the model; both are closed by the destructor. One at a time.
// Requires: a LibraryLog exists, as the library prints.
class LibraryModel {
 public:
  // name: what messages call the model (the file that it is to become). Throws ToolError:
  // kModelError when the model is refused, kAcceleratorError when there is no device.
  LibraryModel(const std::string& path, const std::string& name);
  // The same for the bytes of a model file.
  LibraryModel(std::vector<char> file, const std::string& name);
  ~LibraryModel();
  LibraryModel(const LibraryModel&) = delete;
  LibraryModel& operator=(const LibraryModel&) = delete;

  // Runs one frame in the model's input format and returns the boxes at or above the threshold, in
  // network pixels. Throws ToolError: kAcceleratorError when the accelerator fails, kModelError
  // when the library refuses the outputs.
  std::vector<BoxInfo> detect(std::vector<unsigned char>* frame, float threshold);

  DetAfModel& model() { return *model_; }
  unsigned variable_buffer_size() const { return variable_buffer_size_; }  // bytes

 private:
  void create_device();
  void open_channel(const std::string& path);  // path: in what the accelerator prints

  std::string name_;
  std::unique_ptr<DetAfModel> model_;
  unsigned variable_buffer_size_ = 0;
  bool channel_open_ = false;
};

// What the network engine said of a network, without its own calls and names; empty when the text is not its.
std::string engine_reason(const std::string& text);

}  // namespace olvex_tools

#endif  // TOOLS_INSIDE_LIBRARY_MODEL_H
