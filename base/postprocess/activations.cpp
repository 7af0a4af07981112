// SPDX-License-Identifier: Apache-2.0
// activations.cpp - fast_exp and softmax_. Declared in det_postprocess.h.
#include "base/postprocess/det_postprocess.h"

#include <math.h>
#include <stdint.h>
#include <string.h>

#include "utils/numeric/saturating_cast.h"

float fast_exp(float x) {
  const double scaled = (static_cast<double>(x) * 1.4426950409 + 126.93490600585938) * 8388608.0;
  const uint32_t bits = olvex::saturating_cast<uint32_t>(scaled);
  float result;
  static_assert(sizeof(result) == sizeof(bits), "the bits of a float");
  memcpy(&result, &bits, sizeof(result));
  return result;
}

void softmax_(const float* src, float* dst, int length) {
  // Deliberate: the largest value is not subtracted. Doing so would change the last bits of every
  // distance; logits above about 88 overflow to NaN instead.
  float sum = 0.0f;
  for (int k = 0; k < length; ++k) {
    dst[k] = expf(src[k]);
    sum += dst[k];
  }
  for (int k = 0; k < length; ++k) {
    dst[k] = dst[k] / sum;
  }
}
