// append_decoding.h - appends the decoding of a head to the network, as nodes of standard operators.
#ifndef TOOLS_HEADS_APPEND_DECODING_H
#define TOOLS_HEADS_APPEND_DECODING_H

#include <string>

#include "tools/heads/head.h"
#include "tools/network/network_graph.h"

namespace olvex_tools {

// The outputs of the network that now holds its decoding.
struct DecodedOutputs {
  std::string boxes;      // 1 x N x 4, in the order that has_centre_and_size tells
  std::string scores;     // 1 x N x class_count
  std::string keypoints;  // 1 x N x K; empty: none
};

// Makes boxes, scores and key points the only outputs. An output that holds them as they are stays as it is.
// Throws ToolError (kModelError) when the network's version of the operators is too old for the nodes.
// Requires: the head is of this network, and not raw.
DecodedOutputs append_decoding(const Head& head, NetworkGraph* network);

}  // namespace olvex_tools

#endif  // TOOLS_HEADS_APPEND_DECODING_H
