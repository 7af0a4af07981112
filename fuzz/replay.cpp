// SPDX-License-Identifier: Apache-2.0
// replay.cpp - runs a fuzzer over the files that it is given, each one input, in place of libFuzzer, so that any
// compiler can check what has been found before. scripts/fuzz/packed_inputs.py replays packed ones with it.
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
// There when a fuzzer has something to prepare.
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s FILE...\n", argv[0]);
    return 2;
  }
  if (LLVMFuzzerInitialize != nullptr) {
    LLVMFuzzerInitialize(&argc, &argv);
  }
  for (int i = 1; i < argc; ++i) {
    // The last name on standard error is the input that a crash belongs to.
    std::fprintf(stderr, "%s\n", argv[i]);
    std::ifstream stream(argv[i], std::ios::binary);
    std::string content;
    for (char byte = 0; stream.get(byte);) {
      content += byte;
    }
    if (!stream.eof()) {
      std::fprintf(stderr, "cannot read %s\n", argv[i]);
      return 1;
    }
    // A copy of the exact size, so that a sanitizer reports each read beyond the end.
    const std::vector<uint8_t> exact(content.begin(), content.end());
    LLVMFuzzerTestOneInput(exact.data(), exact.size());
  }
  std::fprintf(stderr, "%d inputs\n", argc - 1);
  return 0;
}
