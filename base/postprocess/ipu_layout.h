// SPDX-License-Identifier: Apache-2.0
// ipu_layout.h - the layouts of accelerator-decoded lists: which tensor holds what, and its values one by
// one. For ipu_decode.cpp, which makes boxes of them.
//
// Layouts, by number of tensors and channels; a row of a tensor with c channels is c values:
//
//   A  4 tensors  boxes  scores                  indices  count
//   B  5 tensors  boxes  classes  scores         indices  count
//   C  5 tensors  boxes  scores   key points     indices  count
//
// A box row starts with x1, y1, x2, y2 in network-input pixels. indices lists the rows to report
// and count[0] says how many of them.
#ifndef BASE_POSTPROCESS_IPU_LAYOUT_H
#define BASE_POSTPROCESS_IPU_LAYOUT_H

#include <stdint.h>

#include "utils/numeric/saturating_cast.h"
#include "base/postprocess/output_memory.h"

const int kNoTensor = -1;
const int kBoxValues = 4;  // x1, y1, x2, y2

// Which output tensor holds what.
struct TensorRoles {
  int boxes;
  int classes;  // kNoTensor in layouts A and C
  int scores;
  int keypoints;  // kNoTensor in layouts A and B
  int indices;
  int count;
};

struct KeyPointLayout {
  int channels;
  int num_keypoints;
  bool has_score;
};

// NULL for a number of channels that no layout has.
const KeyPointLayout* find_keypoint_layout(int channels);

// Chooses the layout by the number of tensors and their channels. False when none fits, which is logged.
bool choose_roles(const DetDecodeInfo& info, TensorRoles& roles);

// Whether the memory of all that a box is made of beside its score may be read.
RowAccess rest_of_row(const DetDecodeInfo& info, const OutputMemoryCheck& memory,
                      const TensorRoles& roles, int row);

// Logs that a buffer ends too early, and returns the code for it.
int refuse_memory();

// Element access: the real value of element i of tensor t.
struct Fp32Tensors {
  explicit Fp32Tensors(const DetDecodeInfo& info) : info_(info) {}
  float value(int t, ptrdiff_t i) const { return static_cast<const float*>(info_.data[t])[i]; }

 private:
  const DetDecodeInfo& info_;
};

struct Int16Tensors {
  explicit Int16Tensors(const DetDecodeInfo& info) : info_(info) {}
  float value(int t, ptrdiff_t i) const {
    return static_cast<float>(static_cast<const int16_t*>(info_.data[t])[i]) * info_.scalar[t];
  }

 private:
  const DetDecodeInfo& info_;
};

// Adds a half and truncates toward zero, as the accelerator's counts and indices are whole numbers
// in a fractional type.
inline int rounded(float value) {
  return olvex::saturating_cast<int>(static_cast<double>(value) + 0.5);
}

// An element of the box tensor, where a row of fewer than four values reaches into the next one. No
// tensor has a negative number of channels, but a description may.
template <typename Tensors>
float box_value(const Tensors& tensors, const OutputMemoryCheck& memory, int tensor,
                int64_t element) {
  return element >= 0 && memory.has(tensor, static_cast<uint64_t>(element) + 1)
             ? tensors.value(tensor, static_cast<ptrdiff_t>(element))
             : 0.0f;
}

template <typename Tensors>
void fill_keypoints(const Tensors& tensors, const TensorRoles& roles, const KeyPointLayout& layout,
                    ptrdiff_t row, olvex::vector<KeyPt_t>& keypts) {
  const ptrdiff_t values = layout.has_score ? 3 : 2;
  keypts.resize(static_cast<size_t>(layout.num_keypoints), KeyPt_t());
  for (size_t k = 0; k < keypts.size(); ++k) {
    const ptrdiff_t first = row * layout.channels + static_cast<ptrdiff_t>(k) * values;
    keypts[k].x = tensors.value(roles.keypoints, first);
    keypts[k].y = tensors.value(roles.keypoints, first + 1);
    keypts[k].score = layout.has_score ? tensors.value(roles.keypoints, first + 2) : 1.0f;
  }
}

#endif  // BASE_POSTPROCESS_IPU_LAYOUT_H
