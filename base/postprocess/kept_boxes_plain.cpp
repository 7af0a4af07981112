// SPDX-License-Identifier: Apache-2.0
// kept_boxes_plain.cpp - which boxes suppression keeps as it is defined: each box is divided by each kept
// one.
#include "base/postprocess/kept_boxes.h"

#include "base/postprocess/inclusive_overlap.h"

namespace {

bool suppresses(const BoxInfo& kept, const BoxInfo& box, float threshold, bool class_specific) {
  const float intersection = inclusive_intersection(kept, box, class_specific);
  return intersection / (inclusive_area(kept) + inclusive_area(box) - intersection) >= threshold;
}

}  // namespace

size_t find_kept(const olvex::vector<BoxInfo>& boxes, const BoxOrder& sorted, float threshold,
                 bool class_specific, BoxOrder& order) {
  const size_t n = boxes.size();
  order.resize(n);
  size_t num_kept = 0;
  size_t num_suppressed = 0;
  for (size_t k = 0; k < n; ++k) {
    bool is_kept = true;
    for (size_t j = 0; j < num_kept && is_kept; ++j) {
      is_kept = !suppresses(boxes[order[j]], boxes[sorted[k]], threshold, class_specific);
    }
    order[is_kept ? num_kept++ : n - ++num_suppressed] = sorted[k];
  }
  return num_kept;
}
