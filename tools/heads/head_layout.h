// head_layout.h - the outputs of a network as tables of candidate rows: which outputs belong to which stride,
// which hold the same kind of value, and what their channels were computed by.
#ifndef TOOLS_HEADS_HEAD_LAYOUT_H
#define TOOLS_HEADS_HEAD_LAYOUT_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/heads/channel_origins.h"
#include "tools/heads/conclude_head.h"

namespace olvex_tools {

// Outputs with the same kind of value: one for each stride, or one for all.
struct RowKind {
  std::vector<HeadTensor> tensors;
  std::int64_t channels = 0;  // of a row; of a cell as long as the anchors are not known
  std::vector<ChannelRun> runs;
};

struct HeadLayout {
  std::vector<int> strides;    // of the cells that the rows stand for; none when they fit none
  std::int64_t anchors = 1;    // rows of a cell; 0 when it differs from stride to stride
  bool anchors_first = false;  // rows go anchor by anchor, of each the cells; else cell by cell
  bool knows_order = false;    // which of the two it is; else it is what is usual
  bool layered = false;        // an output for each stride
  bool planes = false;         // cells: the channels of a cell may be those of several rows
  std::int64_t rows = 0;
  std::vector<RowKind> kinds;  // in the order in which they first appear
};

std::int64_t cells_of(const InputSize& size, int stride);
// The stride whose cells are rows x columns; 0: none.
int stride_of(const InputSize& size, std::int64_t rows, std::int64_t columns);

bool is_layer_of_cells(const NetworkTensor& output, const InputSize& size);

// What may be read of some outputs of the network; several layouts where the graph does not tell between two
// usual sets of strides, none when the outputs do not go together.
std::vector<HeadLayout> lay_out(const HeadQuestion& question,
                                const std::vector<NetworkTensor>& outputs);

// "8, 16 and 32 have 8400 cells, ...": the numbers of rows that are looked for.
std::string usual_rows_text(const InputSize& size);

// Planes of several anchors: the same with the values of a row instead of those of a cell.
HeadLayout with_anchors(HeadLayout layout, std::int64_t anchors);

// "8, 16 and 32".
std::string list_of(const std::vector<int>& numbers);
std::string comma_list(const std::vector<int>& numbers);

}  // namespace olvex_tools

#endif  // TOOLS_HEADS_HEAD_LAYOUT_H
