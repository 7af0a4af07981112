// SPDX-License-Identifier: Apache-2.0
// output_memory.h - checks, before an accelerator-decoded list is read, whether the memory is there.
// OutputMemory is in det_postprocess.h; ipu_decode.cpp reads the lists.
#ifndef BASE_POSTPROCESS_OUTPUT_MEMORY_H
#define BASE_POSTPROCESS_OUTPUT_MEMORY_H

#include <stdint.h>

#include "base/postprocess/det_postprocess.h"

enum RowAccess {
  kRowInside,
  kRowOutside,  // the tensor has no such row
  kRowMissing   // the tensor has the row, but its buffer ends before
};

// The memory of a frame's output tensors. Where it is not known, all but negative rows is inside.
class OutputMemoryCheck {
 public:
  explicit OutputMemoryCheck(const DetDecodeInfo& info) : info_(info) {}

  // The first values of a row, except those beyond the last element of the shape.
  RowAccess row(int tensor, int row, int values) const {
    if (row < 0) {
      return kRowOutside;
    }
    if (info_.memory == NULL) {
      return kRowInside;
    }
    const OutputMemory& memory = info_.memory[tensor];
    const uint64_t channels = static_cast<QV_U32>(info_.net_out_c[tensor]);
    const uint64_t end = static_cast<uint64_t>(row) * channels + static_cast<uint64_t>(values);
    return static_cast<size_t>(row) >= memory.rows                   ? kRowOutside
           : has(tensor, olvex::min<uint64_t>(end, memory.elements)) ? kRowInside
                                                                     : kRowMissing;
  }

  // The first elements.
  bool has(int tensor, uint64_t elements) const {
    return info_.memory == NULL || elements <= info_.memory[tensor].readable;
  }

  // A number of elements, no more than the tensor's shape has.
  int at_most_all(int tensor, int elements) const {
    const bool is_more = info_.memory != NULL && elements > 0 &&
                         static_cast<size_t>(elements) > info_.memory[tensor].elements;
    return is_more ? static_cast<int>(info_.memory[tensor].elements) : elements;
  }

 private:
  const DetDecodeInfo& info_;
};

#endif  // BASE_POSTPROCESS_OUTPUT_MEMORY_H
