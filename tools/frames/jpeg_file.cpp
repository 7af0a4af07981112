// jpeg_file.cpp - walks from marker to marker; a thumbnail inside a segment has an end marker of its
// own, and cameras put data behind the picture's. Read jpeg_file.h first.
#include "tools/frames/jpeg_file.h"

#include <algorithm>
#include <cstddef>

namespace olvex_tools {

namespace {

constexpr unsigned char kMarker = 0xff;
constexpr unsigned char kStartOfImage = 0xd8;
constexpr unsigned char kEndOfImage = 0xd9;
constexpr unsigned char kFirstRestart = 0xd0;
constexpr unsigned char kLastRestart = 0xd7;
constexpr unsigned char kTemporary = 0x01;

// Inside of coded data a marker byte is followed by zero, by itself, or by a restart's number.
bool is_segment(unsigned char code) {
  return code != 0 && code != kMarker && code != kTemporary &&
         !(code >= kFirstRestart && code <= kLastRestart);
}

// The code of the next segment from *position on, which moves behind it; 0 at the end of the bytes.
unsigned char next_segment(const std::vector<unsigned char>& bytes, std::size_t* position) {
  while (*position + 1 < bytes.size()) {
    const auto from = bytes.begin() + static_cast<std::ptrdiff_t>(*position);
    *position = static_cast<std::size_t>(std::find(from, bytes.end(), kMarker) - bytes.begin());
    if (*position + 1 < bytes.size() && is_segment(bytes[*position + 1])) {
      *position += 2;
      return bytes[*position - 1];
    }
    ++*position;
  }
  return 0;
}

}  // namespace

bool is_cut_jpeg(const std::vector<unsigned char>& bytes) {
  if (bytes.size() < 3 || bytes[0] != kMarker || bytes[1] != kStartOfImage || bytes[2] != kMarker) {
    return false;
  }
  std::size_t position = 2;
  for (;;) {
    const unsigned char code = next_segment(bytes, &position);
    if (code == 0 || code == kEndOfImage) {
      return code == 0;
    }
    if (position + 1 >= bytes.size()) {
      return true;
    }
    position += static_cast<std::size_t>(bytes[position]) << 8 | bytes[position + 1];
  }
}

}  // namespace olvex_tools
