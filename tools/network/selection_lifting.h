// selection_lifting.h - what a selection of boxes inside a network takes its results from: for each selected
// value the tables of all candidates that it holds rows of. selection_tail.cpp cuts the selection off there.
#ifndef TOOLS_NETWORK_SELECTION_LIFTING_H
#define TOOLS_NETWORK_SELECTION_LIFTING_H

#include <map>
#include <set>
#include <string>
#include <vector>

#include "tools/network/network_graph.h"

namespace olvex_tools {

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

// The nodes that select boxes and those behind them, where no layer with weights follows them.
struct SelectionNodes {
  std::vector<std::string>
      selectors;  // first outputs of TopK and NonMaxSuppression, in the graph's order
  std::set<std::string> selected;  // every value behind them
};
SelectionNodes find_selection(const NetworkGraph& network);

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

  std::int64_t rows() const { return rows_; }
  // Values of the network that the tables are made from, and those among them that hold scores.
  const std::set<std::string>& sources() const { return sources_; }
  const std::set<std::string>& score_sources() const { return score_sources_; }

  // Columns first to first + count of a table.
  std::string sliced(const std::string& table, std::int64_t first, std::int64_t count);
  std::string joined(const std::vector<std::string>& tables);

 private:
  using Pieces = std::vector<SelectedPiece>;

  bool is_selected(const std::string& value) const { return nodes_.selected.count(value) != 0; }
  Shape shape_of(const std::string& value) const;
  std::int64_t count_rows() const;
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
  SelectedPiece table_of(const std::string& value);
  std::string canonical(const std::string& value, bool scores);

  const SelectionNodes& nodes_;
  NetworkGraph& network_;
  std::int64_t rows_ = 0;
  std::map<std::string, Pieces> lifted_;
  std::map<std::string, std::string> tables_;
  std::set<std::string> sources_;
  std::set<std::string> score_sources_;
};

}  // namespace olvex_tools

#endif  // TOOLS_NETWORK_SELECTION_LIFTING_H
