// ipu_decode.cpp - box lists that the accelerator has already decoded, thresholded and selected.
// See det_postprocess.h.
//
// Layouts, by number of tensors and channels; a row of a tensor with c channels is c values:
//
//   A  4 tensors  boxes  scores                  indices  count
//   B  5 tensors  boxes  classes  scores         indices  count
//   C  5 tensors  boxes  scores   key points     indices  count
//
// A box row starts with x1, y1, x2, y2 in network-input pixels. indices lists the rows to report
// and count[0] says how many of them.
#include "base/postprocess/det_postprocess.h"

#include <stdint.h>

#include "utils/log/olvex_log.h"
#include "utils/numeric/saturating_cast.h"
#include "base/postprocess/output_memory.h"

OLVEX_LOG_CLOCK;

namespace {

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

const KeyPointLayout kKeyPointLayouts[] = {
    {15, 5, true}, {10, 5, false}, {8, 4, false}, {12, 4, true}, {51, 17, true}, {63, 21, true},
};

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
int rounded(float value) {
  return olvex::saturating_cast<int>(static_cast<double>(value) + 0.5);
}

// What a box is made of beside its score.
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

// An element of the box tensor, where a row of fewer than four values reaches into the next one. No
// tensor has a negative number of channels, but a description may.
template <typename Tensors>
float box_value(const Tensors& tensors, const OutputMemoryCheck& memory, int tensor,
                int64_t element) {
  return element >= 0 && memory.has(tensor, static_cast<uint64_t>(element) + 1)
             ? tensors.value(tensor, static_cast<ptrdiff_t>(element))
             : 0.0f;
}

int refuse_memory() {
  OLVEX_ERROR("shape of model output tensor might be wrong, please check!");
  return E_ALGO_INVALID_OUTPUT_SIZE;
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
