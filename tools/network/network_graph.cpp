// SPDX-License-Identifier: Apache-2.0
// network_graph.cpp - the records of an ONNX file by libonnx, with an index of names and shapes.
#include "tools/network/network_graph.h"

#include <algorithm>
#include <exception>
#include <limits>

#include <onnx/shape_inference/implementation.h>

#include "tools/common/command.h"

namespace olvex_tools {

namespace {

using onnx::TensorProto;

Shape shape_of_type(const onnx::TypeProto& type) {
  Shape shape;
  for (const auto& dimension : type.tensor_type().shape().dim()) {
    shape.push_back(std::max<std::int64_t>(0, dimension.dim_value()));
  }
  return shape;
}

bool has_shape(const onnx::ValueInfoProto& value) {
  return value.type().has_tensor_type() && value.type().tensor_type().has_shape();
}

void set_tensor_type(const NetworkTensor& tensor, onnx::ValueInfoProto* value) {
  value->set_name(tensor.name);
  auto* type = value->mutable_type()->mutable_tensor_type();
  type->set_elem_type(TensorProto::FLOAT);
  for (const std::int64_t size : tensor.shape) {
    type->mutable_shape()->add_dim()->set_dim_value(size);
  }
}

void refuse_outside_weights(const std::string& path, const onnx::GraphProto& graph) {
  for (const TensorProto& weights : graph.initializer()) {
    if (weights.data_location() == TensorProto::EXTERNAL) {
      throw ToolError(kModelError, path + ": the weights are in other files (\"" + weights.name() +
                                       "\"). Export the network with its weights inside");
    }
  }
}

}  // namespace

std::int64_t elements_of(const Shape& shape) {
  std::int64_t count = 1;
  for (const std::int64_t size : shape) {
    const bool fits =
        size >= 0 && (size == 0 || count <= std::numeric_limits<std::int64_t>::max() / size);
    count = fits ? count * size : -1;
    if (count <= 0) {
      return count;
    }
  }
  return count;
}

std::string describe(const NetworkTensor& tensor) {
  std::string text;
  for (const std::int64_t size : tensor.shape) {
    text += (text.empty() ? "" : "x") + (size > 0 ? std::to_string(size) : "?");
  }
  return tensor.name + (text.empty() ? "" : " " + text);
}

std::vector<std::string> names_of(const std::vector<NetworkTensor>& tensors) {
  std::vector<std::string> names;
  for (const NetworkTensor& tensor : tensors) {
    names.push_back(tensor.name);
  }
  return names;
}

NetworkGraph::NetworkGraph(const std::string& path, const std::vector<char>& bytes) : path_(path) {
  const bool fits = bytes.size() <= static_cast<std::size_t>(std::numeric_limits<int>::max());
  if (!fits || !model_.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()))) {
    throw ToolError(kModelError, path + " is not an ONNX network, or it is cut short");
  }
  refuse_outside_weights(path, model_.graph());
  index();
  if (inputs().empty() || outputs().empty()) {
    throw ToolError(kModelError, path + " is not an ONNX network with an input and outputs");
  }
  update();
}

std::vector<char> NetworkGraph::bytes() const {
  std::vector<char> bytes(model_.ByteSizeLong());
  model_.SerializeToArray(bytes.data(), static_cast<int>(bytes.size()));
  return bytes;
}

std::int64_t NetworkGraph::opset() const {
  for (const auto& set : model_.opset_import()) {
    if (set.domain().empty() || set.domain() == "ai.onnx") {
      return set.version();
    }
  }
  return 1;
}

std::map<std::string, std::string> NetworkGraph::metadata() const {
  std::map<std::string, std::string> entries;
  for (const auto& entry : model_.metadata_props()) {
    entries[entry.key()] = entry.value();
  }
  return entries;
}

std::vector<NetworkTensor> NetworkGraph::inputs() const {
  std::vector<NetworkTensor> tensors;
  for (const auto& input : model_.graph().input()) {
    if (weights_.count(input.name()) == 0) {  // some exporters list the weights, too
      tensors.push_back({input.name(), shape_of_type(input.type())});
    }
  }
  return tensors;
}

std::vector<NetworkTensor> NetworkGraph::outputs() const {
  std::vector<NetworkTensor> tensors;
  for (const auto& output : model_.graph().output()) {
    tensors.push_back({output.name(), shape_of(output.name()).value_or(Shape())});
  }
  return tensors;
}

