// SPDX-License-Identifier: Apache-2.0
// loadable.h - makes a network one that the host's engine, OpenCV's dnn module, can load: exact rewrites
// of the graph, each of them named, and a refusal of what is left.
#ifndef TOOLS_NETWORK_LOADABLE_H
#define TOOLS_NETWORK_LOADABLE_H

#include <optional>
#include <string>
#include <vector>

#include "tools/network/network_graph.h"

namespace olvex_tools {

struct InputSize {
  std::int64_t width = 0;   // pixels
  std::int64_t height = 0;  // pixels
};

// Rewrites that leave a network which any engine can run: sizes that the file leaves open are fixed (the
// batch to 1, width and height to size, or to what metadata_props says), and what can be computed
// beforehand becomes a weight. Sizes that the file fixes stay. Returns one line for each kind of rewrite,
// for the report. Throws ToolError: kUsageError when width or height is open and unknown, kModelError when
// the number of planes is.
std::vector<std::string> make_static(const std::optional<InputSize>& size, NetworkGraph* network);

// Rewrites for OpenCV 4.6 alone: what it refuses or computes wrongly though it can compute the same in
// another form, and weights of few bits as floats. Some nodes have forms of other versions of the operators
// afterwards, so that only the engine reads the result as it is meant: do not update() it.
std::vector<std::string> fit_to_engine(NetworkGraph* network);

// An operator that the engine does not compute.
struct MissingOperator {
  std::string name;        // with the form, when other forms are computed
  std::string first_node;  // its name, or its output's
  int count = 0;           // of nodes
  std::string remedy;      // what to do
};

// In the order of their first nodes.
std::vector<MissingOperator> missing_operators(const NetworkGraph& network);

// Throws ToolError (kModelError) naming the operators that the engine lacks, with their nodes, the network's
// version of the operators, and what to do.
void require_known_operators(const NetworkGraph& network);

}  // namespace olvex_tools

#endif  // TOOLS_NETWORK_LOADABLE_H
