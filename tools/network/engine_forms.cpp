// SPDX-License-Identifier: Apache-2.0
// engine_forms.cpp - forms in which the engine does not take operators: shapes (what is squeezed, softmax over
// several axes, operands of different shapes), and parameters as inputs that it reads from attributes only, or
// needs though they have a usual value.
#include <algorithm>
#include <array>
#include <limits>
#include <optional>

#include "tools/network/constant_folding.h"
#include "tools/network/node_rewriting.h"

namespace olvex_tools {

// ---- Shapes -------------------------------------------------------------------------------------

namespace {

bool reshape_instead(Replacement* replacement) {
  const onnx::NodeProto& node = replacement->node();
  const std::optional<Shape> shape = replacement->shape_of(replacement->output());
  if ((!is_operator(node, "Squeeze") && !is_operator(node, "Unsqueeze")) || !shape ||
      shape->empty()) {
    return false;
  }
  replacement->add_reshape(replacement->input(0), *shape);
  return true;
}

// Up to version 12 it is over all dimensions from the axis on, later over one; the engine takes one.
bool normalise(Replacement* replacement) {
  const onnx::NodeProto& node = replacement->node();
  if (!is_operator(node, "Softmax") && !is_operator(node, "LogSoftmax")) {
    return false;
  }
  const std::optional<Shape> shape = replacement->shape_of(replacement->input(0));
  const bool is_later = replacement->network().opset() >= 13;
  const std::int64_t axis = integer_attribute(node, "axis", is_later ? -1 : 1);
  const auto dimensions = static_cast<std::int64_t>(shape ? shape->size() : 0);
  if (axis < -dimensions || axis >= dimensions) {
    return false;
  }
  const std::int64_t first = axis < 0 ? axis + dimensions : axis;
  const auto place = shape->begin() + first;
  const std::int64_t after = elements_of(Shape(place + 1, shape->end()));
  const std::string source = replacement->input(0);
  if (is_later || after == 1) {
    const bool is_written = find_attribute(node, "axis") != nullptr;
    if (!is_written) {
      replacement->add(node.op_type(), {source}, {Attribute("axis", first)});
    }
    return !is_written;
  }
  const std::string rows = replacement->add_reshape(
      source, {elements_of(Shape(shape->begin(), place)), elements_of(Shape(place, shape->end()))});
  const std::string result =
      replacement->add(node.op_type(), {rows}, {Attribute("axis", std::int64_t{1})});
  replacement->add_reshape(result, *shape);
  return true;
}

// ---- Operands of different shapes ---------------------------------------------------------------

// One operation of two operands, of which not both are constant.
class Operands {
 public:
  explicit Operands(Replacement* replacement)
      : replacement_(*replacement),
        operation_(replacement->node().op_type() == "Sum" ? "Add" : replacement->node().op_type()) {
  }

  bool rewrite() {
    const auto left = replacement_.shape_of(replacement_.input(0));
    const auto right = replacement_.shape_of(replacement_.input(1));
    const auto result = replacement_.shape_of(replacement_.output());
    if (!left || !right || !result || replacement_.node().input_size() != 2) {
      return false;
    }
    shapes_[0] = *left;
    shapes_[1] = *right;
    result_ = *result;
    for (const int place : {0, 1}) {
      if (replacement_.network().constant(replacement_.input(place)) != nullptr) {
        return rewrite_with_constant(place);
      }
    }
    return rewrite_computed();
  }

 private:
  bool rewrite_with_constant(int place) {
    const std::string name = replacement_.input(place);
    const std::optional<ConstantValue> value =
        read_constant(*replacement_.network().constant(name));
    if (!value || operation_ == "Max" || operation_ == "Min") {
      return false;
    }
    if (operation_ == "Pow") {
      return rewrite_power(place, *value);
    }
    const bool divides = operation_ == "Div" && place == 0 && value->numbers.size() != 1;
    const bool keeps_shape = shape_of(1 - place) == result_;
    const bool is_taken = keeps_shape && (value->numbers.size() == 1 || value->shape == result_ ||
                                          is_per_channel(value->shape));
    if (is_taken && !divides) {
      return false;
    }
    std::string operands[2];
    operands[place] = is_taken ? name : full(*value);
    operands[1 - place] =
        add_widening(replacement_.input(1 - place), shape_of(1 - place), result_, &replacement_);
    if (divides) {
      operands[1] = replacement_.add("Reciprocal", {operands[1]});
    }
    replacement_.add(divides ? "Mul" : operation_, {operands[0], operands[1]});
    return true;
  }

