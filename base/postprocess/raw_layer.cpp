// raw_layer.cpp - which raw layers can be decoded and read. See raw_layer.h.
#include "base/postprocess/raw_layer.h"

#include <stdint.h>

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
