// SPDX-License-Identifier: Apache-2.0
// raw_layer.h - raw output layers and their cells: which layers can be decoded, and a cell's values. For
// raw_decode.cpp, which makes boxes of them.
#ifndef BASE_POSTPROCESS_RAW_LAYER_H
#define BASE_POSTPROCESS_RAW_LAYER_H

#include <stdint.h>

#include "base/postprocess/det_postprocess.h"

// Whether the network's input is the same whole multiple of the layer, of at least one cell, both ways.
bool is_equal_multiple(int net_w, int net_h, int out_w, int out_h);

const int kKeyPointTriple = 3;  // x, y, visibility
const int kKeyPointPair = 2;    // x, y

// kKeyPointTriple or kKeyPointPair, whichever explains the channel count; 0 when neither does. Negative
// counts describe no cell, whatever the channels add up to.
int values_per_keypoint(const DetDecodeInfo& info, int channels);

// The measures of one layer.
struct LayerShape {
  int rows;
  int columns;
  int channels;
  int stride;           // network-input pixels per cell
  int first_class;      // channel of the first class logit
  int first_keypoint;   // channel of the first key-point value
  int keypoint_values;  // values per key point
};

// Measures a layer. Returns E_ALGO_SUCCESS, or the code of det_decode_one_layer for one that cannot be
// decoded, which is logged.
int resolve_shape(const DetDecodeInfo& info, int layer, LayerShape& shape);

// The logit whose sigmoid is the threshold: scores are compared before the exponential.
float logit_threshold(float conf_threshold);

// Logs that a cell's key points cannot be read, and returns the code for it.
int refuse_keypoints();

// A cell of 32-bit floats.
struct Fp32Cell {
  typedef float Element;

  Fp32Cell(const float* values, const float* /*end*/, float /*scalar*/) : values_(values) {}

  // Floats have no scale: the array is not looked at.
  static float layer_scale(const DetDecodeInfo& /*info*/, int /*layer*/) { return 1.0f; }

  const float* values() const { return values_; }
  float operator[](int k) const { return values_[k]; }
  float pair_score(int /*q*/) const { return 1.0f; }

 private:
  const float* values_;
};

// A cell of 16-bit integers with one scale per layer.
struct Int16Cell {
  typedef int16_t Element;

  Int16Cell(const int16_t* values, const int16_t* end, float scalar)
      : values_(values), end_(end), scalar_(scalar) {}

  static float layer_scale(const DetDecodeInfo& info, int layer) { return info.scalar[layer]; }

  float operator[](int k) const { return static_cast<float>(values_[k]) * scalar_; }

  // Deliberate: unlike the float path, which gives 1, the score of a key point without one comes
  // from the element after its pair: the next key point's x, or the next cell's first element.
  // Models are tuned to these scores. After the last cell there is none, and 0 is used.
  float pair_score(int q) const {
    const int16_t* behind = values_ + q + kKeyPointPair;
    const float value = behind < end_ ? static_cast<float>(*behind) * scalar_ : 0.0f;
    return sigmoid(value);
  }

 private:
  const int16_t* values_;
  const int16_t* end_;
  float scalar_;
};

// Computed in double and rounded once.
inline float keypoint_position(int cell_index, float offset, int stride) {
  return static_cast<float>((cell_index + 2.0 * static_cast<double>(offset)) * stride);
}

template <typename Cell>
int decode_keypoints(const Cell& cell, const LayerShape& shape, int i, int j,
                     olvex::vector<KeyPt_t>& keypts) {
  for (size_t k = 0; k < keypts.size(); ++k) {
    const int q = shape.first_keypoint + shape.keypoint_values * static_cast<int>(k);
    keypts[k].x = keypoint_position(j, cell[q], shape.stride);
    keypts[k].y = keypoint_position(i, cell[q + 1], shape.stride);
    switch (shape.keypoint_values) {
      case kKeyPointTriple:
        keypts[k].score = sigmoid(cell[q + 2]);
        break;
      case kKeyPointPair:
        keypts[k].score = cell.pair_score(q);
        break;
      default:
        // Not reached while resolve_shape refuses every other layout.
        return refuse_keypoints();
    }
  }
  return E_ALGO_SUCCESS;
}

#endif  // BASE_POSTPROCESS_RAW_LAYER_H