  // The engine takes one number as the exponent.
  bool rewrite_power(int place, const ConstantValue& value) {
    const auto& numbers = value.numbers;
    const bool is_one_number = std::all_of(numbers.begin(), numbers.end(),
                                           [&](double number) { return number == numbers[0]; });
    if (place != 1 || !is_one_number || numbers.size() == 1) {
      return false;
    }
    const std::string base =
        add_widening(replacement_.input(0), shape_of(0), result_, &replacement_);
    replacement_.add("Pow", {base, replacement_.add_floats({}, {static_cast<float>(numbers[0])})});
    return true;
  }

  bool rewrite_computed() {
    if (shapes_[0] == shapes_[1] || is_taken_computed()) {
      return false;
    }
    std::vector<std::string> operands;
    for (const int place : {0, 1}) {
      operands.push_back(
          add_widening(replacement_.input(place), shape_of(place), result_, &replacement_));
    }
    replacement_.add(operation_, operands);
    return true;
  }

  // The engine multiplies by a value of fewer elements, and divides by one, up to four dimensions.
  bool is_taken_computed() const {
    constexpr std::size_t kMostDimensions = 4;
    if (result_.size() > kMostDimensions) {
      return false;
    }
    const auto is_full = [&](int place) {
      return shape_of(place) == result_ && shape_of(1 - place).size() == result_.size() &&
             elements_of(shape_of(1 - place)) > 1;
    };
    return operation_ == "Mul" ? is_full(0) || is_full(1) : operation_ == "Div" && is_full(0);
  }

  // 1xCx1x1, for a result of four dimensions.
  bool is_per_channel(const Shape& shape) const {
    if (result_.size() != 4 || shape.size() < 3) {
      return false;
    }
    const Shape wide = shape.size() == 3 ? Shape{1, shape[0], shape[1], shape[2]} : shape;
    return wide == Shape{1, result_[1], 1, 1};
  }

  std::string full(const ConstantValue& value) {
    const ConstantValue wide = value.numbers.size() == 1 ? value : broadcast(value, result_);
    return replacement_.add_floats(value.numbers.size() == 1 ? Shape() : result_,
                                   {wide.numbers.begin(), wide.numbers.end()});
  }

  const Shape& shape_of(int place) const { return shapes_[static_cast<std::size_t>(place)]; }

  Replacement& replacement_;
  std::string operation_;
  std::array<Shape, 2> shapes_;
  Shape result_;
};

bool widen_operands(Replacement* replacement) {
  for (const char* const name : {"Add", "Sub", "Mul", "Div", "Pow", "Max", "Min", "Sum"}) {
    if (is_operator(replacement->node(), name)) {
      return Operands(replacement).rewrite();
    }
  }
  return false;
}

// One axis of size 1 becomes one of size count.
std::string add_copies(const std::string& value, const Shape& shape, std::size_t axis,
                       std::int64_t count, Replacement* replacement) {
  constexpr std::int64_t kFewCopies = 8;
  if (count <= kFewCopies) {
    return replacement->add("Concat",
                            std::vector<std::string>(static_cast<std::size_t>(count), value),
                            {Attribute("axis", static_cast<std::int64_t>(axis))});
  }
  if (count > kMostElements) {
    throw CannotCompute();
  }
  // A column times a row of ones has the column in each of its columns.
  const auto place = shape.begin() + static_cast<std::ptrdiff_t>(axis);
  const std::int64_t before = elements_of(Shape(shape.begin(), place));
  const std::int64_t after = elements_of(Shape(place + 1, shape.end()));
  const std::vector<float> ones(static_cast<std::size_t>(count), 1.F);
  std::string copies =
      replacement->add("MatMul", {replacement->add_reshape(value, {before * after, 1}),
                                  replacement->add_floats({1, count}, ones)});
  if (after > 1) {
    copies =
        replacement->add("Transpose", {replacement->add_reshape(copies, {before, after, count})},
                         {Attribute("perm", Shape{0, 2, 1})});
  }
  Shape wide = shape;
  wide[axis] = count;
  return replacement->add_reshape(copies, wide);
}

}  // namespace

std::string add_widening(const std::string& value, const Shape& from, const Shape& to,
                         Replacement* replacement) {
  if (from == to) {
    return value;
  }
  Shape shape = from;
  std::string result = value;
  if (from.size() != to.size()) {
    shape.insert(shape.begin(), to.size() - from.size(), 1);
    result = replacement->add_reshape(result, shape);
  }
  for (std::size_t axis = 0; axis < to.size(); ++axis) {
    if (shape[axis] != to[axis]) {
      result = add_copies(result, shape, axis, to[axis], replacement);
      shape[axis] = to[axis];
    }
  }
  return result;
}

int reshape_instead_of_squeezing(NetworkGraph* network) {
  return replace_nodes(network, reshape_instead);
}

int normalise_softmax(NetworkGraph* network) {
  return replace_nodes(network, normalise);
}

int widen_broadcasts(NetworkGraph* network) {
  return replace_nodes(network, widen_operands);
}

// ---- Attributes ---------------------------------------------------------------------------------

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
