// selection_nodes.h - the nodes of a network that select boxes from its results.
#ifndef TOOLS_NETWORK_SELECTION_NODES_H
#define TOOLS_NETWORK_SELECTION_NODES_H

#include <set>
#include <string>
#include <vector>

#include "tools/network/network_graph.h"

namespace olvex_tools {

// The nodes that select boxes and those behind them, where no layer with weights follows them.
struct SelectionNodes {
  std::vector<std::string>
      selectors;  // first outputs of TopK and NonMaxSuppression, in the graph's order
  std::set<std::string> selected;  // every value behind them
};
SelectionNodes find_selection(const NetworkGraph& network);

bool is_one_of(const onnx::NodeProto& node, const std::set<std::string>& operations);
// Whether it leaves the elements as they are, in their order.
bool only_reshapes(const onnx::NodeProto& node);
// TopK of one: the best of each row among its classes, which selects no rows.
bool chooses_class(const NetworkGraph& network, const onnx::NodeProto& node);

}  // namespace olvex_tools

#endif  // TOOLS_NETWORK_SELECTION_NODES_H
