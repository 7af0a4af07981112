// SPDX-License-Identifier: Apache-2.0
// selection_tail.h - finds the selection of boxes at the end of a network, and takes it off: the library
// selects, and an engine that has no such operators takes what is left.
#ifndef TOOLS_NETWORK_SELECTION_TAIL_H
#define TOOLS_NETWORK_SELECTION_TAIL_H

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

enum class Selection {
  kNone,
  kBest,        // by TopK alone
  kSuppression  // by NonMaxSuppression, to which x first and y first are the same
};

struct SelectionCut {
  std::vector<std::string> lines;  // for the report; none when nothing was cut
  std::string obstacle;  // why a selection is still there; empty: there was none, or it is cut
  Selection selection = Selection::kNone;  // that was cut off
  // The outputs are now boxes, scores and perhaps key points, of all candidates.
  bool decoded_tables = false;
};

// The network is static: see make_static(). TopK and NonMaxSuppression that layers with weights follow are
// part of the network, and stay. Where there is an obstacle the network is as it was.
SelectionCut cut_selection(NetworkGraph* network);

}  // namespace olvex_tools

#endif  // TOOLS_NETWORK_SELECTION_TAIL_H
