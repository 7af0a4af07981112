// box_sort.h - the sort behind qsort_descent_inplace, on scores alone: whoever goes on with the
// order (suppression.cpp) moves the boxes themselves only once.
#ifndef BASE_POSTPROCESS_BOX_SORT_H
#define BASE_POSTPROCESS_BOX_SORT_H

#include <stddef.h>
#include <stdint.h>

#include "utils/olvex_stl/scratch.h"
#include "utils/olvex_stl/simplestl.h"
#include "utils/records/det_records.h"

const size_t kUsualBoxes = 64;  // more take their scratch from the heap

// Indices of boxes, in some order.
typedef olvex::scratch<uint32_t, kUsualBoxes> BoxOrder;

// The order of count boxes from index first on, by falling score, in which qsort_descent_inplace
// leaves them. Indices count from first.
void find_order(const olvex::vector<BoxInfo>& boxes, size_t first, size_t count, BoxOrder& order);

// Moves the boxes so that box order[k] comes to place k, both counted from first. Spends the order:
// afterwards order[k] is k.
void move_to_order(olvex::vector<BoxInfo>& boxes, size_t first, BoxOrder& order);

#endif  // BASE_POSTPROCESS_BOX_SORT_H
