// constant_folding.h - computes what a network computes from constants alone, and keeps the results.
#ifndef TOOLS_NETWORK_CONSTANT_FOLDING_H
#define TOOLS_NETWORK_CONSTANT_FOLDING_H

#include "tools/network/network_graph.h"

namespace olvex_tools {

// Makes weights of the values that depend on weights and on known shapes alone, as far as
// constant_value.h computes the operators and up to a number of elements in all. Values that are outputs
// of the network stay computed. Returns how many nodes it replaced; the network is up to date.
int fold_constants(NetworkGraph* network);

}  // namespace olvex_tools

#endif  // TOOLS_NETWORK_CONSTANT_FOLDING_H
