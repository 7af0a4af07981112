// SPDX-License-Identifier: Apache-2.0
// score_order_plain.cpp - the order of descending scores as it is defined: each box is compared with the
// middle one.
#include "base/postprocess/score_order.h"

namespace {

// The boxes that are sorted, and their indices, which are sorted in their place.
struct Sorted {
  const BoxInfo* boxes;
  BoxOrder& order;

  float score(ptrdiff_t place) const { return boxes[order[static_cast<size_t>(place)]].score; }
};

// Places left to right, both inclusive.
void sort(const Sorted& sorted, ptrdiff_t left, ptrdiff_t right) {
  ptrdiff_t i = left;
  ptrdiff_t j = right;
  const float pivot = sorted.score((left + right) / 2);
  while (i <= j) {
    while (sorted.score(i) > pivot) {
      ++i;
    }
    while (sorted.score(j) < pivot) {
      --j;
    }
    if (i <= j) {
      olvex::swap(sorted.order[static_cast<size_t>(i)], sorted.order[static_cast<size_t>(j)]);
      ++i;
      --j;
    }
  }
  if (left < j) {
    sort(sorted, left, j);
  }
  if (i < right) {
    sort(sorted, i, right);
  }
}

}  // namespace

void find_order(const olvex::vector<BoxInfo>& boxes, size_t first, size_t count, BoxOrder& order) {
  order.resize(count);
  for (size_t k = 0; k < count; ++k) {
    order[k] = static_cast<uint32_t>(k);
  }
  if (count > 0) {
    const Sorted sorted = {boxes.data() + first, order};
    sort(sorted, 0, static_cast<ptrdiff_t>(count) - 1);
  }
}
