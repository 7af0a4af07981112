// engine_attributes.cpp - parameters that the engine reads from attributes only, which newer versions of the
// operators take as inputs, and those that it needs though they have a usual value.
#include <limits>
#include <optional>

#include "tools/network/node_rewriting.h"

namespace olvex_tools {

namespace {

// The one number of a constant, or usual where the input is left out.
std::optional<float> bound(const NetworkGraph& network, const onnx::NodeProto& node, int input,
                           float usual) {
  if (node.input_size() <= input || node.input(input).empty()) {
    return usual;
  }
  const std::optional<std::vector<double>> numbers = network.numbers(node.input(input));
  return numbers && numbers->size() == 1 ? std::make_optional(static_cast<float>((*numbers)[0]))
                                         : std::nullopt;
}

std::optional<std::vector<std::int64_t>> integers(const NetworkGraph& network,
                                                  const std::string& name) {
  const std::optional<std::vector<double>> numbers = network.numbers(name);
  return numbers ? std::make_optional(std::vector<std::int64_t>(numbers->begin(), numbers->end()))
                 : std::nullopt;
}

bool is_reduction(const onnx::NodeProto& node) {
  return node.op_type().rfind("Reduce", 0) == 0;
}

// Conv and ConvTranspose may leave the size of their windows to the weights.
bool write_window(const NetworkGraph& network, onnx::NodeProto* node) {
  const bool is_convolution = is_operator(*node, "Conv") || is_operator(*node, "ConvTranspose");
  if (!is_convolution || node->input_size() < 2 ||
      find_attribute(*node, "kernel_shape") != nullptr) {
    return false;
  }
  const Shape shape = network.shape_of(node->input(1)).value_or(Shape());
  if (shape.size() < 3) {
    return false;
  }
  set_attribute(Attribute("kernel_shape", Shape(shape.begin() + 2, shape.end())), node);
  return true;
}

bool write_epsilon(onnx::NodeProto* node) {
  if (!is_operator(*node, "InstanceNormalization") || find_attribute(*node, "epsilon") != nullptr) {
    return false;
  }
  constexpr float kUsualEpsilon = 1e-5F;
  set_attribute(Attribute("epsilon", kUsualEpsilon), node);
  return true;
}

}  // namespace

int turn_clip_bounds_into_attributes(NetworkGraph* network) {
  int count = 0;
  for (onnx::NodeProto& node : *network->graph()->mutable_node()) {
    if (!is_operator(node, "Clip") || node.input_size() < 2) {
      continue;
    }
    constexpr float kMost = std::numeric_limits<float>::max();
    const std::optional<float> least = bound(*network, node, 1, -kMost);
    const std::optional<float> most = bound(*network, node, 2, kMost);
    if (least && most) {
      set_attribute(Attribute("min", *least), &node);
      set_attribute(Attribute("max", *most), &node);
      keep_first_input(&node);
      ++count;
    }
  }
  return count;
}

int turn_axes_into_attributes(NetworkGraph* network) {
  int count = 0;
  for (onnx::NodeProto& node : *network->graph()->mutable_node()) {
    const auto axes = is_reduction(node) && node.input_size() == 2
                          ? integers(*network, node.input(1))
                          : std::nullopt;
    if (axes) {
      set_attribute(Attribute("axes", *axes), &node);
      keep_first_input(&node);
      ++count;
    }
  }
  return count;
}

int turn_split_sizes_into_attributes(NetworkGraph* network) {
  int count = 0;
  for (onnx::NodeProto& node : *network->graph()->mutable_node()) {
    const auto sizes = is_operator(node, "Split") && node.input_size() == 2
                           ? integers(*network, node.input(1))
                           : std::nullopt;
    if (sizes) {
      const auto dimensions =
          static_cast<std::int64_t>(network->shape_of(node.input(0)).value_or(Shape()).size());
      const std::int64_t axis = integer_attribute(node, "axis", 0);
      set_attribute(Attribute("axis", axis < 0 ? axis + dimensions : axis), &node);
      set_attribute(Attribute("split", *sizes), &node);
      keep_first_input(&node);
      ++count;
    }
  }
  return count;
}

int write_usual_attributes(NetworkGraph* network) {
  int count = 0;
  for (onnx::NodeProto& node : *network->graph()->mutable_node()) {
    count += write_window(*network, &node) || write_epsilon(&node) ? 1 : 0;
  }
  return count;
}

}  // namespace olvex_tools
