// SPDX-License-Identifier: Apache-2.0
// selection_lifting.h - what a selection of boxes inside a network takes its results from: the tables of all
// candidates, for each selected value those that it holds rows of, and the proof of it. selection_tail.cpp
// cuts the selection off there.
#ifndef TOOLS_NETWORK_SELECTION_LIFTING_H
#define TOOLS_NETWORK_SELECTION_LIFTING_H

#include <map>
#include <set>
#include <string>
#include <vector>

#include "tools/network/network_graph.h"
#include "tools/network/selection_tail.h"

namespace olvex_tools {

// ---- The tables, with a row for each candidate (selection_tables.cpp) ---------------------------

// Columns of a selected value.
struct SelectedPiece {
  enum class Kind {
    kRows,   // those of the chosen rows of all
    kScore,  // of a chosen row of all the value of the chosen class
    kNumber  // numbers of rows or of classes, counts, fillings: nothing of a table
  };
  Kind kind = Kind::kNumber;
  std::string all;  // 1 x candidates x columns; empty for a number
  std::int64_t columns = 1;
};

// Thrown where a selection cannot be taken back. what ends a sentence.
struct CannotLift {
  std::string what;
};

// Adds the nodes that make the tables, behind all others.
class SelectionTables {
 public:
  SelectionTables(std::int64_t rows, NetworkGraph* network) : rows_(rows), network_(*network) {}

  // A value from which is selected. Throws CannotLift when it has no row for each candidate.
  SelectedPiece table_of(const std::string& value, bool scores = false);

  // Columns first to first + count of a table.
  std::string sliced(const std::string& table, std::int64_t first, std::int64_t count);
  std::string joined(const std::vector<std::string>& tables);

  // Values of the network that the tables are made from, and those among them that hold scores.
  const std::set<std::string>& sources() const { return sources_; }
  const std::set<std::string>& score_sources() const { return score_sources_; }

 private:
  Shape shape_of(const std::string& value) const {
    return network_.shape_of(value).value_or(Shape());
  }
  std::string canonical(const std::string& value, bool scores);

  std::int64_t rows_;
  NetworkGraph& network_;
  std::map<std::string, std::string> tables_;
  std::set<std::string> sources_;
  std::set<std::string> score_sources_;
};

// ---- From selected values to tables (selection_lifting.cpp) -------------------------------------

// Nodes that only choose, move or compute element by element are added for all candidates.
class SelectionLifting {
 public:
  // Throws CannotLift.
  SelectionLifting(const SelectionNodes& nodes, NetworkGraph* network);

  // The pieces of a selected value, in the order of its columns. Throws CannotLift.
  const std::vector<SelectedPiece>& lift(const std::string& value);

  // Tables by which is selected; boxes only where NonMaxSuppression says which they are.
  SelectedPiece ranked_scores();
  SelectedPiece suppressed_boxes();

  SelectionTables& tables() { return tables_; }

 private:
  using Pieces = std::vector<SelectedPiece>;

  bool is_selected(const std::string& value) const { return nodes_.selected.count(value) != 0; }
  Shape shape_of(const std::string& value) const;
  std::int64_t count_rows() const;
  std::int64_t find_rows() const;
  Pieces lift_node(const onnx::NodeProto& node, const std::string& value);
  Pieces gathered(const onnx::NodeProto& node, const std::string& value);
  Pieces concatenated(const onnx::NodeProto& node);
  Pieces split(const onnx::NodeProto& node, const std::string& value);
  Pieces cut_columns(const onnx::NodeProto& node, std::int64_t axis, std::int64_t first,
                     std::int64_t count);
  Pieces sliced_node(const onnx::NodeProto& node);
  Pieces computed(const onnx::NodeProto& node);
  std::string column_constant(const onnx::NodeProto& node, const std::string& value,
                              std::int64_t columns);
  SelectedPiece merged(const onnx::NodeProto& node, const Pieces& pieces);

  const SelectionNodes& nodes_;
  NetworkGraph& network_;
  SelectionTables tables_;
  std::map<std::string, Pieces> lifted_;
  int depth_ = 0;  // of lift()
};

// ---- The proof on numbers (selection_check.cpp) -------------------------------------------------

struct SelectedOutput {
  std::string name;
  std::vector<SelectedPiece> pieces;
};

struct SelectionClaim {
  std::vector<SelectedOutput> outputs;
  std::string scores;                   // the table by which is selected
  std::set<std::string> sources;        // values that the tables are made from
  std::set<std::string> score_sources;  // those that hold scores
};

// The network has its own outputs and the nodes of the tables. Its selection is computed on arbitrary
// numbers; each row that it chooses has to stand in the tables, with the score of the class whose number is
// beside it. Throws CannotLift where it does not, or cannot be computed.
void check_selection(const NetworkGraph& network, const SelectionClaim& claim);

}  // namespace olvex_tools

#endif  // TOOLS_NETWORK_SELECTION_LIFTING_H
