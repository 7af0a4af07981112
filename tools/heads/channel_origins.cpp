// SPDX-License-Identifier: Apache-2.0
// channel_origins.cpp - follows channels and values back through the graph. A graph may have been
// made to mislead: no more nodes are visited than kMostSteps.
#include "tools/heads/head_evidence.h"

#include <algorithm>
#include <cmath>
#include <deque>
#include <functional>
#include <iterator>
#include <optional>
#include <set>

#include "tools/network/selection_tail.h"

namespace olvex_tools {

namespace {

using onnx::NodeProto;

constexpr int kMostSteps = 2000;

bool has_weights(const NodeProto& node) {
  return is_one_of(node, {"Conv", "ConvTranspose", "Gemm", "MatMul", "ConvInteger", "MatMulInteger",
                          "QLinearConv", "LSTM", "GRU"});
}

// The dimension of input that is the same as that one of output, for what keeps the order of elements.
std::optional<std::size_t> same_dimension(const Shape& output, std::size_t axis,
                                          const Shape& input) {
  const auto before = [](const Shape& shape, std::size_t end) {
    return elements_of(Shape(shape.begin(), shape.begin() + static_cast<std::ptrdiff_t>(end)));
  };
  for (std::size_t i = 0; i < input.size(); ++i) {
    if (input[i] == output[axis] && input[i] > 1 && before(input, i) == before(output, axis)) {
      return i;
    }
  }
  return std::nullopt;
}

// The runs of a part of the channels, counted from its first one.
std::vector<ChannelRun> part(const std::vector<ChannelRun>& runs, std::int64_t first,
                             std::int64_t count) {
  std::vector<ChannelRun> chosen;
  for (const ChannelRun& run : runs) {
    const std::int64_t begin = std::max(run.first, first);
    const std::int64_t end = std::min(run.first + run.count, first + count);
    if (begin < end) {
      chosen.push_back({begin - first, end - begin, run.values});
    }
  }
  return chosen;
}

class Tracer {
 public:
  explicit Tracer(const NetworkGraph& network) : network_(network) {}

  std::vector<ChannelRun> trace(const std::string& value, std::size_t axis) {
    const std::optional<Shape> shape = network_.shape_of(value);
    const NodeProto* node = network_.producer_of(value);
    const std::int64_t channels = shape && axis < shape->size() ? (*shape)[axis] : 0;
    if (node == nullptr || node->input_size() == 0 || channels <= 0 || ++steps_ > kMostSteps) {
      return whole(value, channels);
    }
    if (node->op_type() == "Concat") {
      return concatenated(*node, *shape, axis);
    }
    if (node->op_type() == "Slice") {
      return sliced(*node, value, axis, channels);
    }
    if (node->op_type() == "Split") {
      return split(*node, value, axis, channels);
    }
    if (node->op_type() == "Transpose") {
      const Shape order = integers_attribute(*node, "perm");
      return axis < order.size()
                 ? checked(trace(node->input(0), static_cast<std::size_t>(order[axis])), value,
                           channels)
                 : whole(value, channels);
    }
    if (is_one_of(*node, {"Reshape", "Flatten", "Squeeze", "Unsqueeze"})) {
      const std::optional<Shape> input = network_.shape_of(node->input(0));
      const auto same = input ? same_dimension(*shape, axis, *input) : std::nullopt;
      return same ? checked(trace(node->input(0), *same), value, channels) : whole(value, channels);
    }
    if (is_one_of(*node, {"Identity", "Cast", "Dropout"})) {
      return checked(trace(node->input(0), axis), value, channels);
    }
    return computed(*node, *shape, value, axis);
  }

 private:
  static std::vector<ChannelRun> whole(const std::string& value, std::int64_t channels) {
    return {{0, channels, {value}}};
  }

  // Runs that cover all channels, or the value as one.
  static std::vector<ChannelRun> checked(std::vector<ChannelRun> runs, const std::string& value,
                                         std::int64_t channels) {
    const bool covers = !runs.empty() && runs.back().first + runs.back().count == channels;
    return covers ? runs : whole(value, channels);
  }

