// SPDX-License-Identifier: Apache-2.0
// selection_lifting.cpp - goes back from what a network selects to the tables of all candidates. It may take
// columns for what they are not: selection_check.cpp proves the result on numbers.
#include "tools/network/selection_lifting.h"

#include <algorithm>
#include <optional>

#include "tools/network/node_rewriting.h"

namespace olvex_tools {

namespace {

using Kind = SelectedPiece::Kind;
using onnx::NodeProto;

bool only_moves(const NodeProto& node) {
  return only_reshapes(node) || is_one_of(node, {"Transpose", "Expand", "Tile"});
}

bool is_elementwise(const NodeProto& node) {
  return is_one_of(node, {"Add", "Sub", "Mul", "Div", "Pow", "Min", "Max", "Clip", "Neg", "Sqrt",
                          "Exp", "Sigmoid", "Softmax", "Round", "Floor"});
}

std::int64_t columns_of(const std::vector<SelectedPiece>& pieces) {
  std::int64_t count = 0;
  for (const SelectedPiece& piece : pieces) {
    count += piece.columns;
  }
  return count;
}

bool are_numbers(const std::vector<SelectedPiece>& pieces) {
  return std::all_of(pieces.begin(), pieces.end(),
                     [](const SelectedPiece& piece) { return piece.kind == Kind::kNumber; });
}

std::int64_t from_start(std::int64_t axis, const Shape& shape) {
  return axis < 0 ? axis + static_cast<std::int64_t>(shape.size()) : axis;
}

std::int64_t size_at(const Shape& shape, std::int64_t axis) {
  return axis >= 0 && axis < static_cast<std::int64_t>(shape.size())
             ? shape[static_cast<std::size_t>(axis)]
             : 0;
}

[[noreturn]] void refuse(const NodeProto& node, const std::string& why) {
  const std::string name =
      node.name().empty() && node.output_size() > 0 ? node.output(0) : node.name();
  throw CannotLift{node.op_type() + " (node \"" + name + "\") " + why};
}

}  // namespace

SelectionLifting::SelectionLifting(const SelectionNodes& nodes, NetworkGraph* network)
    : nodes_(nodes), network_(*network), tables_(count_rows(), network) {}

Shape SelectionLifting::shape_of(const std::string& value) const {
  return network_.shape_of(value).value_or(Shape());
}

// The dimension along which rows are chosen.
std::int64_t SelectionLifting::count_rows() const {
  const std::int64_t rows = find_rows();
  if (rows <= 1) {
    throw CannotLift{"it cannot be seen how many candidates there are"};
  }
  return rows;
}

std::int64_t SelectionLifting::find_rows() const {
  for (const std::string& selector : nodes_.selectors) {
    const NodeProto& node = *network_.producer_of(selector);
    if (node.op_type() == "NonMaxSuppression" && !is_selected(node.input(0))) {
      return size_at(shape_of(node.input(0)), 1);
    }
  }
  for (const NodeProto& node : network_.model().graph().node()) {
    const bool gathers = is_one_of(node, {"Gather", "GatherElements", "GatherND"});
    if (!gathers || node.input_size() < 2 || is_selected(node.input(0)) ||
        !is_selected(node.input(1)) || network_.constant(node.input(0)) != nullptr) {
      continue;
    }
    const Shape shape = shape_of(node.input(0));
    if (node.op_type() == "GatherND") {
      const Shape places = shape_of(node.input(1));
      const std::int64_t depth = places.empty() ? 0 : places.back();
      return size_at(shape, integer_attribute(node, "batch_dims", 0) + depth - 1);
    }
    return size_at(shape, from_start(integer_attribute(node, "axis", 0), shape));
  }
  return 0;
}

const std::vector<SelectedPiece>& SelectionLifting::lift(const std::string& value) {
  const auto found = lifted_.find(value);
  if (found != lifted_.end()) {
    return found->second;
  }
  const NodeProto* const producer = network_.producer_of(value);
  const NodeProto node = producer == nullptr ? NodeProto() : *producer;  // adding nodes moves them
  if (!is_selected(value)) {
    if (network_.constant(value) == nullptr) {
      throw CannotLift{"\"" + value + "\" is mixed with what is selected"};
    }
    return lifted_[value] = {{Kind::kNumber, "", 1}};
  }
  constexpr int kMostNodes = 2000;  // bounds the stack
  if (++depth_ > kMostNodes) {
    throw CannotLift{"more than " + std::to_string(kMostNodes) + " nodes follow one another in it"};
  }
  Pieces pieces = lift_node(node, value);
  --depth_;
  return lifted_[value] = pieces;
}

SelectionLifting::Pieces SelectionLifting::lift_node(const NodeProto& node,
                                                     const std::string& value) {
  static const std::set<std::string> kNumbers = {"NonMaxSuppression",
                                                 "NonZero",
                                                 "Shape",
                                                 "Size",
                                                 "ConstantOfShape",
                                                 "Range",
                                                 "Greater",
                                                 "GreaterOrEqual",
                                                 "Less",
                                                 "LessOrEqual",
                                                 "Equal",
                                                 "Not",
                                                 "And",
                                                 "Or",
                                                 "Mod",
                                                 "ArgMax"};
  const Pieces number = {{Kind::kNumber, "", 1}};
  if (is_one_of(node, kNumbers) || (node.op_type() == "TopK" && value != node.output(0))) {
    return number;
  }
  if (node.op_type() == "TopK" || node.op_type() == "ReduceMax") {
    SelectedPiece piece = is_selected(node.input(0)) ? merged(node, lift(node.input(0)))
                                                     : tables_.table_of(node.input(0));
    piece.kind = piece.all.empty() ? Kind::kNumber : Kind::kScore;
    piece.columns = 1;
    return {piece};
  }
  if (only_moves(node)) {
    return lift(node.input(0));
  }
  if (node.input_size() > 1 && is_one_of(node, {"Gather", "GatherElements", "GatherND"})) {
    return gathered(node, value);
  }
  if (node.op_type() == "Concat") {
    return concatenated(node);
  }
  if (node.op_type() == "Slice") {
    return sliced_node(node);
  }
  if (node.op_type() == "Split") {
    return split(node, value);
  }
  return computed(node);
}

SelectionLifting::Pieces SelectionLifting::gathered(const NodeProto& node,
                                                    const std::string& value) {
  const std::string& data = node.input(0);
  const Shape source = shape_of(data);
  const std::int64_t axis = from_start(integer_attribute(node, "axis", 0), source);
  if (!is_selected(node.input(1))) {
    const auto places = network_.numbers(node.input(1));
    if (!places || places->size() != 1) {
      refuse(node, "takes several columns of what is selected");
    }
    const auto place = static_cast<std::int64_t>(places->front());
    return cut_columns(node, axis, place < 0 ? place + columns_of(lift(data)) : place, 1);
  }
  if (network_.constant(data) != nullptr) {
    return {{Kind::kNumber, "", 1}};
  }
  Pieces pieces = is_selected(data) ? lift(data) : Pieces{tables_.table_of(data)};
  const Shape shape = shape_of(value);
  const Shape places = shape_of(node.input(1));
  const bool one_of_each =
      (node.op_type() == "GatherElements" && !shape.empty() && shape.back() == 1) ||
      (node.op_type() == "GatherND" && !places.empty() &&
       static_cast<std::int64_t>(source.size()) ==
           places.back() + integer_attribute(node, "batch_dims", 0));
  if (pieces.size() == 1 && pieces[0].kind == Kind::kRows && pieces[0].columns > 1 && one_of_each) {
    return {{Kind::kScore, pieces[0].all, 1}};
  }
  return pieces;
}

SelectionLifting::Pieces SelectionLifting::concatenated(const NodeProto& node) {
  Pieces all;
  for (const std::string& input : node.input()) {
    Pieces pieces = lift(input);
    const Shape shape = shape_of(input);
    const std::int64_t size = size_at(shape, from_start(integer_attribute(node, "axis", 0), shape));
    if (pieces.size() == 1 && pieces[0].kind == Kind::kNumber) {
      pieces[0].columns = std::max<std::int64_t>(size, 1);
    }
    all.insert(all.end(), pieces.begin(), pieces.end());
  }
  return all;
}

SelectionLifting::Pieces SelectionLifting::cut_columns(const NodeProto& node, std::int64_t axis,
                                                       std::int64_t first, std::int64_t count) {
  const Pieces& pieces = lift(node.input(0));
  const Shape shape = shape_of(node.input(0));
  const std::int64_t columns = columns_of(pieces);
  if (are_numbers(pieces) || size_at(shape, axis) != columns ||
      (columns == 1 && axis + 1 < static_cast<std::int64_t>(shape.size()))) {
    return pieces;  // some of the rows
  }
  Pieces kept;
  std::int64_t begin = 0;
  for (const SelectedPiece& piece : pieces) {
    const std::int64_t from = std::max(first, begin) - begin;
    const std::int64_t to = std::min(first + count, begin + piece.columns) - begin;
    if (from < to) {
      const bool whole = to - from == piece.columns || piece.kind != Kind::kRows;
      kept.push_back(
          {piece.kind, whole ? piece.all : tables_.sliced(piece.all, from, to - from), to - from});
    }
    begin += piece.columns;
  }
  if (kept.empty()) {
    refuse(node, "takes no column of what is selected");
  }
  return kept;
}

SelectionLifting::Pieces SelectionLifting::split(const NodeProto& node, const std::string& value) {
  const Shape shape = shape_of(node.input(0));
  const std::int64_t axis = from_start(integer_attribute(node, "axis", 0), shape);
  std::int64_t first = 0;
  for (const std::string& output : node.output()) {
    const std::int64_t count = size_at(shape_of(output), axis);
    if (output == value) {
      return cut_columns(node, axis, first, count);
    }
    first += count;
  }
  refuse(node, "has no such part");
}

SelectionLifting::Pieces SelectionLifting::sliced_node(const NodeProto& node) {
  const auto integers = [&](int input, const char* name, std::vector<double> usual) {
    if (node.input_size() > input && !node.input(input).empty()) {
      return network_.numbers(node.input(input)).value_or(std::vector<double>());
    }
    const Shape given = integers_attribute(node, name);
    return given.empty() ? usual : std::vector<double>(given.begin(), given.end());
  };
  const std::vector<double> starts = integers(1, "starts", {});
  const std::vector<double> ends = integers(2, "ends", {});
  const std::vector<double> axes = integers(3, "axes", {0});
  const std::vector<double> steps = integers(4, "steps", {1});
  if (are_numbers(lift(node.input(0)))) {
    return lift(node.input(0));
  }
  if (starts.size() != 1 || ends.size() != 1 || axes.size() != 1 ||
      steps != std::vector<double>{1}) {
    refuse(node, "takes several parts of what is selected");
  }
  const Shape shape = shape_of(node.input(0));
  const std::int64_t axis = from_start(static_cast<std::int64_t>(axes[0]), shape);
  const auto size = static_cast<double>(size_at(shape, axis));
  const auto place = [size](double at) {
    return static_cast<std::int64_t>(std::clamp(at < 0 ? at + size : at, 0., size));
  };
  return cut_columns(node, axis, place(starts[0]), place(ends[0]) - place(starts[0]));
}

// ---- Arithmetic -----------------------------------------------------------------------------------

SelectedPiece SelectionLifting::merged(const NodeProto& node, const Pieces& pieces) {
  if (pieces.size() == 1 || are_numbers(pieces)) {
    return {pieces[0].kind, pieces[0].all, columns_of(pieces)};
  }
  std::vector<std::string> tables;
  for (const SelectedPiece& piece : pieces) {
    if (piece.kind != Kind::kRows) {
      refuse(node, "computes from boxes, scores and numbers of classes in one");
    }
    tables.push_back(piece.all);
  }
  return {Kind::kRows, tables_.joined(tables), columns_of(pieces)};
}

std::string SelectionLifting::column_constant(const NodeProto& node, const std::string& value,
                                              std::int64_t columns) {
  const auto numbers = network_.numbers(value);
  const auto count = static_cast<std::int64_t>(numbers ? numbers->size() : 0);
  if (node.op_type() == "Clip" || node.op_type() == "MatMul") {
    return value;
  }
  if (count != 1 && count != columns) {
    refuse(node, "changes what is selected by values that are not of its columns");
  }
  const std::vector<float> values(numbers->begin(), numbers->end());
  return network_.add_floats("selected_" + value, {1, 1, count}, values);
}

SelectionLifting::Pieces SelectionLifting::computed(const NodeProto& node) {
  SelectedPiece result;
  bool has_number = false;
  for (const std::string& input : node.input()) {
    if (!input.empty() && network_.constant(input) == nullptr) {
      const SelectedPiece piece = merged(node, lift(input));
      has_number = has_number || piece.kind == Kind::kNumber;
      result.kind =
          piece.kind == Kind::kRows || result.kind == Kind::kNumber ? piece.kind : result.kind;
      result.columns = std::max(result.columns, piece.columns);
    }
  }
  if (result.kind == Kind::kNumber) {
    return {result};
  }
  if (has_number || !(is_elementwise(node) || is_operator(node, "MatMul"))) {
    refuse(node,
           "behind the selection changes what is selected in a way that cannot be moved in "
           "front of it");
  }
  std::vector<std::string> inputs;
  for (const std::string& input : node.input()) {
    const bool computed = !input.empty() && network_.constant(input) == nullptr;
    inputs.push_back(computed        ? merged(node, lift(input)).all
                     : input.empty() ? input
                                     : column_constant(node, input, result.columns));
  }
  std::vector<Attribute> attributes;
  for (const onnx::AttributeProto& attribute : node.attribute()) {
    attributes.emplace_back(attribute);
  }
  result.all = network_.add_node("all_" + node.op_type(), node.op_type(), inputs, attributes);
  return {result};
}

SelectedPiece SelectionLifting::ranked_scores() {
  const std::string& selector = nodes_.selectors.front();
  const NodeProto node = *network_.producer_of(selector);
  const bool suppresses = node.op_type() == "NonMaxSuppression";
  SelectedPiece piece = tables_.table_of(node.input(suppresses ? 1 : 0), true);
  piece.kind = piece.all.empty() ? Kind::kNumber : Kind::kScore;
  return piece;
}

SelectedPiece SelectionLifting::suppressed_boxes() {
  for (const std::string& selector : nodes_.selectors) {
    const NodeProto node = *network_.producer_of(selector);
    if (node.op_type() == "NonMaxSuppression") {
      return is_selected(node.input(0)) ? merged(node, lift(node.input(0)))
                                        : tables_.table_of(node.input(0));
    }
  }
  return {};
}

}  // namespace olvex_tools
