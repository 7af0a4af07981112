// node_attributes.cpp - attributes of nodes: how they are made and read. Declared in network_graph.h.
#include "tools/network/network_graph.h"

namespace olvex_tools {

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

}  // namespace olvex_tools
