// SPDX-License-Identifier: Apache-2.0
// raw_layer.cpp - which raw layers can be decoded and read.
#include "base/postprocess/raw_layer.h"

#include <math.h>

#include "utils/log/olvex_log.h"

OLVEX_LOG_CLOCK;

namespace {

bool is_readable(const DetDecodeInfo& info, int layer) {
  const int columns = info.net_out_w[layer];
  const int rows = info.net_out_h[layer];
  const int channels = info.net_out_c[layer];
  if (!is_equal_multiple(info.net_in_w, info.net_in_h, columns, rows) ||
      values_per_keypoint(info, channels) == 0) {
    return true;  // refused by its shape, and not read
  }
  const uint64_t cells = static_cast<uint64_t>(rows) * static_cast<uint64_t>(columns);
  return cells <= info.memory[layer].readable / static_cast<size_t>(channels);
}

}  // namespace

bool is_equal_multiple(int net_w, int net_h, int out_w, int out_h) {
  return out_w > 0 && out_h > 0 && net_w % out_w == 0 && net_h % out_h == 0 &&
         net_w / out_w == net_h / out_h;
}

int values_per_keypoint(const DetDecodeInfo& info, int channels) {
  if (info.reg_max < 1 || info.num_classes < 0 || info.num_keypoints < 0) {
    return 0;
  }
  // In 64 bits, as the counts may be any numbers.
  const int64_t base = 4 * static_cast<int64_t>(info.reg_max) + info.num_classes;
  const int64_t num_keypoints = info.num_keypoints;
  if (channels == base + kKeyPointTriple * num_keypoints) {
    return kKeyPointTriple;
  }
  return channels == base + kKeyPointPair * num_keypoints ? kKeyPointPair : 0;
}

bool raw_layers_are_readable(const DetDecodeInfo& info) {
  const bool has_decoder =
      info.out_format == QV_IPU_FORMAT_FP32 || info.out_format == QV_IPU_FORMAT_INT16;
  if (info.memory == NULL || !has_decoder) {
    return true;
  }
  for (int layer = 0; layer < info.num_out_layers; ++layer) {
    if (!is_readable(info, layer)) {
      return false;
    }
  }
  return true;
}

int resolve_shape(const DetDecodeInfo& info, int layer, LayerShape& shape) {
  // A negative index is refused like one too large.
  if (layer < 0 || layer >= info.num_out_layers) {
    OLVEX_ERROR_FORMAT("illegal access to out layer%d \n\n", layer);
    return E_ALGO_INVALID_PARAM;
  }
  shape.columns = info.net_out_w[layer];
  shape.rows = info.net_out_h[layer];
  shape.channels = info.net_out_c[layer];
  if (!is_equal_multiple(info.net_in_w, info.net_in_h, shape.columns, shape.rows)) {
    OLVEX_ERROR_FORMAT("Mismatch between input shape(%dx%d) and output shape(%dx%d)\n\n",
                       info.net_in_w, info.net_in_h, shape.columns, shape.rows);
    return E_ALGO_INVALID_OUTPUT_SIZE;
  }
  shape.stride = info.net_in_w / shape.columns;
  shape.keypoint_values = values_per_keypoint(info, shape.channels);
  if (shape.keypoint_values == 0) {
    OLVEX_ERROR_FORMAT(
        "mismatch between out shape(%d) with num_classes(%d) and num_keypoints(%d)\n",
        shape.channels, info.num_classes, info.num_keypoints);
    return E_ALGO_INVALID_OUTPUT_SIZE;
  }
  shape.first_class = 4 * info.reg_max;
  shape.first_keypoint = shape.first_class + info.num_classes;
  return E_ALGO_SUCCESS;
}

float logit_threshold(float conf_threshold) {
  const double p = static_cast<double>(conf_threshold);
  return static_cast<float>(log(p / (1.0 - p)));
}

int refuse_keypoints() {
  OLVEX_ERROR("error occurred while decoding keypoints");
  return E_ALGO_INVALID_OUTPUT_SIZE;
}
