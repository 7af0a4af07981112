// SPDX-License-Identifier: Apache-2.0
// selection_tables.cpp - brings values of all candidates into one form, 1 x rows x columns.
#include "tools/network/selection_lifting.h"

#include <algorithm>

#include "tools/network/selection_tail.h"

namespace olvex_tools {

namespace {

using Kind = SelectedPiece::Kind;
using onnx::NodeProto;

constexpr std::int64_t kSliceTakesInputs = 10;  // the first version of the operators that does

}  // namespace

std::string SelectionTables::sliced(const std::string& table, std::int64_t first,
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

std::string SelectionTables::joined(const std::vector<std::string>& tables) {
  return tables.size() == 1 ? tables[0]
                            : network_.add_node("all_rows", "Concat", tables,
                                                {Attribute("axis", std::int64_t{2})});
}

// What is selected from, by what computes it: the best of each row is a score of the table in front.
SelectedPiece SelectionTables::table_of(const std::string& value, bool scores) {
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
  const std::string table = canonical(value, scores);
  return {Kind::kRows, table, elements_of(shape_of(value)) / rows_};
}

// Any value of all rows as 1 x rows x columns, the same for the same elements. Those of all rows in one
// dimension are looked up in front of where they were flattened.
std::string SelectionTables::canonical(const std::string& value, bool scores) {
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

}  // namespace olvex_tools
