// SPDX-License-Identifier: Apache-2.0
// network_head.h - runs a network in the host's engine as it is, without an image around it, and concludes
// which head it has: by its graph, and by what it computes for a picture.
#ifndef TOOLS_INSIDE_NETWORK_HEAD_H
#define TOOLS_INSIDE_NETWORK_HEAD_H

#include <optional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/dnn.hpp>

#include "platform/host/host_image.h"

#include "tools/heads/conclude_head.h"
#include "tools/heads/head.h"
#include "tools/network/loadable.h"
#include "tools/network/network_graph.h"
#include "tools/network/selection_tail.h"

namespace olvex_tools {

// ---- The run, for looking at the outputs and for proving a decoding -----------------------------

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

// ---- The head -----------------------------------------------------------------------------------

struct HeadRequest {
  std::optional<std::string> input;  // that takes the picture, where the network has several
  HeadOptions options;
  std::string model_out;                   // the word for raw layers; empty: any
  Selection selection = Selection::kNone;  // that was cut off the network
};

struct NetworkHead {
  InputSize size;                     // of the input that takes the picture
  std::vector<char> uncut;            // the network with its own outputs, as the engine takes it
  std::vector<HeadReading> readings;  // all that fit
};

// Runs the network and looks for its head. Throws ToolError: kModelError when it cannot be run, kUsageError
// when an option contradicts it.
//   network  static: see make_static()
//   picture  8-bit BGR
// Requires: this process has run no network yet.
NetworkHead conclude_network_head(const HeadRequest& request, const NetworkGraph& network,
                                  const cv::Mat& picture);

// Why there is no reading, with what to say instead.
//   family  that was asked for
std::string no_head_text(const NetworkGraph& network, const NetworkHead& head,
                         const std::optional<std::string>& family);

// "boxes 1x484x4, scores 1x484x80".
std::string outputs_text(const NetworkGraph& network);

// A frame of the street, part of the program.
cv::Mat street_picture();

}  // namespace olvex_tools

#endif  // TOOLS_INSIDE_NETWORK_HEAD_H
