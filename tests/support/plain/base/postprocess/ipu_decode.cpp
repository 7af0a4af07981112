// ipu_decode.cpp - box lists that the accelerator has already decoded, thresholded and selected, row by
// row. See det_postprocess.h, and ipu_layout.h for the tensors.
#include "base/postprocess/det_postprocess.h"

#include <stdint.h>

#include "utils/log/olvex_log.h"
#include "base/postprocess/ipu_layout.h"

OLVEX_LOG_CLOCK;

namespace {

template <typename Tensors>
RowAccess append_row(const DetDecodeInfo& info, const Tensors& tensors, const TensorRoles& roles,
                     const KeyPointLayout* keypoint_layout, int row_index,
                     olvex::vector<BoxInfo>& boxes) {
  const OutputMemoryCheck memory(info);
  RowAccess access = memory.row(roles.scores, row_index, 1);
  if (access != kRowInside) {
    return access;
  }
  const ptrdiff_t row = row_index;
  const float score = tensors.value(roles.scores, row);
  if (!(score >= info.conf_threshold)) {
    return kRowInside;
  }
  access = rest_of_row(info, memory, roles, row_index);
  if (access != kRowInside) {
    return access;
  }
  const int64_t first = static_cast<int64_t>(row) * info.net_out_c[roles.boxes];
  BoxInfo box;
  box.x1 = box_value(tensors, memory, roles.boxes, first);
  box.y1 = box_value(tensors, memory, roles.boxes, first + 1);
  box.x2 = box_value(tensors, memory, roles.boxes, first + 2);
  box.y2 = box_value(tensors, memory, roles.boxes, first + 3);
  box.score = score;
  box.label = roles.classes == kNoTensor ? 0 : rounded(tensors.value(roles.classes, row));
  if (keypoint_layout != NULL) {
    fill_keypoints(tensors, roles, *keypoint_layout, row, box.keypts);
  }
  boxes.push_back(box);
  return kRowInside;
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

  const OutputMemoryCheck memory(info);
  if (!memory.has(roles.count, 1)) {
    return refuse_memory();
  }
  const Tensors tensors(info);
  const int num_boxes = rounded(tensors.value(roles.count, 0));
  OLVEX_DEBUG_FORMAT("num_classes = %d\n", info.num_classes);
  OLVEX_DEBUG_FORMAT("num_keypoints = %d\n", info.num_keypoints);
  OLVEX_DEBUG_FORMAT("output_kpt_score = %d\n",
                     keypoint_layout != NULL && keypoint_layout->has_score ? 1 : 0);
  OLVEX_DEBUG_FORMAT("num_boxes = %d\n", num_boxes);

  const int entries = olvex::max(memory.at_most_all(roles.indices, num_boxes), 0);
  if (!memory.has(roles.indices, static_cast<uint64_t>(entries))) {
    return refuse_memory();
  }
  const size_t before = boxes.size();
  for (int i = 0; i < entries; ++i) {
    const int row = rounded(tensors.value(roles.indices, i));
    if (append_row(info, tensors, roles, keypoint_layout, row, boxes) == kRowMissing) {
      boxes.resize(before, BoxInfo());
      return refuse_memory();
    }
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
