// SPDX-License-Identifier: Apache-2.0
// engine_selections.cpp - choosing, cutting out and repeating elements, with the operators that the engine
// has: products and sums, limits, slices of one axis, concatenation.
#include <algorithm>
#include <cmath>
#include <numeric>

#include "tools/network/constant_folding.h"
#include "tools/network/node_rewriting.h"

namespace olvex_tools {

namespace {

using Integers = std::vector<std::int64_t>;

// Beyond it a network of as many nodes would be slower than what it replaces is worth.
constexpr std::size_t kMostParts = 64;

std::string add_slice(const std::string& value, std::int64_t start, std::int64_t end,
                      std::int64_t axis, std::int64_t step, Replacement* replacement) {
  return replacement->add(
      "Slice", {value, replacement->add_integers({start}), replacement->add_integers({end}),
                replacement->add_integers({axis}), replacement->add_integers({step})});
}

// The elements at these places of the axis, in that order: one slice for each run of neighbours.
bool add_selection(const std::string& value, const Integers& places, std::int64_t axis,
                   Replacement* replacement) {
  std::vector<std::pair<std::int64_t, std::int64_t>> runs;  // first, behind the last
  for (const std::int64_t place : places) {
    if (runs.empty() || runs.back().second != place) {
      runs.emplace_back(place, place);
    }
    runs.back().second = place + 1;
  }
  if (runs.empty() || runs.size() > kMostParts) {
    return false;
  }
  std::vector<std::string> parts;
  for (const auto& [first, end] : runs) {
    parts.push_back(add_slice(value, first, end, axis, 1, replacement));
  }
  if (parts.size() > 1) {
    replacement->add("Concat", parts, {Attribute("axis", axis)});
  }
  return true;
}

bool are_finite(const std::optional<std::vector<double>>& numbers) {
  return !numbers || std::all_of(numbers->begin(), numbers->end(),
                                 [](double number) { return std::isfinite(number); });
}

bool compute_choice(Replacement* replacement) {
  const NetworkGraph& network = replacement->network();
  if (!is_operator(replacement->node(), "Where") || replacement->node().input_size() != 3) {
    return false;
  }
  const std::string first = replacement->input(1);
  const std::string second = replacement->input(2);
  if (!are_finite(network.numbers(first)) || !are_finite(network.numbers(second))) {
    return false;  // 0 times infinity is no number
  }
  std::string chosen;
  std::string other;
  if (const auto condition = network.numbers(replacement->input(0))) {
    std::vector<float> ones;
    std::vector<float> zeros;
    for (const double number : *condition) {
      ones.push_back(number != 0 ? 1.F : 0.F);
      zeros.push_back(number != 0 ? 0.F : 1.F);
    }
    const Shape shape = *network.shape_of(replacement->input(0));
    chosen = replacement->add_floats(shape, ones);
    other = replacement->add_floats(shape, zeros);
  } else {
    chosen = replacement->add("Cast", {replacement->input(0)},
                              {Attribute("to", std::int64_t{onnx::TensorProto::FLOAT})});
    other = replacement->add("Sub", {replacement->add_floats({}, {1.F}), chosen});
  }
  const std::string left = replacement->add("Mul", {first, chosen});
  replacement->add("Add", {left, replacement->add("Mul", {second, other})});
  return true;
}

bool clip_by_extreme(Replacement* replacement) {
  const onnx::NodeProto& node = replacement->node();
  const bool is_least = is_operator(node, "Max");
  if ((!is_least && !is_operator(node, "Min")) || node.input_size() != 2) {
    return false;
  }
  const NetworkGraph& network = replacement->network();
  const int bound = network.constant(node.input(1)) != nullptr ? 1 : 0;
  const std::optional<std::vector<double>> numbers = network.numbers(node.input(bound));
  const bool keeps_shape =
      network.shape_of(node.input(1 - bound)) == network.shape_of(node.output(0));
  if (!numbers || numbers->size() != 1 || !keeps_shape) {
    return false;
  }
  const std::string limit = replacement->add_floats({}, {static_cast<float>((*numbers)[0])});
  const std::string value = node.input(1 - bound);
  replacement->add("Clip", is_least ? std::vector<std::string>{value, limit}
                                    : std::vector<std::string>{value, "", limit});
  return true;
}

bool slice_instead(Replacement* replacement) {
  const NetworkGraph& network = replacement->network();
  if (!is_operator(replacement->node(), "Gather")) {
    return false;
  }
  const std::optional<std::vector<double>> places = network.numbers(replacement->input(1));
  const std::optional<Shape> shape = replacement->shape_of(replacement->input(0));
  const auto rank = network.shape_of(replacement->input(1));
  if (!places || !shape || !rank || rank->size() != 1) {
    return false;
  }
  std::int64_t axis = integer_attribute(replacement->node(), "axis", 0);
  axis += axis < 0 ? static_cast<std::int64_t>(shape->size()) : 0;
  if (axis < 0 || axis >= static_cast<std::int64_t>(shape->size())) {
    return false;
  }
  const std::int64_t size = (*shape)[static_cast<std::size_t>(axis)];
  Integers counted;
  for (const double place : *places) {
    const auto index = static_cast<std::int64_t>(place);
    counted.push_back(index < 0 ? index + size : index);
    if (counted.back() < 0 || counted.back() >= size) {
      return false;
    }
  }
  return add_selection(replacement->input(0), counted, axis, replacement);
}

struct Cut {
  Integers starts, ends, axes, steps;
};

std::optional<Cut> cut_of(const Replacement& replacement) {
  const auto part = [&](int input, const char* name) {
    const std::string value = replacement.input(input);
    Integers integers;
    const auto numbers = replacement.network().numbers(value);
    for (const double number : numbers.value_or(std::vector<double>())) {
      integers.push_back(static_cast<std::int64_t>(as_element(number, onnx::TensorProto::INT64)));
    }
    return value.empty() ? integers_attribute(replacement.node(), name) : integers;
  };
  Cut cut = {part(1, "starts"), part(2, "ends"), part(3, "axes"), part(4, "steps")};
  if (cut.axes.empty()) {
    cut.axes.resize(cut.starts.size());
    std::iota(cut.axes.begin(), cut.axes.end(), 0);
  }
  if (cut.steps.empty()) {
    cut.steps.assign(cut.starts.size(), 1);
  }
  const std::size_t count = cut.starts.size();
  const bool fits = count != 0 && cut.ends.size() == count && cut.axes.size() == count &&
                    cut.steps.size() == count;
  return fits ? std::make_optional(cut) : std::nullopt;
}

// The places of an axis that a slice backwards takes.
Integers places_backwards(std::int64_t start, std::int64_t end, std::int64_t step,
                          std::int64_t size) {
  const auto placed = [size](std::int64_t place) {
    return std::clamp<std::int64_t>(place < 0 ? std::max(place, -size - 1) + size : place, -1,
                                    size - 1);
  };
  Integers places;
  for (std::int64_t place = placed(start); place > placed(end) && places.size() <= kMostParts;
       place += std::max(step, -size - 1)) {
    places.push_back(place);
  }
  return places;
}

bool slice_one_axis(Replacement* replacement) {
  if (!is_operator(replacement->node(), "Slice")) {
    return false;
  }
  std::optional<Cut> cut = cut_of(*replacement);
  const std::optional<Shape> shape = replacement->shape_of(replacement->input(0));
  if (!cut || !shape) {
    return false;
  }
  const auto dimensions = static_cast<std::int64_t>(shape->size());
  bool is_taken = true;
  for (std::size_t i = 0; i < cut->axes.size(); ++i) {
    cut->axes[i] += cut->axes[i] < 0 ? dimensions : 0;
    if (cut->axes[i] < 0 || cut->axes[i] >= dimensions) {
      return false;
    }
    is_taken = is_taken && cut->steps[i] > 0 && (i == 0 || cut->axes[i] == cut->axes[i - 1] + 1);
  }
  const bool backwards = cut->steps[0] < 0;
  if (is_taken || (backwards && cut->axes.size() > 1)) {
    return false;
  }
  if (backwards) {
    const std::int64_t size = (*shape)[static_cast<std::size_t>(cut->axes[0])];
    return add_selection(replacement->input(0),
                         places_backwards(cut->starts[0], cut->ends[0], cut->steps[0], size),
                         cut->axes[0], replacement);
  }
  std::string value = replacement->input(0);
  for (std::size_t i = 0; i < cut->axes.size(); ++i) {
    value =
        add_slice(value, cut->starts[i], cut->ends[i], cut->axes[i], cut->steps[i], replacement);
  }
  return true;
}

bool concatenate(Replacement* replacement) {
  const bool is_tile = is_operator(replacement->node(), "Tile");
  if (!is_tile && !is_operator(replacement->node(), "Expand")) {
    return false;
  }
  const std::optional<Shape> from = replacement->shape_of(replacement->input(0));
  const std::optional<Shape> to = replacement->shape_of(replacement->output());
  if (!from || !to) {
    return false;
  }
  if (!is_tile || from->size() == to->size()) {
    bool is_widening = true;
    for (std::size_t i = 0; is_tile && i < from->size(); ++i) {
      is_widening = is_widening && ((*from)[i] == 1 || (*from)[i] == (*to)[i]);
    }
    if (is_widening) {
      if (add_widening(replacement->input(0), *from, *to, replacement) == replacement->input(0)) {
        replacement->add("Identity", {replacement->input(0)});
      }
      return true;
    }
  }
  std::string value = replacement->input(0);
  for (std::size_t i = 0; i < from->size(); ++i) {
    const auto count = static_cast<std::size_t>((*to)[i] / (*from)[i]);
    if (count > kMostParts) {
      return false;
    }
  }
  for (std::size_t i = 0; i < from->size(); ++i) {
    const auto count = static_cast<std::size_t>((*to)[i] / (*from)[i]);
    if (count > 1) {
      value = replacement->add("Concat", std::vector<std::string>(count, value),
                               {Attribute("axis", static_cast<std::int64_t>(i))});
    }
  }
  return value != replacement->input(0);
}

}  // namespace

int compute_choices(NetworkGraph* network) {
  const int count = replace_nodes(network, compute_choice);
  if (count != 0) {
    fold_constants(network);  // products of a constant condition with a constant
  }
  return count;
}

int clip_by_extremes(NetworkGraph* network) {
  return replace_nodes(network, clip_by_extreme);
}

int slice_instead_of_gathering(NetworkGraph* network) {
  return replace_nodes(network, slice_instead);
}

int slice_one_axis_at_a_time(NetworkGraph* network) {
  return replace_nodes(network, slice_one_axis);
}

int repeat_by_concatenation(NetworkGraph* network) {
  return replace_nodes(network, concatenate);
}

// The best along a dimension: its value is the maximum, its number that of the first such.
int choose_best_by_maximum(NetworkGraph* network) {
  constexpr std::int64_t kAxesAreInputs = 18;  // from that version of the operators on
  int count = 0;
  const int before = network->graph()->node_size();
  for (int i = 0; i < before; ++i) {
    onnx::NodeProto* node = network->graph()->mutable_node(i);
    const auto most = node->input_size() > 1 ? network->numbers(node->input(1)) : std::nullopt;
    const bool one = most ? *most == std::vector<double>{1} : integer_attribute(*node, "k", 0) == 1;
    if (!is_operator(*node, "TopK") || !one || node->output_size() == 0 ||
        integer_attribute(*node, "largest", 1) == 0) {
      continue;
    }
    const std::int64_t axis = integer_attribute(*node, "axis", -1);
    const onnx::NodeProto choice = *node;
    node->set_op_type("ReduceMax");
    node->clear_attribute();
    keep_first_input(node);
    node->mutable_output()->DeleteSubrange(1, node->output_size() - 1);
    set_attribute(Attribute("keepdims", std::int64_t{1}), node);
    if (network->opset() < kAxesAreInputs) {
      set_attribute(Attribute("axes", std::vector<std::int64_t>{axis}), node);
    } else {
      const std::string axes = network->add_integers("axes", {axis});
      network->graph()->mutable_node(i)->add_input(axes);
    }
    if (choice.output_size() > 1 && !choice.output(1).empty()) {
      network->add_node("number", "ArgMax", {choice.input(0)},
                        {Attribute("axis", axis), Attribute("keepdims", std::int64_t{1})});
      const int last = network->graph()->node_size() - 1;
      *network->graph()->mutable_node(last)->mutable_output(0) = choice.output(1);
    }
    ++count;
  }
  if (count != 0) {
    network->update();
  }
  return count;
}

}  // namespace olvex_tools
