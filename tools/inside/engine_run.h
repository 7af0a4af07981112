// engine_run.h - runs a network in the host's engine as it is, without an image around it: for looking at
// the outputs that a head is concluded from, and for proving its decoding.
#ifndef TOOLS_INSIDE_ENGINE_RUN_H
#define TOOLS_INSIDE_ENGINE_RUN_H

#include <string>
#include <vector>

#include <opencv2/dnn.hpp>

#include "platform/host/host_image.h"

#include "tools/heads/plain_reading.h"

namespace olvex_tools {

// How the picture's values become the network's.
struct InputValues {
  std::string name;  // of the network's input
  int width = 0;
  int height = 0;
  qv_host::Resize resize = qv_host::Resize::kStretch;
  qv_host::ColourOrder order = qv_host::ColourOrder::kRgb;
  std::array<float, 3> mean = {{0.f, 0.f, 0.f}};
  std::array<float, 3> scale = {{1.f, 1.f, 1.f}};
};

InputValues input_values(const qv_host::InputDescription& input);

class EngineRun {
 public:
  // Throws ToolError (kModelError) when the engine does not take the network.
  //   path  for messages
  EngineRun(const std::vector<char>& network, const std::string& path,
            const std::vector<std::string>& outputs, bool fusion);

  // The outputs for a picture (8-bit BGR), which is brought to the network's size. Throws ToolError
  // (kModelError) when the network does not run.
  OutputValues run(const cv::Mat& picture, const InputValues& input);

 private:
  [[noreturn]] void fail(const cv::Exception& error, const std::string& failure) const;

  std::string path_;
  std::vector<std::string> outputs_;
  cv::dnn::Net net_;
};

}  // namespace olvex_tools

#endif  // TOOLS_INSIDE_ENGINE_RUN_H
