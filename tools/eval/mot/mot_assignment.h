// mot_assignment.h - the best way to pair rows with columns when each may be paired once.
// Used for boxes of one frame and for whole tracks; read mot_clear.cpp for an example.
#ifndef TOOLS_EVAL_MOT_MOT_ASSIGNMENT_H
#define TOOLS_EVAL_MOT_MOT_ASSIGNMENT_H

#include <cstddef>
#include <vector>

namespace olvex_tools {

struct WeightedPair {
  std::size_t row = 0;
  std::size_t column = 0;
  double weight = 0;
};

// The pairs with the largest sum of weights of which no two share a row or a column, in the order
// of their rows. Pairs that are not listed are forbidden, those without a weight above 0 are never
// taken, and rows and columns may be left over. Of several equally good ways one is chosen, always
// the same one.
// Requires: rows and columns of pairs are below these counts; weights are finite; no pair is listed
// twice.
std::vector<WeightedPair> best_assignment(std::size_t rows, std::size_t columns,
                                          const std::vector<WeightedPair>& pairs);

}  // namespace olvex_tools

#endif  // TOOLS_EVAL_MOT_MOT_ASSIGNMENT_H
