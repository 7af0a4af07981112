// SPDX-License-Identifier: Apache-2.0
// constant_folding.cpp - what the operators on constants share: shapes, broadcasting, the records of an ONNX
// file; and the folding, which goes over the nodes until nothing more can be computed.
#include "tools/network/constant_folding.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>
#include <set>
#include <stdexcept>

#include "tools/network/node_rewriting.h"

namespace olvex_tools {

namespace {

using onnx::TensorProto;

template <typename Element>
void pack(const std::vector<double>& numbers, std::string* bytes) {
  std::vector<Element> elements(numbers.size());
  std::transform(numbers.begin(), numbers.end(), elements.begin(),
                 [](double number) { return static_cast<Element>(number); });
  bytes->assign(reinterpret_cast<const char*>(elements.data()), elements.size() * sizeof(Element));
}

// Casting a double beyond the range of an integer is undefined.
double within(double number, double least, double most) {
  return std::isnan(number) ? 0 : std::clamp(std::trunc(number), least, most);
}

}  // namespace

const ConstantValue& ConstantOperation::input(std::size_t index) const {
  if (!has_input(index)) {
    throw CannotCompute();
  }
  return *inputs[index];
}

bool ConstantOperation::has_input(std::size_t index) const {
  return index < inputs.size() && inputs[index] != nullptr;
}

std::vector<std::int64_t> ConstantOperation::integers(std::size_t index) const {
  std::vector<std::int64_t> values;
  for (const double number : input(index).numbers) {
    values.push_back(static_cast<std::int64_t>(as_element(number, TensorProto::INT64)));
  }
  return values;
}

ConstantValue new_value(int type, const Shape& shape) {
  const std::int64_t count = elements_of(shape);
  if (count < 0 || count > kMostElements) {
    throw CannotCompute();
  }
  return {type, shape, std::vector<double>(static_cast<std::size_t>(count))};
}

Shape strides_of(const Shape& shape) {
  Shape strides(shape.size(), 1);
  for (std::size_t i = shape.size(); i-- > 1;) {
    strides[i - 1] = strides[i] * shape[i];
  }
  return strides;
}

Shape broadcast_shape(const Shape& left, const Shape& right) {
  Shape shape(std::max(left.size(), right.size()), 1);
  for (const Shape* part : {&left, &right}) {
    const std::size_t offset = shape.size() - part->size();
    for (std::size_t i = 0; i < part->size(); ++i) {
      const std::int64_t size = (*part)[i];
      if (size != 1 && shape[offset + i] != 1 && size != shape[offset + i]) {
        throw CannotCompute();
      }
      shape[offset + i] = size == 1 ? shape[offset + i] : size;
    }
  }
  return shape;
}

ConstantValue broadcast(const ConstantValue& value, const Shape& shape) {
  if (value.shape == shape) {
    return value;
  }
  if (value.shape.size() > shape.size()) {
    throw CannotCompute();
  }
  ConstantValue wide = new_value(value.type, shape);
  const Shape strides = strides_of(shape);
  const Shape own = strides_of(value.shape);
  const std::size_t offset = shape.size() - value.shape.size();
  for (std::size_t i = 0; i < wide.numbers.size(); ++i) {
    auto rest = static_cast<std::int64_t>(i);
    std::int64_t place = 0;
    for (std::size_t d = 0; d < shape.size(); ++d) {
      const std::int64_t index = rest / strides[d];
      rest %= strides[d];
      if (d >= offset && value.shape[d - offset] != 1) {
        place += index * own[d - offset];
      }
    }
    wide.numbers[i] = value.numbers[static_cast<std::size_t>(place)];
  }
  return wide;
}

std::size_t axis_of(std::int64_t axis, std::size_t dimensions) {
  const auto count = static_cast<std::int64_t>(dimensions);
  if (axis < -count || axis >= count) {
    throw CannotCompute();
  }
  return static_cast<std::size_t>(axis < 0 ? axis + count : axis);
}

double as_element(double number, int type) {
  switch (type) {
    case TensorProto::FLOAT:
      return static_cast<double>(static_cast<float>(number));
    case TensorProto::DOUBLE:
      return number;
    case TensorProto::INT64:
      // The largest double below 2^63 and the smallest integer.
      return within(number, -0x1p63, 0x1.fffffffffffffp62);
    case TensorProto::INT32:
      return within(number, std::numeric_limits<std::int32_t>::min(),
                    std::numeric_limits<std::int32_t>::max());
    case TensorProto::BOOL:
      return number != 0 ? 1 : 0;
    default:
      throw CannotCompute();
  }
}

std::optional<ConstantValue> read_constant(const TensorProto& tensor) {
  const Shape shape(tensor.dims().begin(), tensor.dims().end());
  const std::int64_t count = elements_of(shape);
  if (count < 0 || count > kMostElements) {
    return std::nullopt;
  }
  std::optional<std::vector<double>> numbers = numbers_of(tensor);
  if (!numbers) {
    return std::nullopt;
  }
  return ConstantValue{tensor.data_type(), shape, std::move(*numbers)};
}

void write_constant(const ConstantValue& value, const std::string& name, TensorProto* tensor) {
  tensor->Clear();
  tensor->set_name(name);
  tensor->set_data_type(value.type);
  *tensor->mutable_dims() = {value.shape.begin(), value.shape.end()};
  std::string* const bytes = tensor->mutable_raw_data();
  switch (value.type) {
    case TensorProto::FLOAT:
      return pack<float>(value.numbers, bytes);
    case TensorProto::DOUBLE:
      return pack<double>(value.numbers, bytes);
    case TensorProto::INT64:
      return pack<std::int64_t>(value.numbers, bytes);
    case TensorProto::INT32:
      return pack<std::int32_t>(value.numbers, bytes);
    case TensorProto::INT8:
      return pack<std::int8_t>(value.numbers, bytes);
    case TensorProto::UINT8:
    case TensorProto::BOOL:
      return pack<std::uint8_t>(value.numbers, bytes);
    default:
      throw CannotCompute();
  }
}

// ---- The folding --------------------------------------------------------------------------------

namespace {

// Bounds the time and the memory that a hostile network can make this take.
constexpr std::int64_t kMostElementsInAll = std::int64_t{1} << 26;
constexpr int kMostPasses = 8;

class Folding {
 public:
  explicit Folding(NetworkGraph* network) : network_(*network) {}

