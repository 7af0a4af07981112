// SPDX-License-Identifier: Apache-2.0
// constant_folding.h - the elements of tensors that are known before the network runs, what operators make of
// them, and a network whose constants are computed beforehand. constant_layout.cpp, constant_selection.cpp
// and constant_arithmetic.cpp are the operators.
#ifndef TOOLS_NETWORK_CONSTANT_FOLDING_H
#define TOOLS_NETWORK_CONSTANT_FOLDING_H

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tools/network/network_graph.h"

namespace olvex_tools {

struct ConstantValue {
  int type = onnx::TensorProto::FLOAT;
  Shape shape;
  // Doubles hold every float, and every integer up to 2^53, which no size or index exceeds; what one
  // operation makes of two floats is rounded to the float that an engine would compute.
  std::vector<double> numbers;
};

// Thrown where a node cannot be computed: a type or an attribute that is not handled, shapes that do not
// fit, or too many elements. The node stays as it is.
struct CannotCompute {};

// Largest number of elements of one value that is computed.
constexpr std::int64_t kMostElements = std::int64_t{1} << 25;

struct ConstantOperation {
  const onnx::NodeProto& node;
  std::int64_t opset;
  std::vector<const ConstantValue*> inputs;  // null for one that is left out
  std::size_t output = 0;                    // which of the node's outputs is asked for

  // Throws CannotCompute when it is missing.
  const ConstantValue& input(std::size_t index) const;
  bool has_input(std::size_t index) const;
  std::vector<std::int64_t> integers(std::size_t index) const;
};

// Zeros. Throws CannotCompute when there would be too many.
ConstantValue new_value(int type, const Shape& shape);

// For each dimension, how many elements further the next one is.
Shape strides_of(const Shape& shape);
// The shape of what two shapes are broadcast to.
Shape broadcast_shape(const Shape& left, const Shape& right);
// The value repeated along every dimension in which it has size 1.
ConstantValue broadcast(const ConstantValue& value, const Shape& shape);
// From 0, for an axis that may be counted from the end.
std::size_t axis_of(std::int64_t axis, std::size_t dimensions);
// As the element type holds it: rounded to float, or cut to an integer.
double as_element(double number, int type);

using ConstantOperator = std::function<ConstantValue(const ConstantOperation&)>;
using ConstantOperators = std::map<std::string, ConstantOperator>;
const ConstantOperators& layout_operators();
const ConstantOperators& selection_operators();
const ConstantOperators& arithmetic_operators();
// Null for one that is not handled.
const ConstantOperator* constant_operator(const std::string& name);

// Nothing when the element type is none of those that are handled.
std::optional<ConstantValue> read_constant(const onnx::TensorProto& tensor);
void write_constant(const ConstantValue& value, const std::string& name, onnx::TensorProto* tensor);

// Makes weights of the values that depend on weights and on known shapes alone, as far as
// the operators are known and up to a number of elements in all. Values that are outputs
// of the network stay computed. Returns how many nodes it replaced; the network is up to date.
int fold_constants(NetworkGraph* network);

}  // namespace olvex_tools

#endif  // TOOLS_NETWORK_CONSTANT_FOLDING_H
