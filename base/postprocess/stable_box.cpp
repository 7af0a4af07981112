// SPDX-License-Identifier: Apache-2.0
// stable_box.cpp - OLVEX_StableBox, the self-contained stabiliser. The one
// that the handle uses is in video/det/src/det_refine.cpp.
#include "base/postprocess/det_postprocess.h"

namespace {

const double kHoldAbove = 0.63;

// Deliberate: no extra pixel, single precision up to the sum of the areas and double precision from
// the small constant on; different from every other overlap of the library.
float overlap_with_cached(const BoxInfo& box, const BoxInfo& cached) {
  const float xx1 = olvex::max(box.x1, cached.x1);
  const float yy1 = olvex::max(box.y1, cached.y1);
  const float xx2 = olvex::min(box.x2, cached.x2);
  const float yy2 = olvex::min(box.y2, cached.y2);
  const float w = olvex::max(xx2 - xx1, 0.0f);
  const float h = olvex::max(yy2 - yy1, 0.0f);
  const float intersection = w * h;
  const float union_area = (box.x2 - box.x1) * (box.y2 - box.y1) +
                           (cached.x2 - cached.x1) * (cached.y2 - cached.y1) - intersection;
  return static_cast<float>(static_cast<double>(intersection) /
                            (static_cast<double>(union_area) + 1e-07));
}

// Index of the cached box with the highest overlap, the first of equals; -1 when there is none.
// Deliberate: starts below 0, unlike the handle's stabiliser, so that an overlap of 0 counts.
int most_overlapping(const BoxInfo& box, const olvex::vector<BoxInfo>& cache, float& best_overlap) {
  int best = -1;
  best_overlap = -1.0f;
  for (size_t k = 0; k < cache.size(); ++k) {
    const float overlap = overlap_with_cached(box, cache[k]);
    if (best_overlap < overlap) {
      best = static_cast<int>(k);
      best_overlap = overlap;
    }
  }
  return best;
}

}  // namespace

olvex::vector<BoxInfo> OLVEX_StableBox::stable_box(olvex::vector<BoxInfo> boxes) {
  olvex::vector<BoxInfo> result;
  for (size_t i = 0; i < boxes.size(); ++i) {
    BoxInfo box(boxes[i]);
    float overlap;
    const int best = most_overlapping(box, cache_box, overlap);
    // Deliberate: only the corners are held; class, score and time stamp are the new box's.
    if (static_cast<double>(overlap) > kHoldAbove) {
      const BoxInfo& held = cache_box[static_cast<size_t>(best)];
      box.x1 = held.x1;
      box.y1 = held.y1;
      box.x2 = held.x2;
      box.y2 = held.y2;
    }
    result.push_back(box);
  }
  cache_box.clear();
  cache_box.insert(cache_box.begin(), result.begin(), result.end());
  return result;
}
