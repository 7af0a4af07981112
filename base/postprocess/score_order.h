// SPDX-License-Identifier: Apache-2.0
// score_order.h - the order in which qsort_descent_inplace leaves boxes, found on their scores alone.
// score_order_plain.cpp says what the order is; score_order.cpp finds the same one faster and ships.
#ifndef BASE_POSTPROCESS_SCORE_ORDER_H
#define BASE_POSTPROCESS_SCORE_ORDER_H

#include <stddef.h>
#include <stdint.h>

#include "utils/olvex_stl/scratch.h"
#include "utils/olvex_stl/simplestl.h"
#include "utils/records/det_records.h"

const size_t kUsualBoxes = 64;  // more take their scratch from the heap

// Indices of boxes, in some order.
typedef olvex::scratch<uint32_t, kUsualBoxes> BoxOrder;

// The order of count boxes from index first on, by descending score. Indices count from first.
//
// Deliberate: Hoare's partition around the middle element, although it is not stable. The order
// that it leaves among equal scores, and around a NaN, decides which of them survives suppression, so
// another sort would report other boxes.
void find_order(const olvex::vector<BoxInfo>& boxes, size_t first, size_t count, BoxOrder& order);

#endif  // BASE_POSTPROCESS_SCORE_ORDER_H
