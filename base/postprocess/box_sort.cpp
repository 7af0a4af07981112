// box_sort.cpp - boxes by falling score. See det_postprocess.h, box_sort.h, and score_order.h for the order.
#include "base/postprocess/box_sort.h"

#include <string.h>

#include "base/postprocess/det_postprocess.h"

// Follows each cycle of the order once, with one box in the air. Boxes may be moved by their bytes.
void move_to_order(olvex::vector<BoxInfo>& boxes, size_t first, BoxOrder& order) {
  char in_the_air[sizeof(BoxInfo)];
  for (size_t start = 0; start < order.size(); ++start) {
    if (order[start] == start) {
      continue;
    }
    memcpy(in_the_air, static_cast<const void*>(&boxes[first + start]), sizeof(BoxInfo));
    size_t place = start;
    size_t from = order[place];
    while (from != start) {
      memcpy(static_cast<void*>(&boxes[first + place]),
             static_cast<const void*>(&boxes[first + from]), sizeof(BoxInfo));
      order[place] = static_cast<uint32_t>(place);
      place = from;
      from = order[place];
    }
    memcpy(static_cast<void*>(&boxes[first + place]), in_the_air, sizeof(BoxInfo));
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
