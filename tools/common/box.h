// SPDX-License-Identifier: Apache-2.0
// box.h - a rectangle and how far two of them overlap, for all that measures or compares boxes.
#ifndef TOOLS_COMMON_BOX_H
#define TOOLS_COMMON_BOX_H

#include <algorithm>

namespace olvex_tools {

// Pixels; finite. A size may be zero or negative: such a box has no area and overlaps nothing.
struct Box {
  double x = 0;  // left edge
  double y = 0;  // top edge
  double width = 0;
  double height = 0;
};

// Intersection over union, or with of_first over the first box's own area; 0 where the boxes do not
// intersect. Rounding can make it a little more than 1.
inline double overlap(const Box& first, const Box& second, bool of_first = false) {
  const double width =
      std::min(first.x + first.width, second.x + second.width) - std::max(first.x, second.x);
  const double height =
      std::min(first.y + first.height, second.y + second.height) - std::max(first.y, second.y);
  if (!(width > 0 && height > 0)) {
    return 0;
  }
  const double intersection = width * height;
  const double area = first.width * first.height;
  const double whole = of_first ? area : area + second.width * second.height - intersection;
  // Sizes of 1e-200 have no area in double precision.
  return whole > 0 ? intersection / whole : 0;
}

}  // namespace olvex_tools

#endif  // TOOLS_COMMON_BOX_H
