// constant_folding.cpp - goes over the nodes until nothing more can be computed.
#include "tools/network/constant_folding.h"

#include <algorithm>
#include <optional>
#include <set>
#include <stdexcept>

#include "tools/network/constant_value.h"
#include "tools/network/node_rewriting.h"

namespace olvex_tools {

namespace {

using onnx::TensorProto;

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
