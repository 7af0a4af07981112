// SPDX-License-Identifier: Apache-2.0
// kept_boxes.h - which boxes non-maximum suppression keeps. kept_boxes_plain.cpp says which they are;
// kept_boxes.cpp finds the same ones faster and ships.
#ifndef BASE_POSTPROCESS_KEPT_BOXES_H
#define BASE_POSTPROCESS_KEPT_BOXES_H

#include <stddef.h>

#include "utils/olvex_stl/simplestl.h"
#include "utils/records/det_records.h"
#include "base/postprocess/score_order.h"

// Keeps a box when its ratio of intersection to union (inclusive_overlap.h) with each box kept before it
// is not at or above the threshold: an equal ratio suppresses, NaN does not.
//   sorted          indices of all boxes, by descending score
//   class_specific  boxes of different labels have an intersection of 0
//   order           gets first the kept boxes, by descending score, then the others
// Returns how many are kept.
size_t find_kept(const olvex::vector<BoxInfo>& boxes, const BoxOrder& sorted, float threshold,
                 bool class_specific, BoxOrder& order);

#endif  // BASE_POSTPROCESS_KEPT_BOXES_H
