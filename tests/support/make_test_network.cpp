// SPDX-License-Identifier: Apache-2.0
// make_test_network.cpp - writes one of the networks of tiny_onnx.h into a file, for tests that
// drive the command line.
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

#include "tests/support/tiny_onnx.h"

int main(int argc, char** argv) {
  const std::string kind = argc > 4 ? argv[1] : "";
  const int width = argc > 4 ? std::atoi(argv[3]) : 0;
  const int height = argc > 4 ? std::atoi(argv[4]) : 0;
  std::vector<char> network;
  if (kind == "raw" || kind == "raw-nhwc") {
    network = tiny_onnx::raw_network(width, height, kind == "raw-nhwc");
  } else if (kind == "decoded") {
    network = tiny_onnx::decoded_network(width, height, argc > 5 ? std::atoi(argv[5]) : 0);
  } else if (kind == "pixels") {
    network = tiny_onnx::pixel_network(width, height, 3);
  } else if (kind == "crash") {
    network = tiny_onnx::harmful_network(tiny_onnx::Harm::kCrash, width, height);
  } else if (kind == "never-ends") {
    network = tiny_onnx::harmful_network(tiny_onnx::Harm::kNeverEnds, width, height);
  } else if (kind == "memory") {
    network = tiny_onnx::harmful_network(tiny_onnx::Harm::kMemory, width, height);
  } else {
    std::cerr << "usage: make_test_network raw|raw-nhwc|pixels|crash|never-ends|memory FILE WIDTH "
                 "HEIGHT\n"
                 "       make_test_network decoded FILE WIDTH HEIGHT [KEYPOINT_VALUES]\n";
    return 2;
  }
  std::ofstream file(argv[2], std::ios::binary);
  return file.write(network.data(), static_cast<std::streamsize>(network.size())).flush() ? 0 : 1;
}
