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

constexpr std::int64_t kSliceTakesInputs = 10;  // the first version of the operators that does

bool is_one_of(const NodeProto& node, const std::set<std::string>& operations) {
  return operations.count(node.op_type()) != 0;
}

// Whether it leaves the elements as they are, in their order.
bool only_reshapes(const NodeProto& node) {
  return is_one_of(node,
                   {"Reshape", "Flatten", "Squeeze", "Unsqueeze", "Identity", "Cast", "Dropout"});
}

bool only_moves(const NodeProto& node) {
  return only_reshapes(node) || is_one_of(node, {"Transpose", "Expand", "Tile"});
}

bool is_elementwise(const NodeProto& node) {
  return is_one_of(node, {"Add", "Sub", "Mul", "Div", "Pow", "Min", "Max", "Clip", "Neg", "Sqrt",
                          "Exp", "Sigmoid", "Softmax", "Round", "Floor"});
}

bool is_small(const NetworkGraph& network, const std::string& value) {
  constexpr std::size_t kBoxTransform = 16;  // corners to centre and size, or the other way round
  const auto numbers = network.numbers(value);
  return numbers && numbers->size() == kBoxTransform;
}

// A layer of the network itself: what stands in front of it is no selection of results.
bool is_layer(const NetworkGraph& network, const NodeProto& node) {
  static const std::set<std::string> kLayers = {"Conv",
                                                "ConvTranspose",
                                                "Gemm",
                                                "LSTM",
                                                "GRU",
                                                "RNN",
                                                "Einsum",
                                                "RoiAlign",
                                                "GridSample",
                                                "Attention",
                                                "Resize",
                                                "MaxPool",
                                                "AveragePool",
                                                "ConvInteger",
                                                "MatMulInteger",
                                                "QLinearConv",
                                                "QLinearMatMul",
                                                "LayerNormalization",
                                                "InstanceNormalization"};
  if (node.op_type() == "MatMul") {
    return node.input_size() != 2 || !is_small(network, node.input(1));
  }
  return is_one_of(node, kLayers);
}

// The best of each row among its classes: selects no rows.
bool chooses_class(const NetworkGraph& network, const NodeProto& node) {
  if (node.op_type() != "TopK") {
    return false;
  }
  const auto count = network.numbers(node.input_size() > 1 ? node.input(1) : "");
  return count ? *count == std::vector<double>{1} : integer_attribute(node, "k", 0) == 1;
}

bool is_selector(const NetworkGraph& network, const NodeProto& node) {
  return node.output_size() > 0 && node.input_size() > 0 &&
         (is_operator(node, "NonMaxSuppression") ||
          (is_operator(node, "TopK") && !chooses_class(network, node)));
}

