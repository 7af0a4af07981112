// selection_nodes.cpp - tells a selection of results from one inside the network, by what follows it.
#include "tools/network/selection_nodes.h"

#include <optional>

#include "tools/network/node_rewriting.h"

namespace olvex_tools {

namespace {

using onnx::NodeProto;

// Turns the four values of a box into four others, as corners into centre and size.
bool transforms_boxes(const NetworkGraph& network, const std::string& matrix) {
  return network.constant(matrix) != nullptr && network.shape_of(matrix) == Shape{4, 4};
}

// A layer of the network itself: what stands in front of it is no selection of results.
bool is_layer(const NetworkGraph& network, const NodeProto& node) {
  static const std::set<std::string> kLayers = {"Conv",
                                                "ConvTranspose",
                                                "Gemm",
                                                "LSTM",
                                                "GRU",
                                                "RNN",
                                                "Einsum",
                                                "RoiAlign",
                                                "GridSample",
                                                "Attention",
                                                "Resize",
                                                "MaxPool",
                                                "AveragePool",
                                                "ConvInteger",
                                                "MatMulInteger",
                                                "QLinearConv",
                                                "QLinearMatMul",
                                                "LayerNormalization",
                                                "InstanceNormalization"};
  if (node.op_type() == "MatMul") {
    return node.input_size() != 2 || !transforms_boxes(network, node.input(1));
  }
  return is_one_of(node, kLayers);
}

bool is_selector(const NetworkGraph& network, const NodeProto& node) {
  return node.output_size() > 0 && node.input_size() > 0 &&
         ((is_operator(node, "NonMaxSuppression") && node.input_size() > 1) ||
          (is_operator(node, "TopK") && !chooses_class(network, node)));
}

// Everything behind a node; nothing when a layer is there.
std::optional<std::set<std::string>> values_behind(const NetworkGraph& network,
                                                   const NodeProto& start) {
  std::set<std::string> found;
  std::vector<const NodeProto*> waiting = {&start};
  while (!waiting.empty()) {
    const NodeProto& node = *waiting.back();
    waiting.pop_back();
    if (is_layer(network, node)) {
      return std::nullopt;
    }
    for (const std::string& output : node.output()) {
      if (!output.empty() && found.insert(output).second) {
        const std::vector<const NodeProto*> users = network.users_of(output);
        waiting.insert(waiting.end(), users.begin(), users.end());
      }
    }
  }
  return found;
}

}  // namespace

bool is_one_of(const NodeProto& node, const std::set<std::string>& operations) {
  return operations.count(node.op_type()) != 0;
}

// Whether it leaves the elements as they are, in their order.
bool only_reshapes(const NodeProto& node) {
  return is_one_of(node,
                   {"Reshape", "Flatten", "Squeeze", "Unsqueeze", "Identity", "Cast", "Dropout"});
}

bool chooses_class(const NetworkGraph& network, const NodeProto& node) {
  if (node.op_type() != "TopK") {
    return false;
  }
  const auto count = network.numbers(node.input_size() > 1 ? node.input(1) : "");
  return count ? *count == std::vector<double>{1} : integer_attribute(node, "k", 0) == 1;
}

SelectionNodes find_selection(const NetworkGraph& network) {
  SelectionNodes nodes;
  for (const NodeProto& node : network.model().graph().node()) {
    if (!is_selector(network, node)) {
      continue;
    }
    if (const auto behind = values_behind(network, node)) {
      nodes.selectors.push_back(node.output(0));
      nodes.selected.insert(behind->begin(), behind->end());
    }
  }
  return nodes;
}

}  // namespace olvex_tools
