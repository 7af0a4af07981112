// SPDX-License-Identifier: Apache-2.0
// engine_quantisation.cpp - numbers of few bits become floats, for an engine that computes in floats: the
// weights exactly; activations are no longer rounded to steps, but still cut off at the ends of their range.
#include <algorithm>
#include <limits>
#include <map>
#include <optional>

#include "tools/network/constant_folding.h"
#include "tools/network/node_rewriting.h"

namespace olvex_tools {

namespace {

using onnx::TensorProto;

std::optional<ConstantValue> constant_value(const NetworkGraph& network, const std::string& name) {
  const TensorProto* const tensor = name.empty() ? nullptr : network.constant(name);
  return tensor == nullptr ? std::nullopt : read_constant(*tensor);
}

// The size of a run of elements with one scale, when there are scales for each index of the axis.
std::optional<std::size_t> run_of(const ConstantValue& value, std::size_t scales,
                                  std::int64_t axis) {
  const auto dimensions = static_cast<std::int64_t>(value.shape.size());
  axis = axis < 0 ? axis + dimensions : axis;
  if (scales == 1) {
    return std::max<std::size_t>(1, value.numbers.size());
  }
  if (axis < 0 || axis >= dimensions ||
      value.shape[static_cast<std::size_t>(axis)] != static_cast<std::int64_t>(scales)) {
    return std::nullopt;
  }
  return static_cast<std::size_t>(strides_of(value.shape)[static_cast<std::size_t>(axis)]);
}

// (value - zero) * scale; each list has one number, or one for each index of the axis.
std::optional<std::vector<float>> dequantised(const ConstantValue& value,
                                              const std::vector<double>& scales,
                                              const std::vector<double>& zeros, std::int64_t axis) {
  const std::size_t count = std::max(scales.size(), zeros.size());
  const bool fits = !scales.empty() && !zeros.empty() &&
                    (scales.size() == count || scales.size() == 1) &&
                    (zeros.size() == count || zeros.size() == 1);
  const std::optional<std::size_t> run = fits ? run_of(value, count, axis) : std::nullopt;
  if (!run) {
    return std::nullopt;
  }
  std::vector<float> floats(value.numbers.size());
  for (std::size_t i = 0; i < floats.size(); ++i) {
    const std::size_t index = i / *run % count;
    const double zero = zeros[zeros.size() == 1 ? 0 : index];
    const double scale = scales[scales.size() == 1 ? 0 : index];
    floats[i] = static_cast<float>((value.numbers[i] - zero) * scale);
  }
  return floats;
}

std::vector<double> zeros_of(const NetworkGraph& network, const std::string& name) {
  return name.empty() ? std::vector<double>{0}
                      : network.numbers(name).value_or(std::vector<double>());
}

struct Range {
  double least = 0;
  double most = 0;
};

std::optional<Range> range_of(int type) {
  switch (type) {
    case TensorProto::INT8:
      return Range{-128, 127};
    case TensorProto::UINT8:
      return Range{0, 255};
    default:
      return std::nullopt;
  }
}

// The weights of a ConvInteger or MatMulInteger without their zero points; nothing for other nodes.
std::optional<ConstantValue> plain_weights(const NetworkGraph& network,
                                           const onnx::NodeProto& node) {
  const bool is_convolution = is_operator(node, "ConvInteger");
  if ((!is_convolution && !is_operator(node, "MatMulInteger")) || node.input_size() < 2) {
    return std::nullopt;
  }
  std::optional<ConstantValue> weights = constant_value(network, node.input(1));
  const std::vector<double> zeros = zeros_of(network, node.input_size() > 3 ? node.input(3) : "");
  const std::optional<std::vector<float>> floats =
      weights ? dequantised(*weights, {1}, zeros, is_convolution ? 0 : -1) : std::nullopt;
  if (!floats) {
    return std::nullopt;
  }
  weights->type = TensorProto::FLOAT;
  weights->numbers.assign(floats->begin(), floats->end());
  return weights;
}

// Whether nothing but products with constants reads the integers.
bool feeds_products_only(const NetworkGraph& network, const onnx::NodeProto& node) {
  if (!is_operator(node, "DynamicQuantizeLinear") || node.input_size() != 1 ||
      node.output_size() != 3) {
    return false;
  }
  for (const int output : {0, 2}) {
    for (const onnx::NodeProto* const user : network.users_of(node.output(output))) {
      if (!plain_weights(network, *user)) {
        return false;
      }
    }
  }
  return true;
}

// Makes the weights of the product floats, and its other input what was quantised.
void compute_in_floats(const std::string& source, const ConstantValue& weights,
                       NetworkGraph* network, onnx::NodeProto* product) {
  product->set_op_type(is_operator(*product, "ConvInteger") ? "Conv" : "MatMul");
  product->mutable_input()->DeleteSubrange(2, product->input_size() - 2);
  product->set_input(0, source);
  const std::string name = network->add_floats(product->output(0) + "_floats", {}, {});
  product->set_input(1, name);
  write_constant(weights, name,
                 network->graph()->mutable_initializer(network->graph()->initializer_size() - 1));
}

// Its values stay as they are: they are counted in steps of 1.
void pass_through(const onnx::NodeProto& quantisation, NetworkGraph* network) {
  TensorProto* const scale = network->graph()->add_initializer();
  scale->set_name(quantisation.output(1));
  scale->set_data_type(TensorProto::FLOAT);
  scale->add_float_data(1.F);
}

}  // namespace

int widen_halves(NetworkGraph* network) {
  int count = 0;
  const auto widen_type = [](onnx::ValueInfoProto* value) {
    auto* const type = value->mutable_type()->mutable_tensor_type();
    if (type->elem_type() == TensorProto::FLOAT16) {
      type->set_elem_type(TensorProto::FLOAT);
    }
  };
  for (TensorProto& weights : *network->graph()->mutable_initializer()) {
    std::optional<ConstantValue> value =
        weights.data_type() == TensorProto::FLOAT16 ? read_constant(weights) : std::nullopt;
    if (value) {
      value->type = TensorProto::FLOAT;
      write_constant(*value, std::string(weights.name()), &weights);
      ++count;
    }
  }
  for (onnx::NodeProto& node : *network->graph()->mutable_node()) {
    if (is_operator(node, "Cast") && integer_attribute(node, "to", 0) == TensorProto::FLOAT16) {
      set_attribute(Attribute("to", std::int64_t{TensorProto::FLOAT}), &node);
    }
  }
  for (auto* const values :
       {network->graph()->mutable_input(), network->graph()->mutable_output()}) {
    std::for_each(values->pointer_begin(), values->pointer_end(), widen_type);
  }
  if (count != 0) {
    network->update();
  }
  return count;
}

int dequantise_weights(NetworkGraph* network) {
  return replace_nodes(network, [](Replacement* replacement) {
    const NetworkGraph& graph = replacement->network();
    if (!is_operator(replacement->node(), "DequantizeLinear")) {
      return false;
    }
    const std::optional<ConstantValue> value = constant_value(graph, replacement->input(0));
    const std::optional<std::vector<double>> scales = graph.numbers(replacement->input(1));
    if (!value || !scales) {
      return false;
    }
    const std::optional<std::vector<float>> floats =
        dequantised(*value, *scales, zeros_of(graph, replacement->input(2)),
                    integer_attribute(replacement->node(), "axis", 1));
    if (!floats) {
      return false;
    }
    replacement->add("Identity", {replacement->add_floats(value->shape, *floats)});
    return true;
  });
}

int drop_quantised_activations(NetworkGraph* network) {
  return replace_nodes(network, [](Replacement* replacement) {
    const NetworkGraph& graph = replacement->network();
    const onnx::NodeProto* const maker = graph.producer_of(replacement->input(0));
    if (!is_operator(replacement->node(), "DequantizeLinear") || maker == nullptr ||
        !is_operator(*maker, "QuantizeLinear") || maker->input_size() < 2) {
      return false;
    }
    const std::string zero_name = maker->input_size() > 2 ? maker->input(2) : "";
    const std::optional<std::vector<double>> scale = graph.numbers(replacement->input(1));
    const std::vector<double> zero = zeros_of(graph, replacement->input(2));
    const bool is_pair = scale && scale->size() == 1 && zero.size() == 1 &&
                         scale == graph.numbers(maker->input(1)) &&
                         zero == zeros_of(graph, zero_name);
    const TensorProto* const zero_point = zero_name.empty() ? nullptr : graph.constant(zero_name);
    const std::optional<Range> range =
        range_of(zero_point == nullptr ? int{TensorProto::UINT8} : zero_point->data_type());
    if (!is_pair || !range) {
      return false;
    }
    const auto bound = [&](double step) {
      return static_cast<float>((step - zero[0]) * (*scale)[0]);
    };
    replacement->add("Clip", {maker->input(0), replacement->add_floats({}, {bound(range->least)}),
                              replacement->add_floats({}, {bound(range->most)})});
    return true;
  });
}

int drop_dynamic_quantisation(NetworkGraph* network) {
  std::map<std::string, std::string> sources;  // of the integers
  std::vector<onnx::NodeProto*> dropped;
  for (onnx::NodeProto& node : *network->graph()->mutable_node()) {
    if (feeds_products_only(*network, node)) {
      sources[node.output(0)] = node.input(0);
      pass_through(node, network);
      dropped.push_back(&node);
    }
  }
  int count = 0;
  for (onnx::NodeProto& node : *network->graph()->mutable_node()) {
    const auto source = node.input_size() == 0 ? sources.end() : sources.find(node.input(0));
    if (source != sources.end()) {
      compute_in_floats(source->second, *plain_weights(*network, node), network, &node);
      ++count;
    }
  }
  for (onnx::NodeProto* const node : dropped) {
    node->Clear();
  }
  if (!sources.empty()) {
    remove_cleared_nodes(network);
    network->update();
  }
  return count;
}

}  // namespace olvex_tools
