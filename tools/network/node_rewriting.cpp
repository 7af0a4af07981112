// node_rewriting.cpp - replaces nodes and changes attributes.
#include "tools/network/node_rewriting.h"

#include <algorithm>
#include <optional>

#include "tools/network/constant_folding.h"

namespace olvex_tools {

std::optional<Shape> Replacement::shape_of(const std::string& value) const {
  const std::optional<Shape> shape = network_.shape_of(value);
  return shape && elements_of(*shape) > 0 ? shape : std::nullopt;
}

namespace {

// What was added before the failure stays unused.
bool can_rewrite(Replacement* replacement, const std::function<bool(Replacement*)>& rewrite) {
  try {
    return rewrite(replacement);
  } catch (const CannotCompute&) {
    return false;
  }
}

}  // namespace

int replace_nodes(NetworkGraph* network, const std::function<bool(Replacement*)>& rewrite) {
  int count = 0;
  const int before = network->graph()->node_size();
  for (int i = 0; i < before; ++i) {
    onnx::NodeProto* const node = network->graph()->mutable_node(i);
    Replacement replacement(*node, network);
    if (node->output_size() == 0 || !can_rewrite(&replacement, rewrite)) {
      continue;
    }
    const int last = network->graph()->node_size() - 1;
    *network->graph()->mutable_node(last)->mutable_output(0) = node->output(0);
    node->Clear();
    ++count;
  }
  if (count == 0) {
    return 0;
  }
  remove_cleared_nodes(network);
  network->update();
  return count;
}

void remove_cleared_nodes(NetworkGraph* network) {
  auto* const nodes = network->graph()->mutable_node();
  nodes->erase(std::remove_if(nodes->begin(), nodes->end(),
                              [](const onnx::NodeProto& node) { return node.op_type().empty(); }),
               nodes->end());
}

bool is_operator(const onnx::NodeProto& node, const std::string& name) {
  return node.op_type() == name && (node.domain().empty() || node.domain() == "ai.onnx");
}

void set_attribute(const Attribute& attribute, onnx::NodeProto* node) {
  for (onnx::AttributeProto& present : *node->mutable_attribute()) {
    if (present.name() == attribute.record().name()) {
      present = attribute.record();
      return;
    }
  }
  *node->add_attribute() = attribute.record();
}

void keep_first_input(onnx::NodeProto* node) {
  node->mutable_input()->DeleteSubrange(1, node->input_size() - 1);
}

}  // namespace olvex_tools
