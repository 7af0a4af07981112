// SPDX-License-Identifier: Apache-2.0
// network_graph.h - an ONNX network that is read, looked into, changed and written. Beside the file's own
// records it knows the shape of every value and which node makes or uses it.
#ifndef TOOLS_NETWORK_NETWORK_GRAPH_H
#define TOOLS_NETWORK_NETWORK_GRAPH_H

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <onnx/onnx_pb.h>

namespace olvex_tools {

using Shape = std::vector<std::int64_t>;  // 0 where the network leaves a size open

std::int64_t elements_of(const Shape& shape);

struct NetworkTensor {
  std::string name;
  Shape shape;
};

// "boxes 1x484x4", with ? for open sizes.
std::string describe(const NetworkTensor& tensor);
std::vector<std::string> names_of(const std::vector<NetworkTensor>& tensors);

// An attribute of a node to be added. ints, floats and f are mutually exclusive.
class Attribute {
 public:
  explicit Attribute(onnx::AttributeProto record) : record_(std::move(record)) {}
  Attribute(const std::string& name, std::int64_t value);
  Attribute(const std::string& name, float value);
  Attribute(const std::string& name, const std::vector<std::int64_t>& values);
  const onnx::AttributeProto& record() const { return record_; }

 private:
  onnx::AttributeProto record_;
};

class NetworkGraph {
 public:
  // Reads a network and infers the shapes of its values. Throws ToolError (kModelError) when the bytes are
  // not an ONNX network with an input and outputs, or when its weights are in other files.
  NetworkGraph(const std::string& path, const std::vector<char>& bytes);

  std::vector<char> bytes() const;
  const std::string& path() const { return path_; }  // for messages

  // ---- Looking ----------------------------------------------------------------------------------

  const onnx::ModelProto& model() const { return model_; }
  std::int64_t opset() const;                           // of the standard operators
  std::map<std::string, std::string> metadata() const;  // metadata_props
  std::vector<NetworkTensor> inputs() const;            // without the weights
  std::vector<NetworkTensor> outputs() const;

  // Nothing when not even the number of dimensions is known.
  std::optional<Shape> shape_of(const std::string& value) const;

  // The node that computes a value; null for an input or a weight.
  const onnx::NodeProto* producer_of(const std::string& value) const;
  std::vector<const onnx::NodeProto*> users_of(const std::string& value) const;

  // A weight, or the value of a Constant node; null for what is computed.
  const onnx::TensorProto* constant(const std::string& value) const;
  // Its elements as doubles (integers and floats of any width); nothing for what is not constant.
  std::optional<std::vector<double>> numbers(const std::string& value) const;

  // ---- Changing ---------------------------------------------------------------------------------

  // Each adds behind all other nodes and returns the name of the new value, which begins with hint.
  std::string add_floats(const std::string& hint, const Shape& shape,
                         const std::vector<float>& values);
  std::string add_integers(const std::string& hint, const std::vector<std::int64_t>& values);
  std::string add_node(const std::string& hint, const std::string& operation,
                       const std::vector<std::string>& inputs,
                       const std::vector<Attribute>& attributes = {});

  // A name that no value has: hint, or hint with a number behind it.
  std::string unused_name(const std::string& hint) const;

  // Makes exactly these values the outputs, FP32, in this order.
  void set_outputs(const std::vector<NetworkTensor>& outputs);

  // For rewriting. Call update() afterwards: it brings the nodes into the order in which they are computed,
  // and the shapes and the index of names up to date.
  onnx::GraphProto* graph() { return model_.mutable_graph(); }
  void update();
  // Removes the nodes and weights that no output needs. Returns how many nodes.
  int remove_unused();

 private:
  void index();
  void order_nodes();

  std::string path_;
  onnx::ModelProto model_;
  std::map<std::string, Shape> shapes_;
  std::map<std::string, int> producers_;           // index of the node
  std::map<std::string, std::vector<int>> users_;  // indices of nodes
  std::map<std::string, int> weights_;             // index of the initializer
};

// Null when the node has none of that name.
const onnx::AttributeProto* find_attribute(const onnx::NodeProto& node, const std::string& name);
// What a node reads, with what the graphs inside it (branches, loops) read.
std::set<std::string> values_read_by(const onnx::NodeProto& node);

// The value of an attribute, or what it is by default.
std::int64_t integer_attribute(const onnx::NodeProto& node, const std::string& name,
                               std::int64_t usual);
std::vector<std::int64_t> integers_attribute(const onnx::NodeProto& node, const std::string& name);
float float_attribute(const onnx::NodeProto& node, const std::string& name, float usual);

// The elements of a record of weights as doubles; nothing when the element type is no number or the record
// does not hold what its shape says.
std::optional<std::vector<double>> numbers_of(const onnx::TensorProto& tensor);

}  // namespace olvex_tools

#endif  // TOOLS_NETWORK_NETWORK_GRAPH_H
