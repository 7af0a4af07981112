// SPDX-License-Identifier: Apache-2.0
// ipu_decode.cpp - box lists that the accelerator has already decoded, thresholded and selected, in two
// steps: the rows that reach the threshold, then a list of just their number. ipu_layout.h
// has the tensors.
#include "base/postprocess/det_postprocess.h"

#include <stdint.h>

#include "utils/log/olvex_log.h"
#include "utils/olvex_stl/scratch.h"
#include "base/postprocess/ipu_layout.h"

OLVEX_LOG_CLOCK;

namespace {

// A row that is to become a box.
struct FoundRow {
  int row;
  float score;
};
const size_t kUsualRows = 64;  // more take their scratch from the heap
typedef olvex::scratch<FoundRow, kUsualRows> FoundRows;

// Notes the rows that reach the threshold, in the order of the index list. False when one of them, or
// the list, lies beyond the end of its buffer.
template <typename Tensors>
bool find_rows(const DetDecodeInfo& info, const Tensors& tensors, const TensorRoles& roles,
               int num_boxes, FoundRows& found) {
  const OutputMemoryCheck memory(info);
  const int entries = olvex::max(memory.at_most_all(roles.indices, num_boxes), 0);
  if (!memory.has(roles.indices, static_cast<uint64_t>(entries))) {
    return false;
  }
  for (int i = 0; i < entries; ++i) {
    const int row = rounded(tensors.value(roles.indices, i));
    RowAccess access = memory.row(roles.scores, row, 1);
    if (access == kRowInside) {
      const FoundRow candidate = {row, tensors.value(roles.scores, row)};
      if (candidate.score >= info.conf_threshold) {
        access = rest_of_row(info, memory, roles, row);
        if (access == kRowInside) {
          found.push_back(candidate);
        }
      }
    }
    if (access == kRowMissing) {
      return false;
    }
  }
  return true;
}

template <typename Tensors>
void fill_box(const DetDecodeInfo& info, const Tensors& tensors, const TensorRoles& roles,
              const KeyPointLayout* keypoint_layout, const FoundRow& found, BoxInfo& box) {
  const ptrdiff_t row = found.row;
  const int64_t first = static_cast<int64_t>(row) * info.net_out_c[roles.boxes];
  const OutputMemoryCheck memory(info);
  box.x1 = box_value(tensors, memory, roles.boxes, first);
  box.y1 = box_value(tensors, memory, roles.boxes, first + 1);
  box.x2 = box_value(tensors, memory, roles.boxes, first + 2);
  box.y2 = box_value(tensors, memory, roles.boxes, first + 3);
  box.score = found.score;
  box.label = roles.classes == kNoTensor ? 0 : rounded(tensors.value(roles.classes, row));
  if (keypoint_layout != NULL) {
    fill_keypoints(tensors, roles, *keypoint_layout, row, box.keypts);
  }
}

template <typename Tensors>
int decode_rows(DetDecodeInfo& info, olvex::vector<BoxInfo>& boxes) {
  TensorRoles roles;
  if (!choose_roles(info, roles)) {
    return E_ALGO_INVALID_OUTPUT_SIZE;
  }
  const KeyPointLayout* keypoint_layout = NULL;
  if (roles.keypoints != kNoTensor) {
    const int channels = info.net_out_c[roles.keypoints];
    keypoint_layout = find_keypoint_layout(channels);
    if (keypoint_layout == NULL) {
      OLVEX_ERROR_FORMAT(" unknown keypoint tensor channel number %d\n", channels);
      return E_ALGO_INVALID_OUTPUT_SIZE;
    }
  }
  info.num_keypoints = keypoint_layout == NULL ? 0 : keypoint_layout->num_keypoints;

  if (!OutputMemoryCheck(info).has(roles.count, 1)) {
    return refuse_memory();
  }
  const Tensors tensors(info);
  const int num_boxes = rounded(tensors.value(roles.count, 0));
  OLVEX_DEBUG_FORMAT("num_classes = %d\n", info.num_classes);
  OLVEX_DEBUG_FORMAT("num_keypoints = %d\n", info.num_keypoints);
  OLVEX_DEBUG_FORMAT("output_kpt_score = %d\n",
                     keypoint_layout != NULL && keypoint_layout->has_score ? 1 : 0);
  OLVEX_DEBUG_FORMAT("num_boxes = %d\n", num_boxes);

  FoundRows found;
  if (!find_rows(info, tensors, roles, num_boxes, found)) {
    return refuse_memory();
  }
  if (found.size() == 0) {
    return E_ALGO_SUCCESS;
  }
  const size_t first = boxes.size();
  boxes.resize(first + found.size(), BoxInfo());
  for (size_t n = 0; n < found.size(); ++n) {
    fill_box(info, tensors, roles, keypoint_layout, found[n], boxes[first + n]);
  }
  return E_ALGO_SUCCESS;
}

}  // namespace

int ipu_decode_fp32(DetDecodeInfo& info, olvex::vector<BoxInfo>& boxes) {
  info.num_classes = -1;
  OLVEX_INFO("enter ipu fp32 decode");
  return decode_rows<Fp32Tensors>(info, boxes);
}

int ipu_decode_int16(DetDecodeInfo& info, olvex::vector<BoxInfo>& boxes) {
  info.num_classes = -1;
  OLVEX_INFO("enter ipu int16 decode");
  return decode_rows<Int16Tensors>(info, boxes);
}

int ipu_decode(DetDecodeInfo& info, olvex::vector<BoxInfo>& boxes) {
  boxes.clear();
  int result;
  switch (info.out_format) {
    case QV_IPU_FORMAT_FP32:
      result = ipu_decode_fp32(info, boxes);
      break;
    case QV_IPU_FORMAT_INT16:
      result = ipu_decode_int16(info, boxes);
      break;
    default:
      OLVEX_ERROR("unknown out tensors format!");
      OLVEX_ERROR_FORMAT("info.out_format = %d\n", static_cast<int>(info.out_format));
      return E_ALGO_INVALID_DECODE_MODE;
  }
  if (result == E_ALGO_SUCCESS) {
    // Deliberate: always among boxes of one label, whatever info.class_specific_nms says; the
    // accelerator has chosen each candidate within its class.
    nms(boxes, info.nms_threshold, true);
  }
  return result;
}
