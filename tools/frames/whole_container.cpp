// SPDX-License-Identifier: Apache-2.0
// whole_container.cpp - whether a video file is whole, by the stated sizes of its outermost parts. Declared in
// frame_source.h.
#include <cstdint>
#include <cstring>
#include <optional>

#include "tools/frames/file_parts.h"
#include "tools/frames/frame_source.h"

namespace olvex_tools {

namespace {

using Bytes = unsigned char[16];

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

std::optional<std::uint64_t> size_of_element(const Bytes& head) {
  const std::size_t name = length_of_number(head[0]);
  if (name > 4) {
    return std::nullopt;
  }
  const std::size_t length = length_of_number(head[name]);
  if (length > 8) {
    return std::nullopt;
  }
  const std::uint64_t mask = (std::uint64_t{1} << (7 * length)) - 1;
  const std::uint64_t size = big_endian(head + name, length) & mask;
  constexpr std::uint64_t kMost = std::uint64_t{1} << 62;
  const bool is_open = size == mask;  // a recording that was not finished
  return is_open || size > kMost ? std::nullopt : std::make_optional(size + name + length);
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

bool read_head(const PlacedFile& file, std::uint64_t place, Bytes* head) {
  std::memset(*head, 0, sizeof *head);
  return file.read_some(place, *head, sizeof *head) > 0;
}

}  // namespace

bool is_whole_container(const std::string& path) {
  const PlacedFile file(path);
  const std::uint64_t end = file.size();
  Bytes head;
  if (!read_head(file, 0, &head)) {
    return false;
  }
  const SizeOf size_of = format_of(head);
  std::uint64_t place = 0;
  while (size_of != nullptr && place < end && read_head(file, place, &head)) {
    const std::optional<std::uint64_t> size = size_of(head);
    if (!size || *size > end - place) {
      return false;
    }
    place += *size;
  }
  return size_of != nullptr && place == end;
}

}  // namespace olvex_tools
