// SPDX-License-Identifier: Apache-2.0
// output_tensors.h - the output tensors of one frame as the decoders take them. sdet_model.h says where they
// come from; tests and benchmarks make their own.
#ifndef BASE_POSTPROCESS_OUTPUT_TENSORS_H
#define BASE_POSTPROCESS_OUTPUT_TENSORS_H

#include "base/postprocess/det_postprocess.h"

const int kMaxOutputs = 6;

// What a DetDecodeInfo points at. Must stay where it is while one does.
struct OutputTensors {
  void* data[kMaxOutputs];
  float scalar[kMaxOutputs];
  int width[kMaxOutputs];
  int height[kMaxOutputs];
  int channels[kMaxOutputs];
  OutputMemory memory[kMaxOutputs];
  int count;

  // Requires: fewer than kMaxOutputs tensors so far.
  void add(void* values, float scale, int w, int h, int c, const OutputMemory& known) {
    data[count] = values;
    scalar[count] = scale;
    width[count] = w;
    height[count] = h;
    channels[count] = c;
    memory[count] = known;
    ++count;
  }

  // Makes the record describe the tensors. What is not theirs stays.
  void describe(DetDecodeInfo& info) {
    info.data = data;
    info.scalar = scalar;
    info.net_out_w = width;
    info.net_out_h = height;
    info.net_out_c = channels;
    info.num_out_layers = count;
    info.memory = memory;
  }
};

#endif  // BASE_POSTPROCESS_OUTPUT_TENSORS_H
