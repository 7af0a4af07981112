// SPDX-License-Identifier: Apache-2.0
// box_sort.cpp - boxes by descending score. score_order.h has the order.
#include "base/postprocess/box_sort.h"

#include <string.h>

#include "base/postprocess/det_postprocess.h"

// In place: follows each cycle of the order once, with one box held in a temporary. Boxes may be moved by
// their bytes.
void move_to_order(olvex::vector<BoxInfo>& boxes, size_t first, BoxOrder& order) {
  char held[sizeof(BoxInfo)];
  for (size_t start = 0; start < order.size(); ++start) {
    if (order[start] == start) {
      continue;
    }
    memcpy(held, static_cast<const void*>(&boxes[first + start]), sizeof(BoxInfo));
    size_t place = start;
    size_t from = order[place];
    while (from != start) {
      memcpy(static_cast<void*>(&boxes[first + place]),
             static_cast<const void*>(&boxes[first + from]), sizeof(BoxInfo));
      order[place] = static_cast<uint32_t>(place);
      place = from;
      from = order[place];
    }
    memcpy(static_cast<void*>(&boxes[first + place]), held, sizeof(BoxInfo));
    order[place] = static_cast<uint32_t>(place);
  }
}

void qsort_descent_inplace(olvex::vector<BoxInfo>& boxes, int left, int right) {
  if (left >= right) {
    return;
  }
  BoxOrder order;
  find_order(boxes, static_cast<size_t>(left), static_cast<size_t>(right - left) + 1, order);
  move_to_order(boxes, static_cast<size_t>(left), order);
}

void qsort_descent_inplace(olvex::vector<BoxInfo>& boxes) {
  if (boxes.empty()) {
    return;
  }
  qsort_descent_inplace(boxes, 0, static_cast<int>(boxes.size()) - 1);
}
