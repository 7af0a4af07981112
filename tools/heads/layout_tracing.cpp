// layout_tracing.cpp - compares the places from which the first elements of rows come.
#include "tools/heads/layout_tracing.h"

#include "tools/heads/element_origin.h"

namespace olvex_tools {

namespace {

ElementOrigin origin_of_row(const HeadQuestion& question, const HeadLayout& layout,
                            std::int64_t row) {
  const HeadTensor& tensor = layout.kinds.front().tensors.front();
  const bool columns = tensor.arrangement == Arrangement::kColumns;
  return origin_of(question.network, tensor.output, columns ? row : row * tensor.channels);
}

// Of the layer 1 x C x H x W that the element is from; 0: it is from none of a usual stride.
std::int64_t cells_of_layer(const HeadQuestion& question, const ElementOrigin& origin) {
  const Shape& shape = origin.shape;
  const bool is_layer =
      shape.size() == 4 && shape[0] == 1 && stride_of(question.size, shape[2], shape[3]) != 0;
  return is_layer ? shape[2] * shape[3] : 0;
}

}  // namespace

void find_row_order(const HeadQuestion& question, HeadLayout* layout) {
  if (layout->knows_order || layout->strides.empty() || layout->anchors < 2) {
    return;
  }
  if (question.options.anchors_first) {
    layout->anchors_first = *question.options.anchors_first;
    layout->knows_order = true;
    return;
  }
  const ElementOrigin first = origin_of_row(question, *layout, 0);
  const ElementOrigin second = origin_of_row(question, *layout, 1);
  const std::int64_t cells = cells_of_layer(question, first);
  if (first.value == second.value && cells == cells_of(question.size, layout->strides.front())) {
    const bool same_cell = first.place % cells == second.place % cells;
    const bool same_plane = first.place / cells == second.place / cells;
    layout->knows_order = same_cell != same_plane;
    layout->anchors_first = same_plane && !same_cell;
  }
}

bool are_cells_traced(const HeadQuestion& question, const HeadLayout& layout) {
  std::int64_t row = 0;
  for (const int stride : layout.strides) {
    const std::int64_t cells = cells_of(question.size, stride);
    if (cells_of_layer(question, origin_of_row(question, layout, row)) != cells) {
      return false;
    }
    row += cells * layout.anchors;
  }
  return true;
}

}  // namespace olvex_tools
