// fuzz_file.h - for fuzzers of file readers: a file in memory, and an input that stands for several.
#ifndef FUZZ_FUZZ_FILE_H
#define FUZZ_FUZZ_FILE_H

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include "fuzz/fuzz_check.h"

// count parts, separated by zero bytes; the last may contain zero bytes.
inline std::vector<std::string> parts_of(const std::string& bytes, std::size_t count) {
  std::vector<std::string> parts(count);
  std::size_t start = 0;
  for (std::size_t i = 0; i < count && start <= bytes.size(); ++i) {
    const std::size_t end = i + 1 == count ? bytes.size() : bytes.find('\0', start);
    parts[i] = bytes.substr(start, end - start);
    start = std::min(end, bytes.size()) + 1;
  }
  return parts;
}

// A file without a place on a disk, with a path that any reader can open.
class MemoryFile {
 public:
  MemoryFile()
      : descriptor_(memfd_create("fuzz", MFD_CLOEXEC)),
        path_("/proc/self/fd/" + std::to_string(descriptor_)) {}
  ~MemoryFile() { close(descriptor_); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  const std::string& path() const { return path_; }

  // The path, with these contents.
  const std::string& holding(const std::string& bytes) {
    FUZZ_CHECK(ftruncate(descriptor_, 0) == 0);
    const ssize_t written = pwrite(descriptor_, bytes.data(), bytes.size(), 0);
    FUZZ_CHECK(written == static_cast<ssize_t>(bytes.size()));
    return path_;
  }

 private:
  int descriptor_;
  std::string path_;
};

#endif  // FUZZ_FUZZ_FILE_H