// Everything behind a node; nothing when a layer is there.
std::optional<std::set<std::string>> values_behind(const NetworkGraph& network,
                                                   const NodeProto& start) {
  std::set<std::string> found;
  std::vector<const NodeProto*> waiting = {&start};
  while (!waiting.empty()) {
    const NodeProto& node = *waiting.back();
    waiting.pop_back();
    if (is_layer(network, node)) {
      return std::nullopt;
    }
    for (const std::string& output : node.output()) {
      if (!output.empty() && found.insert(output).second) {
        const std::vector<const NodeProto*> users = network.users_of(output);
        waiting.insert(waiting.end(), users.begin(), users.end());
      }
    }
  }
  return found;
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

SelectionNodes find_selection(const NetworkGraph& network) {
  SelectionNodes nodes;
  for (const NodeProto& node : network.model().graph().node()) {
    if (!is_selector(network, node)) {
      continue;
    }
    if (const auto behind = values_behind(network, node)) {
      nodes.selectors.push_back(node.output(0));
      nodes.selected.insert(behind->begin(), behind->end());
    }
  }
  return nodes;
}

SelectionLifting::SelectionLifting(const SelectionNodes& nodes, NetworkGraph* network)
    : nodes_(nodes), network_(*network), rows_(count_rows()) {
  if (rows_ <= 1) {
    throw CannotLift{"it cannot be seen how many candidates there are"};
  }
}

Shape SelectionLifting::shape_of(const std::string& value) const {
  return network_.shape_of(value).value_or(Shape());
}

// The dimension along which rows are chosen.
std::int64_t SelectionLifting::count_rows() const {
  for (const std::string& selector : nodes_.selectors) {
    const NodeProto& node = *network_.producer_of(selector);
    if (node.op_type() == "NonMaxSuppression") {
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
  Pieces pieces = lift_node(node, value);
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
    SelectedPiece piece =
        is_selected(node.input(0)) ? merged(node, lift(node.input(0))) : table_of(node.input(0));
    piece.kind = piece.all.empty() ? Kind::kNumber : Kind::kScore;
    piece.columns = 1;
    return {piece};
  }
  if (only_moves(node)) {
    return lift(node.input(0));
  }
  if (is_one_of(node, {"Gather", "GatherElements", "GatherND"})) {
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
  Pieces pieces = is_selected(data) ? lift(data) : Pieces{table_of(data)};
  const Shape shape = shape_of(value);
  const Shape places = shape_of(node.input(1));
  const bool one_of_each =
      (node.op_type() == "GatherElements" && !shape.empty() && shape.back() == 1) ||
      (node.op_type() == "GatherND" && !places.empty() &&
       static_cast<std::int64_t>(source.size()) ==
           places.back() + integer_attribute(node, "batch_dims", 0));
  if (pieces.size() == 1 && pieces[0].kind == Kind::kRows && pieces[0].columns > 1 && one_of_each) {
    score_sources_.insert(pieces[0].all);
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
          {piece.kind, whole ? piece.all : sliced(piece.all, from, to - from), to - from});
    }
    begin += piece.columns;
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
  return {};
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
  return {Kind::kRows, joined(tables), columns_of(pieces)};
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

// ---- Tables ---------------------------------------------------------------------------------------

std::string SelectionLifting::sliced(const std::string& table, std::int64_t first,
                                     std::int64_t count) {
  const Shape start = {first};
  const Shape end = {first + count};
  if (network_.opset() < kSliceTakesInputs) {
    return network_.add_node(
        "all_columns", "Slice", {table},
        {Attribute("axes", Shape{2}), Attribute("starts", start), Attribute("ends", end)});
  }
  return network_.add_node(
      "all_columns", "Slice",
      {table, network_.add_integers("all_first", start), network_.add_integers("all_end", end),
       network_.add_integers("all_axis", {2})});
}

std::string SelectionLifting::joined(const std::vector<std::string>& tables) {
  return tables.size() == 1 ? tables[0]
                            : network_.add_node("all_rows", "Concat", tables,
                                                {Attribute("axis", std::int64_t{2})});
}

// What is selected from, by what computes it: the best of each row is a score of the table in front.
SelectedPiece SelectionLifting::table_of(const std::string& value) {
  std::string source = value;
  const NodeProto* node = network_.producer_of(source);
  while (node != nullptr && (only_reshapes(*node) || node->op_type() == "Transpose") &&
         elements_of(shape_of(node->input(0))) == elements_of(shape_of(value))) {
    source = node->input(0);
    node = network_.producer_of(source);
  }
  const bool of_class = node != nullptr && chooses_class(network_, *node);
  if (node != nullptr && (node->op_type() == "ArgMax" || (of_class && source != node->output(0)))) {
    return {};
  }
  if (node != nullptr && (node->op_type() == "ReduceMax" || of_class)) {
    return {Kind::kScore, canonical(node->input(0), true), 1};
  }
  const std::string table = canonical(value, false);
  return {Kind::kRows, table, elements_of(shape_of(value)) / rows_};
}

// Any value of all rows as 1 x rows x columns, the same for the same elements. Those of all rows in one
// dimension are looked up in front of where they were flattened.
std::string SelectionLifting::canonical(const std::string& value, bool scores) {
  const auto found = tables_.find(value);
  if (found != tables_.end()) {
    return found->second;
  }
  const Shape shape = shape_of(value);
  const std::int64_t count = elements_of(shape);
  const NodeProto* const node = network_.producer_of(value);
  const std::int64_t columns = count > 0 ? count / rows_ : 0;
  const auto is_long = [](std::int64_t size) { return size > 1; };
  const auto first = std::find_if(shape.begin(), shape.end(), is_long);
  std::string table;
  if (first != shape.end() && *first == rows_ && columns * rows_ == count) {
    table =
        shape == Shape{1, rows_, columns}
            ? value
            : network_.add_node("all_rows", "Reshape",
                                {value, network_.add_integers("all_shape", {1, rows_, columns})});
  } else if (!shape.empty() && shape.back() == rows_ && columns * rows_ == count) {
    const std::string flat =
        shape == Shape{1, columns, rows_}
            ? value
            : network_.add_node("all_columns", "Reshape",
                                {value, network_.add_integers("all_shape", {1, columns, rows_})});
    table = network_.add_node("all_rows", "Transpose", {flat}, {Attribute("perm", Shape{0, 2, 1})});
  } else if (node != nullptr && only_reshapes(*node)) {
    return tables_[value] = canonical(node->input(0), scores);
  } else {
    throw CannotLift{"\"" + value + "\", from which is selected, has no row for each candidate"};
  }
  sources_.insert(value);
  if (scores) {
    score_sources_.insert(value);
  }
  return tables_[value] = table;
}

SelectedPiece SelectionLifting::ranked_scores() {
  const std::string& selector = nodes_.selectors.front();
  const NodeProto node = *network_.producer_of(selector);
  const bool suppresses = node.op_type() == "NonMaxSuppression";
  SelectedPiece piece = table_of(node.input(suppresses ? 1 : 0));
  piece.kind = piece.all.empty() ? Kind::kNumber : Kind::kScore;
  return piece;
}

SelectedPiece SelectionLifting::suppressed_boxes() {
  for (const std::string& selector : nodes_.selectors) {
    const NodeProto node = *network_.producer_of(selector);
    if (node.op_type() == "NonMaxSuppression") {
      return table_of(node.input(0));
    }
  }
  return {};
}

}  // namespace olvex_tools
