// SPDX-License-Identifier: Apache-2.0
// raw_decode.cpp - raw output layers to boxes, on the CPU, in two steps: cell_candidates.h finds the
// cells that hold a box, and boxes are filled when their number is known. det_postprocess.h has the
// layout of a layer; base/sdet/sdet_model.cpp fills the parameters.
#include "base/postprocess/det_postprocess.h"

#include <math.h>
#include <stdint.h>

#include "utils/log/olvex_log.h"
#include "utils/olvex_stl/scratch.h"
#include "base/postprocess/cell_candidates.h"
#include "base/postprocess/raw_layer.h"

OLVEX_LOG_CLOCK;

namespace {

const size_t kUsualLayers = 3;  // more take their scratch from the heap

// Distance from a cell's centre to one side, in network-input pixels. bins and probabilities are
// scratch of reg_max values.
template <typename Cell>
float side_distance(const Cell& cell, int side, int reg_max, int stride, olvex::vector<float>& bins,
                    olvex::vector<float>& probabilities) {
  if (reg_max == 1) {
    const double reach = static_cast<double>(sigmoid(cell[side]) * 4.0f);
    return static_cast<float>(reach * reach * stride);
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

// Fills a blank box from a candidate. bins and probabilities are scratch of reg_max values.
template <typename Cell>
int fill_box(const DetDecodeInfo& info, const Layer<Cell>& layer, const CellCandidate& candidate,
             olvex::vector<float>& bins, olvex::vector<float>& probabilities, BoxInfo& box) {
  const Cell cell = layer.cell(candidate.cell);
  const int stride = layer.shape.stride;
  const int i = static_cast<int>(candidate.cell) / layer.shape.columns;
  const int j = static_cast<int>(candidate.cell) % layer.shape.columns;
  float d[4];
  for (int side = 0; side < 4; ++side) {
    d[side] = side_distance(cell, side, info.reg_max, stride, bins, probabilities);
  }
  const float cx = static_cast<float>((j + 0.5) * stride);
  const float cy = static_cast<float>((i + 0.5) * stride);
  box.x1 = cx - d[0];
  box.y1 = cy - d[1];
  box.x2 = cx + d[2];
  box.y2 = cy + d[3];
  box.score = sigmoid(candidate.best.logit);
  box.label = candidate.best.label;
  box.keypts.resize(static_cast<size_t>(info.num_keypoints), KeyPt_t());
  return decode_keypoints(cell, layer.shape, i, j, box.keypts);
}

// A layer that has been looked through, and its candidates in the list of all layers.
struct FoundLayer {
  int index;
  LayerShape shape;
  size_t first;
  size_t end;
};

// Looks through one layer. What it returns says whether the layer can be decoded.
int find_in_layer(const DetDecodeInfo& info, int index, CellCandidates& candidates,
                  FoundLayer& found) {
  found.index = index;
  const int result = resolve_shape(info, index, found.shape);
  if (result != E_ALGO_SUCCESS) {
    return result;
  }
  found.first = candidates.size();
  OLVEX_INFO_FORMAT("num_classes = %d; num_keypoints = %d\n", info.num_classes, info.num_keypoints);
  const float threshold = logit_threshold(info.conf_threshold);
  switch (info.out_format) {
    case QV_IPU_FORMAT_FP32:
      OLVEX_INFO("executing FP32 decode...");
      find_candidates(Layer<Fp32Cell>(info, index, found.shape), threshold, candidates);
      break;
    case QV_IPU_FORMAT_INT16:
      OLVEX_INFO("executing INT16 decode...");
      find_candidates(Layer<Int16Cell>(info, index, found.shape), threshold, candidates);
      break;
    default:
      // The format's number stands in for its name.
      OLVEX_ERROR_FORMAT("Not implemented out format: %d !\n", static_cast<int>(info.out_format));
      return E_ALGO_INVALID_PARAM;
  }
  found.end = candidates.size();
  return E_ALGO_SUCCESS;
}

// Fills the boxes of one layer, which begin at boxes[found.first].
template <typename Cell>
int fill_layer(const DetDecodeInfo& info, const FoundLayer& found, const CellCandidates& candidates,
               BoxInfo* boxes) {
  const Layer<Cell> layer(info, found.index, found.shape);
  // A single value per side needs no bins.
  const size_t num_bins = info.reg_max == 1 ? 0 : static_cast<size_t>(info.reg_max);
  olvex::vector<float> bins(num_bins, 0.0f);
  olvex::vector<float> probabilities(num_bins, 0.0f);
  for (size_t n = found.first; n < found.end; ++n) {
    const int result = fill_box(info, layer, candidates[n], bins, probabilities, boxes[n]);
    if (result != E_ALGO_SUCCESS) {
      return result;
    }
  }
  return E_ALGO_SUCCESS;
}

int fill_layer(const DetDecodeInfo& info, const FoundLayer& found, const CellCandidates& candidates,
               BoxInfo* boxes) {
  return info.out_format == QV_IPU_FORMAT_FP32
             ? fill_layer<Fp32Cell>(info, found, candidates, boxes)
             : fill_layer<Int16Cell>(info, found, candidates, boxes);
}

}  // namespace

int det_decode_one_layer(DetDecodeInfo& info, int layer, olvex::vector<BoxInfo>& out) {
  CellCandidates candidates;
  FoundLayer found;
  const int result = find_in_layer(info, layer, candidates, found);
  if (result != E_ALGO_SUCCESS || candidates.size() == 0) {
    return result;
  }
  const size_t first = out.size();
  out.resize(first + candidates.size(), BoxInfo());
  return fill_layer(info, found, candidates, &out[first]);
}

void det_decode_layers(DetDecodeInfo& info, olvex::vector<BoxInfo>& out) {
  CellCandidates candidates;
  olvex::scratch<FoundLayer, kUsualLayers> layers;
  for (int index = 0; index < info.num_out_layers; ++index) {
    FoundLayer found;
    // Deliberate: the result is not passed on. A layer that fails has logged why, and the others
    // still count.
    if (find_in_layer(info, index, candidates, found) == E_ALGO_SUCCESS) {
      layers.push_back(found);
    }
  }
  if (candidates.size() == 0) {
    return;
  }
  const size_t first = out.size();
  out.resize(first + candidates.size(), BoxInfo());
  for (size_t k = 0; k < layers.size(); ++k) {
    fill_layer(info, layers[k], candidates, &out[first]);
  }
}

void det_postprocess(DetDecodeInfo& info, olvex::vector<BoxInfo>& out) {
  OLVEX_INFO("det_postprocess");
  out.clear();
  det_decode_layers(info, out);
  nms(out, info.nms_threshold, info.class_specific_nms);
}
