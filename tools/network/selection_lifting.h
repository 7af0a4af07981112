// selection_lifting.h - what a selection of boxes inside a network takes its results from: for each selected
// value the tables of all candidates that it holds rows of. selection_tail.cpp cuts the selection off there.
#ifndef TOOLS_NETWORK_SELECTION_LIFTING_H
#define TOOLS_NETWORK_SELECTION_LIFTING_H

#include <map>
#include <string>
#include <vector>

#include "tools/network/network_graph.h"
#include "tools/network/selection_nodes.h"
#include "tools/network/selection_tables.h"

namespace olvex_tools {

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

}  // namespace olvex_tools

#endif  // TOOLS_NETWORK_SELECTION_LIFTING_H
