// SPDX-License-Identifier: Apache-2.0
// frame_outputs.h - a frame's outputs as whole tensors, as large as the network's description says. Those that were
// stored in cells are filled up: docs/recordings.md has the layout, and says for which thresholds the filled tensor
// gives the boxes of the one that was recorded.
#ifndef TOOLS_RECORDINGS_FRAME_OUTPUTS_H
#define TOOLS_RECORDINGS_FRAME_OUTPUTS_H

#include <cstddef>
#include <string>
#include <vector>

#include "tools/recordings/messages.h"

namespace olvex_tools {

// A network or frame that contradicts itself; the text says in what.
struct OutputFault {
  std::string what;
};

struct CellLayout {
  std::size_t cells;
  std::size_t channels;
  std::size_t classes;
  std::size_t element;  // bytes: 4 for FP32, 2 for INT16
};

// Throws std::runtime_error, with the offset in data, where it does not hold cells of this layout.
Bytes fill_cells(const std::string& data, const CellLayout& layout);

// Bytes of each output's buffer, as far as the library may read it. Throws OutputFault for more than 256 MiB in
// all.
std::vector<std::size_t> output_sizes(const RecordedNetwork& network);

// One entry per output of the network; empty where the platform gave no address. Throws OutputFault.
std::vector<Bytes> whole_outputs(const RecordedFrame& frame, const RecordedNetwork& network);

// What a frame without any object leaves: layers below every threshold, lists without a box.
std::vector<Bytes> empty_outputs(const RecordedNetwork& network);

}  // namespace olvex_tools

#endif  // TOOLS_RECORDINGS_FRAME_OUTPUTS_H