  std::vector<ChannelRun> concatenated(const NodeProto& node, const Shape& shape,
                                       std::size_t axis) {
    std::int64_t along = integer_attribute(node, "axis", 1);
    along += along < 0 ? static_cast<std::int64_t>(shape.size()) : 0;
    std::vector<std::vector<ChannelRun>> layers;
    std::vector<ChannelRun> runs;
    for (const std::string& input : node.input()) {
      layers.push_back(trace(input, axis));
      const std::int64_t begin = runs.empty() ? 0 : runs.back().first + runs.back().count;
      for (ChannelRun run : layers.back()) {
        run.first += begin;
        runs.push_back(run);
      }
    }
    return checked(along == static_cast<std::int64_t>(axis) ? runs : merge_runs(layers),
                   node.output(0), shape[axis]);
  }

  std::vector<std::int64_t> integers_of(const NodeProto& node, int input,
                                        const std::string& attribute) const {
    if (node.input_size() > input) {
      const auto numbers = network_.numbers(node.input(input));
      return numbers ? std::vector<std::int64_t>(numbers->begin(), numbers->end()) : Shape();
    }
    return integers_attribute(node, attribute);
  }

  std::vector<ChannelRun> sliced(const NodeProto& node, const std::string& value, std::size_t axis,
                                 std::int64_t channels) {
    const Shape starts = integers_of(node, 1, "starts");
    Shape axes = integers_of(node, 3, "axes");
    const Shape steps = integers_of(node, 4, "steps");
    const std::optional<Shape> input = network_.shape_of(node.input(0));
    if (starts.empty() || !input || input->size() <= axis) {
      return whole(value, channels);
    }
    std::int64_t first = 0;
    for (std::size_t i = 0; i < starts.size(); ++i) {
      const auto given = i < axes.size() ? axes[i] : static_cast<std::int64_t>(i);
      const auto along = given < 0 ? given + static_cast<std::int64_t>(input->size()) : given;
      if (along == static_cast<std::int64_t>(axis)) {
        if (i < steps.size() && steps[i] != 1) {
          return whole(value, channels);
        }
        first = starts[i] < 0 ? starts[i] + (*input)[axis] : starts[i];
      }
    }
    return checked(part(trace(node.input(0), axis), first, channels), value, channels);
  }

  std::vector<ChannelRun> split(const NodeProto& node, const std::string& value, std::size_t axis,
                                std::int64_t channels) {
    const std::optional<Shape> input = network_.shape_of(node.input(0));
    std::int64_t along = integer_attribute(node, "axis", 0);
    if (!input || input->size() <= axis) {
      return whole(value, channels);
    }
    along += along < 0 ? static_cast<std::int64_t>(input->size()) : 0;
    std::int64_t first = 0;
    for (const std::string& output : node.output()) {
      if (output == value) {
        break;
      }
      const std::optional<Shape> before = network_.shape_of(output);
      first += before && before->size() > axis ? (*before)[axis] : 0;
    }
    const bool cuts_channels = along == static_cast<std::int64_t>(axis);
    return checked(part(trace(node.input(0), axis), cuts_channels ? first : 0, channels), value,
                   channels);
  }

  // What computes each element by itself has the runs of what it takes; they come from this node.
  std::vector<ChannelRun> computed(const NodeProto& node, const Shape& shape,
                                   const std::string& value, std::size_t axis) {
    static const std::set<std::string> kElementwise = {"Sigmoid", "HardSigmoid", "Exp", "Tanh",
                                                       "Clip",    "Sqrt",        "Pow", "Mul",
                                                       "Add",     "Sub",         "Div", "Relu"};
    std::string input;
    for (const std::string& candidate : node.input()) {
      if (!candidate.empty() && network_.constant(candidate) == nullptr) {
        input = input.empty() ? candidate : "";
      }
    }
    if (!is_one_of(node, kElementwise) || input.empty() || network_.shape_of(input) != shape) {
      return whole(value, shape[axis]);
    }
    std::vector<ChannelRun> runs = trace(input, axis);
    for (ChannelRun& run : runs) {
      run.values = {value};
    }
    return checked(runs, value, shape[axis]);
  }

