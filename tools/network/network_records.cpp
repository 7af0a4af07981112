// SPDX-License-Identifier: Apache-2.0
// network_records.cpp - the records of an ONNX file: attributes of nodes made and read, the elements of
// weights, of whatever type, as doubles; and nodes put in the place of others. Declared in network_graph.h and
// node_rewriting.h.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <optional>

#include "tools/network/constant_folding.h"
#include "tools/network/network_graph.h"
#include "tools/network/node_rewriting.h"

namespace olvex_tools {

// ---- Attributes ---------------------------------------------------------------------------------

Attribute::Attribute(const std::string& name, std::int64_t value) {
  record_.set_name(name);
  record_.set_type(onnx::AttributeProto::INT);
  record_.set_i(value);
}

Attribute::Attribute(const std::string& name, float value) {
  record_.set_name(name);
  record_.set_type(onnx::AttributeProto::FLOAT);
  record_.set_f(value);
}

Attribute::Attribute(const std::string& name, const std::vector<std::int64_t>& values) {
  record_.set_name(name);
  record_.set_type(onnx::AttributeProto::INTS);
  for (const std::int64_t value : values) {
    record_.add_ints(value);
  }
}

const onnx::AttributeProto* find_attribute(const onnx::NodeProto& node, const std::string& name) {
  for (const onnx::AttributeProto& attribute : node.attribute()) {
    if (attribute.name() == name) {
      return &attribute;
    }
  }
  return nullptr;
}

std::int64_t integer_attribute(const onnx::NodeProto& node, const std::string& name,
                               std::int64_t usual) {
  const onnx::AttributeProto* attribute = find_attribute(node, name);
  return attribute == nullptr ? usual : attribute->i();
}

std::vector<std::int64_t> integers_attribute(const onnx::NodeProto& node, const std::string& name) {
  const onnx::AttributeProto* attribute = find_attribute(node, name);
  return attribute == nullptr
             ? std::vector<std::int64_t>()
             : std::vector<std::int64_t>(attribute->ints().begin(), attribute->ints().end());
}

float float_attribute(const onnx::NodeProto& node, const std::string& name, float usual) {
  const onnx::AttributeProto* attribute = find_attribute(node, name);
  return attribute == nullptr ? usual : attribute->f();
}

// ---- Weights ------------------------------------------------------------------------------------

namespace {

using onnx::TensorProto;

template <typename Element>
std::vector<double> packed_numbers(const std::string& bytes) {
  std::vector<double> numbers(bytes.size() / sizeof(Element));
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    Element element;
    std::memcpy(&element, bytes.data() + i * sizeof(Element), sizeof(Element));
    numbers[i] = static_cast<double>(element);
  }
  return numbers;
}

template <typename Elements>
std::vector<double> listed_numbers(const Elements& elements) {
  return std::vector<double>(elements.begin(), elements.end());
}

// IEEE 754 binary16, from the 16 bits of each.
std::vector<double> halves_in(std::vector<double> numbers) {
  for (double& number : numbers) {
    const auto bits = static_cast<unsigned>(number) & 0xffffu;
    const int exponent = static_cast<int>(bits >> 10 & 0x1fu);
    const double fraction = bits & 0x3ffu;
    double size = std::ldexp(fraction + (exponent == 0 ? 0 : 1024), std::max(exponent, 1) - 25);
    if (exponent == 0x1f) {
      size = fraction == 0 ? INFINITY : NAN;
    }
    number = (bits & 0x8000u) != 0 ? -size : size;
  }
  return numbers;
}

std::vector<double> elements_in(const TensorProto& tensor) {
  const bool packed = tensor.has_raw_data();
  switch (tensor.data_type()) {
    case TensorProto::FLOAT:
      return packed ? packed_numbers<float>(tensor.raw_data())
                    : listed_numbers(tensor.float_data());
    case TensorProto::FLOAT16:
      return packed ? halves_in(packed_numbers<std::uint16_t>(tensor.raw_data()))
                    : halves_in(listed_numbers(tensor.int32_data()));
    case TensorProto::DOUBLE:
      return packed ? packed_numbers<double>(tensor.raw_data())
                    : listed_numbers(tensor.double_data());
    case TensorProto::INT64:
      return packed ? packed_numbers<std::int64_t>(tensor.raw_data())
                    : listed_numbers(tensor.int64_data());
    case TensorProto::INT32:
      return packed ? packed_numbers<std::int32_t>(tensor.raw_data())
                    : listed_numbers(tensor.int32_data());
    case TensorProto::INT8:
      return packed ? packed_numbers<std::int8_t>(tensor.raw_data())
                    : listed_numbers(tensor.int32_data());
    case TensorProto::UINT8:
    case TensorProto::BOOL:
      return packed ? packed_numbers<std::uint8_t>(tensor.raw_data())
                    : listed_numbers(tensor.int32_data());
    default:
      return {};
  }
}

}  // namespace

std::optional<std::vector<double>> numbers_of(const TensorProto& tensor) {
  const std::vector<double> numbers = elements_in(tensor);
  const Shape shape(tensor.dims().begin(), tensor.dims().end());
  const bool whole = static_cast<std::int64_t>(numbers.size()) == elements_of(shape);
  return whole ? std::make_optional(numbers) : std::nullopt;
}

// ---- Nodes --------------------------------------------------------------------------------------

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
