// SPDX-License-Identifier: Apache-2.0
// inclusive_overlap.h - how suppression measures boxes. For suppression.cpp and kept_boxes.h.
//
// Deliberate: widths count both border pixels (+1), unlike the other overlap measures; the
// threshold of suppression is tuned to this one.
#ifndef BASE_POSTPROCESS_INCLUSIVE_OVERLAP_H
#define BASE_POSTPROCESS_INCLUSIVE_OVERLAP_H

#include "utils/olvex_stl/simplestl.h"
#include "utils/records/det_records.h"

inline float inclusive_area(const BoxInfo& box) {
  return (box.x2 - box.x1 + 1) * (box.y2 - box.y1 + 1);
}

// class_specific: boxes of different labels have none.
inline float inclusive_intersection(const BoxInfo& a, const BoxInfo& b, bool class_specific) {
  if (class_specific && a.label != b.label) {
    return 0.0f;
  }
  const float xx1 = olvex::max(a.x1, b.x1);
  const float yy1 = olvex::max(a.y1, b.y1);
  const float xx2 = olvex::min(a.x2, b.x2);
  const float yy2 = olvex::min(a.y2, b.y2);
  const float w = olvex::max(0.0f, xx2 - xx1 + 1);
  const float h = olvex::max(0.0f, yy2 - yy1 + 1);
  return w * h;
}

#endif  // BASE_POSTPROCESS_INCLUSIVE_OVERLAP_H
