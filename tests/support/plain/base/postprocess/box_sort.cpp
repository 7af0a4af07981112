// box_sort.cpp - boxes by falling score. See det_postprocess.h.
#include "base/postprocess/det_postprocess.h"

// Deliberate: this exact partition, although it is not stable. The order that it leaves among equal
// scores decides which of them survives suppression, so another sort would report other boxes.
void qsort_descent_inplace(olvex::vector<BoxInfo>& boxes, int left, int right) {
  int i = left;
  int j = right;
  const float pivot = boxes[static_cast<size_t>((left + right) / 2)].score;
  while (i <= j) {
    while (boxes[static_cast<size_t>(i)].score > pivot) {
      ++i;
    }
    while (boxes[static_cast<size_t>(j)].score < pivot) {
      --j;
    }
    if (i <= j) {
      olvex::swap(boxes[static_cast<size_t>(i)], boxes[static_cast<size_t>(j)]);
      ++i;
      --j;
    }
  }
  if (left < j) {
    qsort_descent_inplace(boxes, left, j);
  }
  if (i < right) {
    qsort_descent_inplace(boxes, i, right);
  }
}

void qsort_descent_inplace(olvex::vector<BoxInfo>& boxes) {
  if (boxes.empty()) {
    return;
  }
  qsort_descent_inplace(boxes, 0, static_cast<int>(boxes.size()) - 1);
}
