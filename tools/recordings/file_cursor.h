// SPDX-License-Identifier: Apache-2.0
// file_cursor.h - values of a file one after the other, none read beyond an end. For container.cpp.
#ifndef TOOLS_RECORDINGS_FILE_CURSOR_H
#define TOOLS_RECORDINGS_FILE_CURSOR_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace olvex_tools {

// What is wrong, and at which byte of the file.
struct FileFault {
  std::size_t offset;
  std::string what;
  bool is_cut = false;
};

// Values of the file, one after the other, up to an end.
class FileCursor {
 public:
  FileCursor(const unsigned char* file, std::size_t begin, std::size_t end)
      : file_(file), next_(begin), end_(end) {}

  std::size_t offset() const { return next_; }
  std::size_t left() const { return end_ - next_; }

  template <typename Value>
  Value value() {
    const unsigned char* const from = take(sizeof(Value));
    std::uint64_t bits = 0;
    for (std::size_t k = 0; k < sizeof(Value); ++k) {
      bits |= std::uint64_t{from[k]} << (8 * k);
    }
    return static_cast<Value>(bits);
  }
  std::string text() {
    const std::uint32_t size = value<std::uint32_t>();
    return std::string(reinterpret_cast<const char*>(take(size)), size);
  }
  const unsigned char* take(std::size_t size) {
    if (size > left()) {
      throw FileFault{next_, "the record ends too early"};
    }
    next_ += size;
    return file_ + (next_ - size);
  }
  void expect_end() const {
    if (left() != 0) {
      throw FileFault{next_, "the record goes on behind its last field"};
    }
  }

 private:
  const unsigned char* file_;
  std::size_t next_;
  std::size_t end_;
};

}  // namespace olvex_tools

#endif  // TOOLS_RECORDINGS_FILE_CURSOR_H
