// channel_origins.h - which nodes compute which channels of an output: the way back through what only moves
// values. conclude_head.cpp reads from it where one kind of value ends and the next begins.
#ifndef TOOLS_HEADS_CHANNEL_ORIGINS_H
#define TOOLS_HEADS_CHANNEL_ORIGINS_H

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "tools/network/network_graph.h"

namespace olvex_tools {

// A run of channels that the same nodes compute.
struct ChannelRun {
  std::int64_t first = 0;
  std::int64_t count = 0;
  std::vector<std::string> values;  // what those nodes compute, of each layer
};

// The channels of a value along a dimension, in order. A graph that cannot be followed gives one run.
std::vector<ChannelRun> trace_channels(const NetworkGraph& network, const std::string& value,
                                       std::size_t axis);

// The runs of several tensors with the same channels: one ends where one of theirs does.
std::vector<ChannelRun> merge_runs(const std::vector<std::vector<ChannelRun>>& layers);

// What was done to values since the last weights (Conv, Gemm, MatMul), or since they were numbers of places or the
// results of comparisons.
struct Treatment {
  bool sigmoid = false;
  bool softmax = false;
  bool grid = false;  // they were combined with constants that differ from cell to cell
  bool exponential = false;
  bool rectified = false;  // Relu, Softplus
  bool arg_max = false;
};

// From how many elements on a constant differs from cell to cell, and the rows and columns of cells: numbers in
// equal steps, as many as there are of these, are the places of the cells.
struct GridSize {
  std::int64_t cells = 0;
  std::set<std::int64_t> sides;
};

Treatment treatment_of(const NetworkGraph& network, const std::vector<std::string>& values,
                       const GridSize& grid);

// The size of the dimension that the nearest ArgMax or ReduceMax behind value goes over; 0: none.
std::int64_t reduced_size(const NetworkGraph& network, const std::string& value);

}  // namespace olvex_tools

#endif  // TOOLS_HEADS_CHANNEL_ORIGINS_H