std::optional<Shape> NetworkGraph::shape_of(const std::string& value) const {
  const auto found = shapes_.find(value);
  return found == shapes_.end() ? std::nullopt : std::make_optional(found->second);
}

const onnx::NodeProto* NetworkGraph::producer_of(const std::string& value) const {
  const auto found = producers_.find(value);
  return found == producers_.end() ? nullptr : &model_.graph().node(found->second);
}

std::vector<const onnx::NodeProto*> NetworkGraph::users_of(const std::string& value) const {
  std::vector<const onnx::NodeProto*> nodes;
  const auto found = users_.find(value);
  if (found != users_.end()) {
    for (const int node : found->second) {
      nodes.push_back(&model_.graph().node(node));
    }
  }
  return nodes;
}

const TensorProto* NetworkGraph::constant(const std::string& value) const {
  const auto found = weights_.find(value);
  if (found != weights_.end()) {
    return &model_.graph().initializer(found->second);
  }
  const onnx::NodeProto* producer = producer_of(value);
  const onnx::AttributeProto* attribute = producer != nullptr && producer->op_type() == "Constant"
                                              ? find_attribute(*producer, "value")
                                              : nullptr;
  return attribute == nullptr ? nullptr : &attribute->t();
}

std::optional<std::vector<double>> NetworkGraph::numbers(const std::string& value) const {
  const TensorProto* tensor = constant(value);
  return tensor == nullptr ? std::nullopt : numbers_of(*tensor);
}

std::string NetworkGraph::unused_name(const std::string& hint) const {
  const auto is_used = [&](const std::string& name) {
    return shapes_.count(name) + producers_.count(name) + users_.count(name) +
               weights_.count(name) !=
           0;
  };
  std::string name = hint;
  for (int number = 2; is_used(name); ++number) {
    name = hint + "_" + std::to_string(number);
  }
  return name;
}

std::string NetworkGraph::add_floats(const std::string& hint, const Shape& shape,
                                     const std::vector<float>& values) {
  TensorProto* tensor = graph()->add_initializer();
  tensor->set_name(unused_name(hint));
  tensor->set_data_type(TensorProto::FLOAT);
  *tensor->mutable_dims() = {shape.begin(), shape.end()};
  tensor->set_raw_data(values.data(), values.size() * sizeof(float));
  weights_[tensor->name()] = graph()->initializer_size() - 1;
  shapes_[tensor->name()] = shape;
  return tensor->name();
}

std::string NetworkGraph::add_integers(const std::string& hint,
                                       const std::vector<std::int64_t>& values) {
  TensorProto* tensor = graph()->add_initializer();
  tensor->set_name(unused_name(hint));
  tensor->set_data_type(TensorProto::INT64);
  tensor->add_dims(static_cast<std::int64_t>(values.size()));
  tensor->set_raw_data(values.data(), values.size() * sizeof(std::int64_t));
  weights_[tensor->name()] = graph()->initializer_size() - 1;
  shapes_[tensor->name()] = {static_cast<std::int64_t>(values.size())};
  return tensor->name();
}

std::string NetworkGraph::add_node(const std::string& hint, const std::string& operation,
                                   const std::vector<std::string>& inputs,
                                   const std::vector<Attribute>& attributes) {
  onnx::NodeProto* node = graph()->add_node();
  const std::string name = unused_name(hint);
  node->set_name(name);
  node->set_op_type(operation);
  node->add_output(name);
  const int place = graph()->node_size() - 1;
  producers_[name] = place;
  for (const std::string& input : inputs) {
    node->add_input(input);
    users_[input].push_back(place);
  }
  for (const Attribute& attribute : attributes) {
    *node->add_attribute() = attribute.record();
  }
  return name;
}

void NetworkGraph::set_outputs(const std::vector<NetworkTensor>& outputs) {
  graph()->clear_output();
  for (const NetworkTensor& output : outputs) {
    set_tensor_type(output, graph()->add_output());
  }
}

void NetworkGraph::update() {
  order_nodes();
  shapes_.clear();
  graph()->clear_value_info();
  const auto outputs = graph()->output();
  try {
    // Sizes that Shape, Gather and Concat compute count as known.
    const onnx::ShapeInferenceOptions options(false, 0, true);
    onnx::shape_inference::InferShapes(model_, onnx::OpSchemaRegistry::Instance(), options);
  } catch (const std::exception&) {
    // An operator or a shape that libonnx does not know leaves shapes open; those that need one say so.
  }
  index();
  // They stay in the index alone: engines infer their own, and refuse a network over a name without one.
  graph()->clear_value_info();
  *graph()->mutable_output() = outputs;
}