  int run() {
    int folded = 0;
    for (int pass = 0; pass < kMostPasses; ++pass) {
      const int count = fold_once();
      folded += count;
      if (count == 0) {
        break;
      }
      network_.update();  // shapes that depended on what was computed are known now
    }
    return folded;
  }

 private:
  int fold_once() {
    outputs_.clear();
    for (const onnx::ValueInfoProto& output : network_.graph()->output()) {
      outputs_.insert(output.name());
    }
    fresh_.clear();
    int count = 0;
    for (onnx::NodeProto& node : *network_.graph()->mutable_node()) {
      if (fold(node)) {
        node.Clear();
        ++count;
      }
    }
    remove_cleared_nodes(&network_);
    return count;
  }

  bool fold(const onnx::NodeProto& node) {
    const bool is_needed =
        std::any_of(node.output().begin(), node.output().end(),
                    [this](const std::string& output) { return outputs_.count(output) != 0; });
    if (node.output_size() == 0 || is_needed ||
        !(node.domain().empty() || node.domain() == "ai.onnx")) {
      return false;
    }
    try {
      std::vector<ConstantValue> values;
      for (int i = 0; i < node.output_size(); ++i) {
        std::optional<ConstantValue> value = compute(node, static_cast<std::size_t>(i));
        if (!value) {
          return false;
        }
        values.push_back(std::move(*value));
      }
      for (int i = 0; i < node.output_size(); ++i) {
        if (!node.output(i).empty()) {
          keep(values[static_cast<std::size_t>(i)], node.output(i));
        }
      }
      return true;
    } catch (const CannotCompute&) {
      return false;
    } catch (const std::out_of_range&) {  // an index beyond the elements
      return false;
    }
  }

  void keep(const ConstantValue& value, const std::string& name) {
    left_ -= static_cast<std::int64_t>(value.numbers.size());
    TensorProto weights;
    write_constant(value, name, &weights);
    network_.graph()->add_initializer()->Swap(&weights);
    fresh_[name] = network_.graph()->initializer_size() - 1;
  }

