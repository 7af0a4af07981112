// network_head.h - concludes which head a whole network has: its graph, and what it computes for a picture.
#ifndef TOOLS_INSIDE_NETWORK_HEAD_H
#define TOOLS_INSIDE_NETWORK_HEAD_H

#include <optional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "tools/heads/conclude_head.h"
#include "tools/network/loadable.h"
#include "tools/network/network_graph.h"
#include "tools/network/selection_tail.h"

namespace olvex_tools {

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
