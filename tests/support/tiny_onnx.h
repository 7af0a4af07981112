// SPDX-License-Identifier: Apache-2.0
// tiny_onnx.h - makes small ONNX networks with known results for tests of the host accelerator and
// of the command line. tiny_onnx.cpp writes the bytes; make_test_network.cpp puts them into files.
#ifndef TESTS_SUPPORT_TINY_ONNX_H
#define TESTS_SUPPORT_TINY_ONNX_H

#include <vector>

namespace tiny_onnx {

// All networks take one input "picture", 1 x planes x height x width.

// Outputs "pixels0" to "pixels2", each the input as it is, 1 x planes x height x width.
std::vector<char> pixel_network(int width, int height, int planes);

// A raw detector of two classes with the outputs "stride8", "stride16" and "stride32", each
// 1 x 6 x height / stride x width / stride, or with the channels last. In every cell channels 0 to
// 3 (distances) are -1, -1.25, -1.5, -1.75, channel 4 (class 0) is 20 * (mean of plane 0) - 10 and
// channel 5 (class 1) the same of plane 1. Requires: width and height are multiples of 32.
std::vector<char> raw_network(int width, int height, bool channels_last);

// A detector whose candidates are the cells of a grid of kCellSize pixels, row by row:
//   "boxes"   1 x N x 4, the cell's left, top, right and bottom as fractions of the input
//   "scores"  1 x N x 3, the means of the three planes in the cell
//   "points"  1 x N x keypoint_values, value k of row r is (r + 1) * (k + 1) / 1024; absent for 0
// Requires: width and height are multiples of kCellSize.
constexpr int kCellSize = 8;
std::vector<char> decoded_network(int width, int height, int keypoint_values);

// A network of few bytes that the engine loads, or fails to, in a harmful way; its outputs are those
// of pixel_network.
enum class Harm {
  kCrash,      // weights that announce 768 MiB and hold three numbers
  kNeverEnds,  // means over the whole picture for each pixel: an hour for 1024 x 1024
  kMemory      // convolutions with margins that make 1.6 GB of a small picture, each
};
std::vector<char> harmful_network(Harm harm, int width, int height);

}  // namespace tiny_onnx

#endif  // TESTS_SUPPORT_TINY_ONNX_H
