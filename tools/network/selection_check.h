// selection_check.h - proves on numbers that what a network selects are rows of the tables that it was taken
// to select from.
#ifndef TOOLS_NETWORK_SELECTION_CHECK_H
#define TOOLS_NETWORK_SELECTION_CHECK_H

#include <set>
#include <string>
#include <vector>

#include "tools/network/selection_lifting.h"

namespace olvex_tools {

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

#endif  // TOOLS_NETWORK_SELECTION_CHECK_H
