// selection_tables.h - the values from which a network selects, as tables with a row for each candidate.
#ifndef TOOLS_NETWORK_SELECTION_TABLES_H
#define TOOLS_NETWORK_SELECTION_TABLES_H

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

}  // namespace olvex_tools

#endif  // TOOLS_NETWORK_SELECTION_TABLES_H
