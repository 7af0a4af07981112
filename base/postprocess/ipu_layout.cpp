// SPDX-License-Identifier: Apache-2.0
// ipu_layout.cpp - chooses the layout of an accelerator-decoded list.
#include "base/postprocess/ipu_layout.h"

#include "utils/log/olvex_log.h"

OLVEX_LOG_CLOCK;

namespace {

const KeyPointLayout kKeyPointLayouts[] = {
    {15, 5, true}, {10, 5, false}, {8, 4, false}, {12, 4, true}, {51, 17, true}, {63, 21, true},
};

}  // namespace

const KeyPointLayout* find_keypoint_layout(int channels) {
  for (const KeyPointLayout& layout : kKeyPointLayouts) {
    if (layout.channels == channels) {
      return &layout;
    }
  }
  return NULL;
}

bool choose_roles(const DetDecodeInfo& info, TensorRoles& roles) {
  const int* c = info.net_out_c;
  // Deliberate: an index list of two dimensions has no channels; one with a single channel is
  // refused.
  if (info.num_out_layers == 4 && c[1] == 1 && c[2] == 0) {
    roles = {0, kNoTensor, 1, kNoTensor, 2, 3};
    return true;
  }
  if (info.num_out_layers == 5 && c[1] == 1 && c[2] == 1) {
    OLVEX_DEBUG("info.num_out_layers == 5 && info.net_out_c[1] == 1 && info.net_out_c[2] == 1");
    roles = {0, 1, 2, kNoTensor, 3, 4};
    return true;
  }
  if (info.num_out_layers == 5 && c[1] == 1 && c[2] > 1) {
    roles = {0, kNoTensor, 1, 2, 3, 4};
    return true;
  }
  OLVEX_ERROR_FORMAT("unknown output channel combinations: %d %d %d %d\n", c[0], c[1], c[2], c[3]);
  return false;
}

RowAccess rest_of_row(const DetDecodeInfo& info, const OutputMemoryCheck& memory,
                      const TensorRoles& roles, int row) {
  RowAccess access = memory.row(roles.boxes, row, kBoxValues);
  if (access == kRowInside && roles.classes != kNoTensor) {
    access = memory.row(roles.classes, row, 1);
  }
  if (access == kRowInside && roles.keypoints != kNoTensor) {
    access = memory.row(roles.keypoints, row, info.net_out_c[roles.keypoints]);
  }
  return access;
}

int refuse_memory() {
  OLVEX_ERROR("shape of model output tensor might be wrong, please check!");
  return E_ALGO_INVALID_OUTPUT_SIZE;
}
