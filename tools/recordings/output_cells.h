// SPDX-License-Identifier: Apache-2.0
// output_cells.h - outputs that a recording stores in cells, filled up to whole tensors. docs/recordings.md has
// the layout, and says for which thresholds the filled tensor gives the boxes of the one that was recorded.
#ifndef TOOLS_RECORDINGS_OUTPUT_CELLS_H
#define TOOLS_RECORDINGS_OUTPUT_CELLS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct CellLayout {
  std::size_t cells;
  std::size_t channels;
  std::size_t classes;
  std::size_t element;  // bytes: 4 for FP32, 2 for INT16
};

// Throws std::runtime_error, with the offset in data, where it does not hold cells of this layout.
std::vector<unsigned char> fill_cells(const std::string& data, const CellLayout& layout);

#endif  // TOOLS_RECORDINGS_OUTPUT_CELLS_H
