// make_test_network.cpp - writes one of the networks of tiny_onnx.h into a file, for tests that
// drive the command line.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>

#include "tests/support/tiny_onnx.h"

namespace {

constexpr char kUsage[] =
    "usage: make_test_network raw|raw-nhwc|decoded FILE WIDTH HEIGHT [KEYPOINT_VALUES]\n"
    "  raw, raw-nhwc  three layers; WIDTH and HEIGHT are multiples of 32\n"
    "  decoded        boxes, scores and, with KEYPOINT_VALUES, points; multiples of 8\n";

std::vector<char> make_network(const std::string& kind, int width, int height,
                               int keypoint_values) {
  if (kind == "decoded") {
    return tiny_onnx::decoded_network(width, height, keypoint_values);
  }
  return tiny_onnx::raw_network(width, height, kind == "raw-nhwc");
}

}  // namespace

int main(int argc, char** argv) {
  const std::string kind = argc > 1 ? argv[1] : "";
  const int width = argc > 3 ? std::atoi(argv[3]) : 0;
  const int height = argc > 4 ? std::atoi(argv[4]) : 0;
  const int keypoint_values = argc > 5 ? std::atoi(argv[5]) : 0;
  const int multiple = kind == "decoded" ? tiny_onnx::kCellSize : 32;
  if ((kind != "raw" && kind != "raw-nhwc" && kind != "decoded") || argc > 6 || width <= 0 ||
      height <= 0 || width % multiple != 0 || height % multiple != 0 || keypoint_values < 0) {
    std::cerr << kUsage;
    return 2;
  }
  const std::vector<char> network = make_network(kind, width, height, keypoint_values);
  std::ofstream file(argv[2], std::ios::binary);
  if (!file.write(network.data(), static_cast<std::streamsize>(network.size())).flush()) {
    std::cerr << argv[2] << ": cannot be written: " << std::strerror(errno) << "\n";
    return 1;
  }
  return 0;
}
