// SPDX-License-Identifier: Apache-2.0
// box_sort.h - what qsort_descent_inplace does with an order of scores. suppression.cpp works on the
// order (score_order.h) first, so that the boxes themselves are moved only once.
#ifndef BASE_POSTPROCESS_BOX_SORT_H
#define BASE_POSTPROCESS_BOX_SORT_H

#include <stddef.h>

#include "utils/olvex_stl/simplestl.h"
#include "utils/records/det_records.h"
#include "base/postprocess/score_order.h"

// Moves the boxes so that box order[k] comes to place k, both counted from first. Overwrites the
// order: afterwards order[k] is k.
void move_to_order(olvex::vector<BoxInfo>& boxes, size_t first, BoxOrder& order);

#endif  // BASE_POSTPROCESS_BOX_SORT_H