  const NetworkGraph& network_;
  int steps_ = 0;
};

// Calls visit for the nodes behind values, nearest first, until it says not to look behind that one.
void walk_back(const NetworkGraph& network, const std::vector<std::string>& values,
               const std::function<bool(const NodeProto&)>& visit) {
  std::deque<std::string> waiting(values.begin(), values.end());
  std::set<std::string> seen;
  for (int step = 0; !waiting.empty() && step < kMostSteps; ++step) {
    const std::string value = waiting.front();
    waiting.pop_front();
    const NodeProto* node = network.producer_of(value);
    if (node != nullptr && seen.insert(value).second && visit(*node)) {
      waiting.insert(waiting.end(), node->input().begin(), node->input().end());
    }
  }
}

// Fewer than four numbers may be anything.
bool are_equal_steps(const std::vector<double>& numbers) {
  const double step = numbers.size() < 4 ? 0 : numbers[1] - numbers[0];
  for (std::size_t i = 1; i < numbers.size(); ++i) {
    if (std::fabs(numbers[i] - numbers[i - 1] - step) > 1e-3 * std::fabs(step)) {
      return false;
    }
  }
  return step != 0;
}

// Whether a value differs from cell to cell. Columns or rows alone are added; what is multiplied with such
// numbers are the shares of bins.
bool is_of_grid(const NetworkGraph& network, const NodeProto& node, const std::string& value,
                const GridSize& grid) {
  const onnx::TensorProto* const constant = network.constant(value);
  if (constant == nullptr) {
    return false;
  }
  const std::int64_t elements =
      elements_of(Shape(constant->dims().begin(), constant->dims().end()));
  if (elements >= grid.cells || grid.sides.count(elements) == 0 ||
      !is_one_of(node, {"Add", "Sub"})) {
    return elements >= grid.cells;
  }
  const auto numbers = network.numbers(value);
  return numbers && are_equal_steps(*numbers);
}

}  // namespace

std::vector<ChannelRun> merge_runs(const std::vector<std::vector<ChannelRun>>& layers) {
  std::set<std::int64_t> ends;
  for (const std::vector<ChannelRun>& runs : layers) {
    for (const ChannelRun& run : runs) {
      ends.insert(run.first + run.count);
    }
  }
  std::vector<ChannelRun> result;
  std::int64_t first = 0;
  for (const std::int64_t end : ends) {
    ChannelRun run = {first, end - first, {}};
    for (const std::vector<ChannelRun>& runs : layers) {
      for (const ChannelRun& piece : part(runs, first, end - first)) {
        run.values.insert(run.values.end(), piece.values.begin(), piece.values.end());
      }
    }
    result.push_back(run);
    first = end;
  }
  return result;
}

std::vector<ChannelRun> trace_channels(const NetworkGraph& network, const std::string& value,
                                       std::size_t axis) {
  return Tracer(network).trace(value, axis);
}

Treatment treatment_of(const NetworkGraph& network, const std::vector<std::string>& values,
                       const GridSize& grid) {
  Treatment treatment;
  walk_back(network, values, [&](const NodeProto& node) {
    if (has_weights(node)) {
      return false;
    }
    if (is_one_of(node, {"ArgMax", "Greater", "GreaterOrEqual", "Less", "LessOrEqual", "Equal"})) {
      treatment.arg_max = treatment.arg_max || node.op_type() == "ArgMax";
      return false;
    }
    treatment.sigmoid = treatment.sigmoid || is_one_of(node, {"Sigmoid", "HardSigmoid"});
    treatment.softmax = treatment.softmax || node.op_type() == "Softmax";
    treatment.exponential = treatment.exponential || node.op_type() == "Exp";
    treatment.arg_max = treatment.arg_max || node.op_type() == "TopK";
    treatment.rectified = treatment.rectified || is_one_of(node, {"Relu", "Softplus"});
    if (is_one_of(node, {"Add", "Sub", "Mul", "Div"})) {
      for (const std::string& input : node.input()) {
        treatment.grid = treatment.grid || is_of_grid(network, node, input, grid);
      }
    }
    return true;
  });
  return treatment;
}

std::int64_t reduced_size(const NetworkGraph& network, const std::string& value) {
  std::int64_t size = 0;
  walk_back(network, {value}, [&](const NodeProto& node) {
    const std::optional<Shape> shape = network.shape_of(node.input_size() > 0 ? node.input(0) : "");
    if (size == 0 && shape &&
        (is_one_of(node, {"ArgMax", "ReduceMax"}) || chooses_class(network, node))) {
      const Shape axes = integers_attribute(node, "axes");
      std::int64_t axis = axes.empty() ? integer_attribute(node, "axis", -1) : axes.front();
      axis += axis < 0 ? static_cast<std::int64_t>(shape->size()) : 0;
      size = axis >= 0 && axis < static_cast<std::int64_t>(shape->size())
                 ? (*shape)[static_cast<std::size_t>(axis)]
                 : 0;
    }
    return size == 0;
  });
  return size;
}

}  // namespace olvex_tools
