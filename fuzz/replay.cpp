// replay.cpp - runs a fuzzer over the files and folders that it is given, in place of libFuzzer, so
// that any compiler can check what has been found before.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
// There when a fuzzer has something to prepare.
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> files_of(const fs::path& path) {
  if (!fs::is_directory(path)) {
    return {path};
  }
  std::vector<fs::path> files;
  for (const fs::directory_entry& entry : fs::directory_iterator(path)) {
    files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

bool replay(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  const std::vector<char> bytes((std::istreambuf_iterator<char>(stream)),
                                std::istreambuf_iterator<char>());
  if (!stream) {
    std::fprintf(stderr, "cannot read %s\n", file.c_str());
    return false;
  }
  // The last name on standard error is the input that a crash belongs to.
  std::fprintf(stderr, "%s\n", file.c_str());
  // A copy of the exact size, so that a sanitizer sees every byte read behind the end.
  const std::vector<uint8_t> exact(bytes.begin(), bytes.end());
  LLVMFuzzerTestOneInput(exact.data(), exact.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize != nullptr) {
    LLVMFuzzerInitialize(&argc, &argv);
  }
  std::size_t replayed = 0;
  for (int i = 1; i < argc; ++i) {
    for (const fs::path& file : files_of(argv[i])) {
      if (!replay(file)) {
        return 1;
      }
      ++replayed;
    }
  }
  if (replayed == 0) {
    std::fprintf(stderr, "usage: %s FILE|FOLDER...: no input given or found\n", argv[0]);
    return 2;
  }
  std::fprintf(stderr, "%zu inputs\n", replayed);
  return 0;
}