  // One of the outputs; nothing when the node needs more than constants.
  std::optional<ConstantValue> compute(const onnx::NodeProto& node, std::size_t output) const {
    if (node.op_type() == "Constant") {
      return constant_of(node);
    }
    if (node.op_type() == "Shape" || node.op_type() == "Size") {
      return measured(node);
    }
    const ConstantOperator* const compute = constant_operator(node.op_type());
    if (compute == nullptr) {
      return std::nullopt;
    }
    std::vector<std::optional<ConstantValue>> values;
    ConstantOperation operation{node, network_.opset(), {}, output};
    std::int64_t elements = 0;
    for (const std::string& input : node.input()) {
      const TensorProto* const tensor = input.empty() ? nullptr : weights(input);
      if (tensor == nullptr && !input.empty()) {
        return std::nullopt;
      }
      values.push_back(tensor == nullptr ? std::nullopt : read_constant(*tensor));
      if (tensor != nullptr && !values.back()) {
        return std::nullopt;
      }
      elements += values.back() ? static_cast<std::int64_t>(values.back()->numbers.size()) : 0;
    }
    if (elements > left_) {
      return std::nullopt;
    }
    for (const std::optional<ConstantValue>& value : values) {
      operation.inputs.push_back(value ? &*value : nullptr);
    }
    return (*compute)(operation);
  }

  // The network's index does not know what this pass has computed.
  const TensorProto* weights(const std::string& name) const {
    const auto found = fresh_.find(name);
    return found != fresh_.end() ? &network_.graph()->initializer(found->second)
                                 : network_.constant(name);
  }

  static std::optional<ConstantValue> constant_of(const onnx::NodeProto& node) {
    if (node.attribute_size() != 1) {
      return std::nullopt;
    }
    const onnx::AttributeProto& attribute = node.attribute(0);
    switch (attribute.type()) {
      case onnx::AttributeProto::TENSOR:
        return read_constant(attribute.t());
      case onnx::AttributeProto::FLOAT:
        return ConstantValue{TensorProto::FLOAT, {}, {static_cast<double>(attribute.f())}};
      case onnx::AttributeProto::INT:
        return ConstantValue{TensorProto::INT64, {}, {static_cast<double>(attribute.i())}};
      case onnx::AttributeProto::FLOATS:
        return ConstantValue{TensorProto::FLOAT,
                             {attribute.floats_size()},
                             {attribute.floats().begin(), attribute.floats().end()}};
      case onnx::AttributeProto::INTS:
        return ConstantValue{TensorProto::INT64,
                             {attribute.ints_size()},
                             {attribute.ints().begin(), attribute.ints().end()}};
      default:
        return std::nullopt;
    }
  }

  std::optional<ConstantValue> measured(const onnx::NodeProto& node) const {
    const std::string input = node.input_size() == 1 ? node.input(0) : "";
    const TensorProto* const tensor = weights(input);
    const std::optional<Shape> shape =
        tensor == nullptr ? network_.shape_of(input)
                          : std::make_optional(Shape(tensor->dims().begin(), tensor->dims().end()));
    if (!shape || elements_of(*shape) <= 0) {
      return std::nullopt;
    }
    if (node.op_type() == "Size") {
      return ConstantValue{TensorProto::INT64, {}, {static_cast<double>(elements_of(*shape))}};
    }
    const auto count = static_cast<std::int64_t>(shape->size());
    const auto placed = [count](std::int64_t place) {
      return std::clamp(place < 0 ? std::max(place, -count) + count : place, std::int64_t{0},
                        count);
    };
    const std::int64_t start = placed(integer_attribute(node, "start", 0));
    const std::int64_t end = std::max(start, placed(integer_attribute(node, "end", count)));
    return ConstantValue{
        TensorProto::INT64, {end - start}, {shape->begin() + start, shape->begin() + end}};
  }

  NetworkGraph& network_;
  std::int64_t left_ = kMostElementsInAll;
  std::set<std::string> outputs_;
  std::map<std::string, int> fresh_;  // index of the initializer
};

}  // namespace

const ConstantOperator* constant_operator(const std::string& name) {
  for (const ConstantOperators* table :
       {&layout_operators(), &selection_operators(), &arithmetic_operators()}) {
    const auto found = table->find(name);
    if (found != table->end()) {
      return &found->second;
    }
  }
  return nullptr;
}

int fold_constants(NetworkGraph* network) {
  return Folding(network).run();
}

}  // namespace olvex_tools
