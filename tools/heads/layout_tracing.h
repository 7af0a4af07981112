// layout_tracing.h - what the graph says about the rows of tables: from which layers of cells they were moved to
// their places.
#ifndef TOOLS_HEADS_LAYOUT_TRACING_H
#define TOOLS_HEADS_LAYOUT_TRACING_H

#include "tools/heads/head_layout.h"

namespace olvex_tools {

// Of a layout with several rows for each cell: whether they go anchor by anchor, by --row-order or by where the
// first two rows come from.
void find_row_order(const HeadQuestion& question, HeadLayout* layout);

// Whether the first row of each stride is seen to come from a layer of its cells.
bool are_cells_traced(const HeadQuestion& question, const HeadLayout& layout);

}  // namespace olvex_tools

#endif  // TOOLS_HEADS_LAYOUT_TRACING_H
