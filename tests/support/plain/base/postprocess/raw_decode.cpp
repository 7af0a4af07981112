// raw_decode.cpp - raw output layers to boxes, on the CPU. See det_postprocess.h for the layout of
// a layer; base/sdet/sdet_model.cpp fills the parameters.
#include "base/postprocess/det_postprocess.h"

#include <math.h>
#include <stdint.h>

#include "utils/log/olvex_log.h"
#include "base/postprocess/raw_layer.h"

OLVEX_LOG_CLOCK;

namespace {

template <typename Cell>
float best_class(const Cell& cell, const LayerShape& shape, int num_classes, int& label) {
  float best = -INFINITY;
  label = 0;
  for (int k = 0; k < num_classes; ++k) {
    const float v = cell[shape.first_class + k];
    if (v > best) {
      best = v;
      label = k;
    }
  }
  return best;
}

// Distance from a cell's centre to one side, in network-input pixels. bins and probabilities are
// scratch of reg_max values.
template <typename Cell>
float side_distance(const Cell& cell, int side, int reg_max, int stride, olvex::vector<float>& bins,
                    olvex::vector<float>& probabilities) {
  if (reg_max == 1) {
    const float reach = sigmoid(cell[side]) * 4.0f;
    return static_cast<float>(pow(static_cast<double>(reach), 2) * stride);
  }
  for (int b = 0; b < reg_max; ++b) {
    bins[static_cast<size_t>(b)] = cell[side * reg_max + b];
  }
  softmax_(bins.data(), probabilities.data(), reg_max);
  float mean = 0.0f;
  for (int b = 0; b < reg_max; ++b) {
    mean += static_cast<float>(b) * probabilities[static_cast<size_t>(b)];
  }
  return static_cast<float>(stride) * mean;
}

template <typename Cell>
int decode_cells(const DetDecodeInfo& info, int layer, const LayerShape& shape,
                 olvex::vector<BoxInfo>& out) {
  typedef typename Cell::Element Element;
  const float threshold = logit_threshold(info.conf_threshold);
  const size_t num_bins = static_cast<size_t>(info.reg_max);
  olvex::vector<float> bins(num_bins, 0.0f);
  olvex::vector<float> probabilities(num_bins, 0.0f);
  const float scalar = Cell::layer_scale(info, layer);

  const Element* p = static_cast<const Element*>(info.data[layer]);
  const Element* end = p + static_cast<ptrdiff_t>(shape.rows) * shape.columns * shape.channels;
  for (int i = 0; i < shape.rows; ++i) {
    for (int j = 0; j < shape.columns; ++j, p += shape.channels) {
      const Cell cell(p, end, scalar);
      int label;
      const float best = best_class(cell, shape, info.num_classes, label);
      if (!(best >= threshold)) {
        continue;
      }
      float d[4];
      for (int side = 0; side < 4; ++side) {
        d[side] = side_distance(cell, side, info.reg_max, shape.stride, bins, probabilities);
      }
      const float cx = static_cast<float>((j + 0.5) * shape.stride);
      const float cy = static_cast<float>((i + 0.5) * shape.stride);
      BoxInfo box;
      box.x1 = cx - d[0];
      box.y1 = cy - d[1];
      box.x2 = cx + d[2];
      box.y2 = cy + d[3];
      box.score = sigmoid(best);
      box.label = label;
      box.keypts.resize(static_cast<size_t>(info.num_keypoints), KeyPt_t());
      const int result = decode_keypoints(cell, shape, i, j, box.keypts);
      if (result != E_ALGO_SUCCESS) {
        return result;
      }
      out.push_back(box);
    }
  }
  return E_ALGO_SUCCESS;
}

}  // namespace

int det_decode_one_layer(DetDecodeInfo& info, int layer, olvex::vector<BoxInfo>& out) {
  LayerShape shape;
  const int result = resolve_shape(info, layer, shape);
  if (result != E_ALGO_SUCCESS) {
    return result;
  }
  OLVEX_INFO_FORMAT("num_classes = %d; num_keypoints = %d\n", info.num_classes, info.num_keypoints);
  switch (info.out_format) {
    case QV_IPU_FORMAT_FP32:
      OLVEX_INFO("executing FP32 decode...");
      return decode_cells<Fp32Cell>(info, layer, shape, out);
    case QV_IPU_FORMAT_INT16:
      OLVEX_INFO("executing INT16 decode...");
      return decode_cells<Int16Cell>(info, layer, shape, out);
    default:
      // The format's number stands in for its name.
      OLVEX_ERROR_FORMAT("Not implemented out format: %d !\n", static_cast<int>(info.out_format));
      return E_ALGO_INVALID_PARAM;
  }
}

void det_decode_layers(DetDecodeInfo& info, olvex::vector<BoxInfo>& out) {
  for (int layer = 0; layer < info.num_out_layers; ++layer) {
    // Deliberate: the result is ignored. A layer that fails has logged why, and the others still
    // count.
    det_decode_one_layer(info, layer, out);
  }
}

void det_postprocess(DetDecodeInfo& info, olvex::vector<BoxInfo>& out) {
  OLVEX_INFO("det_postprocess");
  out.clear();
  det_decode_layers(info, out);
  nms(out, info.nms_threshold, info.class_specific_nms);
}
