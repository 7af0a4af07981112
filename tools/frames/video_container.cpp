// video_container.cpp - walks over the outermost parts by their stated sizes. Declared in frame_source.h.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <optional>

#include "tools/frames/frame_source.h"

namespace olvex_tools {

namespace {

using Bytes = unsigned char[16];

std::uint64_t big_endian(const unsigned char* bytes, int count) {
  std::uint64_t value = 0;
  for (int i = 0; i < count; ++i) {
    value = value << 8 | bytes[i];
  }
  return value;
}

// Each takes the first bytes of a part, zeros beyond the file's end, and returns the size of the whole
// part; nothing where it has none.

std::optional<std::uint64_t> size_of_box(const Bytes& head) {
  const std::uint64_t size = big_endian(head, 4);
  if (size == 1) {
    const std::uint64_t large = big_endian(head + 8, 8);
    return large >= 16 ? std::make_optional(large) : std::nullopt;
  }
  return size >= 8 ? std::make_optional(size) : std::nullopt;
}

std::optional<std::uint64_t> size_of_riff(const Bytes& head) {
  if (std::memcmp(head, "RIFF", 4) != 0) {
    return std::nullopt;
  }
  std::uint64_t size = 0;
  for (int i = 7; i >= 4; --i) {
    size = size << 8 | head[i];
  }
  return 8 + size + size % 2;
}

// A number of EBML (RFC 8794): as many zero bits as bytes follow, then a one. Returns its length.
int length_of_number(unsigned char first) {
  int length = 1;
  while (length <= 8 && (first & (0x80 >> (length - 1))) == 0) {
    ++length;
  }
  return length;
}

std::optional<std::uint64_t> size_of_element(const Bytes& head) {
  const int name = length_of_number(head[0]);
  if (name > 4) {
    return std::nullopt;
  }
  const int length = length_of_number(head[name]);
  if (length > 8) {
    return std::nullopt;
  }
  const std::uint64_t mask = (std::uint64_t{1} << (7 * length)) - 1;
  const std::uint64_t size = big_endian(head + name, length) & mask;
  constexpr std::uint64_t kMost = std::uint64_t{1} << 62;
  const bool is_open = size == mask;  // a recording that was not finished
  return is_open || size > kMost
             ? std::nullopt
             : std::make_optional(size + static_cast<std::uint64_t>(name + length));
}

using SizeOf = std::optional<std::uint64_t> (*)(const Bytes&);

SizeOf format_of(const Bytes& head) {
  if (std::memcmp(head, "RIFF", 4) == 0) {
    return size_of_riff;
  }
  if (std::memcmp(head, "\x1a\x45\xdf\xa3", 4) == 0) {
    return size_of_element;
  }
  for (const char* type : {"ftyp", "moov", "mdat", "free", "skip", "wide"}) {
    if (std::memcmp(head + 4, type, 4) == 0) {
      return size_of_box;
    }
  }
  return nullptr;
}

bool read_head(std::ifstream* file, std::uint64_t place, Bytes* head) {
  std::memset(*head, 0, sizeof *head);
  file->clear();
  file->seekg(static_cast<std::streamoff>(place));
  file->read(reinterpret_cast<char*>(*head), sizeof *head);
  return file->gcount() > 0;
}

}  // namespace

bool is_whole_container(const std::string& path) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  const std::uint64_t end = static_cast<std::uint64_t>(std::max<std::streamoff>(file.tellg(), 0));
  Bytes head;
  if (!read_head(&file, 0, &head)) {
    return false;
  }
  const SizeOf size_of = format_of(head);
  std::uint64_t place = 0;
  while (size_of != nullptr && place < end && read_head(&file, place, &head)) {
    const std::optional<std::uint64_t> size = size_of(head);
    if (!size || *size > end - place) {
      return false;
    }
    place += *size;
  }
  return size_of != nullptr && place == end;
}

}  // namespace olvex_tools