int NetworkGraph::remove_unused() {
  std::set<std::string> needed;
  for (const onnx::ValueInfoProto& output : graph()->output()) {
    needed.insert(output.name());
  }
  const int before = graph()->node_size();
  google::protobuf::RepeatedPtrField<onnx::NodeProto> kept;
  for (int i = before; i-- > 0;) {  // users stand behind what they use
    onnx::NodeProto* const node = graph()->mutable_node(i);
    const bool is_needed =
        std::any_of(node->output().begin(), node->output().end(),
                    [&](const std::string& output) { return needed.count(output) != 0; });
    if (is_needed) {
      needed.merge(values_read_by(*node));
      kept.Add()->Swap(node);
    }
  }
  std::reverse(kept.pointer_begin(), kept.pointer_end());
  graph()->mutable_node()->Swap(&kept);
  auto* const weights = graph()->mutable_initializer();
  weights->erase(
      std::remove_if(weights->begin(), weights->end(),
                     [&](const TensorProto& tensor) { return needed.count(tensor.name()) == 0; }),
      weights->end());
  index();
  return before - graph()->node_size();
}

void NetworkGraph::order_nodes() {
  auto* const nodes = graph()->mutable_node();
  std::map<std::string, int> makers;
  for (int i = 0; i < nodes->size(); ++i) {
    for (const std::string& output : nodes->Get(i).output()) {
      makers.emplace(output, i);
    }
  }
  std::vector<int> missing(static_cast<std::size_t>(nodes->size()));
  std::map<int, std::vector<int>> followers;
  std::set<int> ready;
  for (int i = 0; i < nodes->size(); ++i) {
    for (const std::string& value : values_read_by(nodes->Get(i))) {
      const auto maker = value.empty() ? makers.end() : makers.find(value);
      if (maker != makers.end()) {
        followers[maker->second].push_back(i);
        ++missing[static_cast<std::size_t>(i)];
      }
    }
    if (missing[static_cast<std::size_t>(i)] == 0) {
      ready.insert(i);
    }
  }
  std::vector<onnx::NodeProto*> ordered;
  while (!ready.empty()) {
    const int first = *ready.begin();
    ready.erase(ready.begin());
    ordered.push_back(nodes->Mutable(first));
    for (const int follower : followers[first]) {
      if (--missing[static_cast<std::size_t>(follower)] == 0) {
        ready.insert(follower);
      }
    }
  }
  const bool has_cycle = ordered.size() != missing.size();  // the engine refuses it
  if (!has_cycle) {
    std::copy(ordered.begin(), ordered.end(), nodes->pointer_begin());
  }
}

void NetworkGraph::index() {
  producers_.clear();
  users_.clear();
  weights_.clear();
  const onnx::GraphProto& graph = model_.graph();
  for (const auto* values : {&graph.value_info(), &graph.input(), &graph.output()}) {
    for (const onnx::ValueInfoProto& value : *values) {
      if (has_shape(value) && shapes_.count(value.name()) == 0) {
        shapes_[value.name()] = shape_of_type(value.type());
      }
    }
  }
  for (int i = 0; i < graph.initializer_size(); ++i) {
    const TensorProto& weights = graph.initializer(i);
    weights_[weights.name()] = i;
    shapes_[weights.name()] = Shape(weights.dims().begin(), weights.dims().end());
  }
  for (int i = 0; i < graph.node_size(); ++i) {
    for (const std::string& output : graph.node(i).output()) {
      producers_[output] = i;
    }
    for (const std::string& input : graph.node(i).input()) {
      users_[input].push_back(i);
    }
  }
}

std::set<std::string> values_read_by(const onnx::NodeProto& node) {
  std::set<std::string> values(node.input().begin(), node.input().end());
  for (const onnx::AttributeProto& attribute : node.attribute()) {
    for (const onnx::NodeProto& inner : attribute.g().node()) {
      values.merge(values_read_by(inner));
    }
    for (const onnx::ValueInfoProto& output : attribute.g().output()) {
      values.insert(output.name());
    }
  }
  return values;
}

}  // namespace olvex_tools
