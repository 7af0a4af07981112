// SPDX-License-Identifier: Apache-2.0
// file_parts.cpp - walks boxes and elements. Declared in file_parts.h.
#include "tools/frames/file_parts.h"

#include <algorithm>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace olvex_tools {

namespace {

constexpr std::size_t kBoxHead = 8;             // bytes
constexpr std::size_t kLongBoxHead = 16;        // with a size of 64 bits
constexpr std::uint64_t kMostMovie = 1u << 28;  // bytes

struct BoxHead {
  std::string type;
  std::uint64_t size;  // of the whole box
};

std::optional<BoxHead> head_of_box(const PlacedFile& file, std::uint64_t place) {
  unsigned char head[kLongBoxHead] = {};
  if (file.read_some(place, head, sizeof head) < kBoxHead) {
    return std::nullopt;
  }
  std::uint64_t size = big_endian(head, 4);
  size = size == 1 ? big_endian(head + kBoxHead, 8) : size;
  if (size < kBoxHead || size > file.size() - place) {
    return std::nullopt;
  }
  return BoxHead{std::string(reinterpret_cast<const char*>(head) + 4, 4), size};
}

}  // namespace

std::size_t length_of_number(unsigned char first) {
  std::size_t length = 1;
  while (length <= 8 && (first & (0x80 >> (length - 1))) == 0) {
    ++length;
  }
  return length;
}

std::uint64_t big_endian(const unsigned char* bytes, std::size_t count) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < count; ++i) {
    value = value << 8 | bytes[i];
  }
  return value;
}

PlacedFile::PlacedFile(const std::string& path)
    : descriptor_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {
  struct stat facts = {};
  if (descriptor_ >= 0 && fstat(descriptor_, &facts) == 0 && S_ISREG(facts.st_mode)) {
    size_ = static_cast<std::uint64_t>(facts.st_size);
  }
}

PlacedFile::~PlacedFile() {
  if (descriptor_ >= 0) {
    close(descriptor_);
  }
}

std::size_t PlacedFile::read_some(std::uint64_t place, void* bytes, std::size_t count) const {
  std::size_t done = 0;
  while (place < size_ && done < count) {
    const ssize_t taken = pread(descriptor_, static_cast<char*>(bytes) + done, count - done,
                                static_cast<off_t>(place + done));
    if (taken <= 0) {
      break;
    }
    done += static_cast<std::size_t>(taken);
  }
  return done;
}

bool PlacedFile::read(std::uint64_t place, void* bytes, std::size_t count) const {
  return read_some(place, bytes, count) == count;
}

std::vector<ContainerBox> boxes_in(BoxBytes bytes) {
  std::vector<ContainerBox> boxes;
  std::size_t place = 0;
  while (bytes.size() - place >= kBoxHead) {
    const std::uint64_t size = big_endian(&bytes[place], 4);
    if (size < kBoxHead || size > bytes.size() - place) {
      break;
    }
    const char* const type = reinterpret_cast<const char*>(&bytes[place]) + 4;
    boxes.push_back({std::string_view(type, 4),
                     bytes.substr(place + kBoxHead, static_cast<std::size_t>(size) - kBoxHead),
                     place});
    place += static_cast<std::size_t>(size);
  }
  return boxes;
}

BoxBytes box_at(BoxBytes bytes, std::initializer_list<std::string_view> path) {
  for (const std::string_view type : path) {
    const std::vector<ContainerBox> boxes = boxes_in(bytes);
    const auto found = std::find_if(boxes.begin(), boxes.end(),
                                    [type](const ContainerBox& box) { return box.type == type; });
    if (found == boxes.end()) {
      return {};
    }
    bytes = found->content;
  }
  return bytes;
}

MovieBox movie_box(const PlacedFile& file) {
  MovieBox movie;
  std::uint64_t place = 0;
  while (place < file.size()) {
    const std::optional<BoxHead> head = head_of_box(file, place);
    if (!head) {
      return {};
    }
    if (head->type == "moov") {
      if (!movie.bytes.empty() || head->size > kMostMovie) {
        return {};
      }
      movie.place = place;
      movie.bytes.resize(static_cast<std::size_t>(head->size));
      if (!file.read(place, movie.bytes.data(), movie.bytes.size()) ||
          big_endian(movie.bytes.data(), 4) != head->size) {
        return {};
      }
    }
    place += head->size;
  }
  return movie;
}

std::vector<std::uint32_t> table_of(BoxBytes content, std::size_t numbers_per_entry) {
  constexpr std::size_t kHead = 8;  // version and flags, count
  if (content.size() < kHead) {
    return {};
  }
  const std::uint64_t count = big_endian(&content[4], 4) * numbers_per_entry;
  if (count > (content.size() - kHead) / 4) {
    return {};
  }
  std::vector<std::uint32_t> numbers(static_cast<std::size_t>(count));
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    numbers[i] = static_cast<std::uint32_t>(big_endian(&content[kHead + 4 * i], 4));
  }
  return numbers;
}

std::optional<Element> element_at(const PlacedFile& file, std::uint64_t place,
                                  std::uint64_t limit) {
  unsigned char head[12] = {};
  const std::size_t found = place < limit ? file.read_some(place, head, sizeof head) : 0;
  const std::size_t name = length_of_number(head[0]);
  if (name > 4 || found <= name) {
    return std::nullopt;
  }
  const std::size_t length = length_of_number(head[name]);
  if (length > 8 || found < name + length) {
    return std::nullopt;
  }
  const std::uint64_t mask = (std::uint64_t{1} << (7 * length)) - 1;
  const std::uint64_t size = big_endian(head + name, length) & mask;
  Element element;
  element.id = static_cast<std::uint32_t>(big_endian(head, name));
  element.start = place + name + length;
  if (size == mask || element.start > limit || size > limit - element.start) {
    return std::nullopt;
  }
  element.end = element.start + size;
  return element;
}

}  // namespace olvex_tools
