// SPDX-License-Identifier: Apache-2.0
// file_parts.h - numbers and parts of media files: boxes of MP4 and MOV in memory, elements of Matroska in a
// file. Every read is checked against the end. video_index.cpp and mp4_times.cpp use it.
#ifndef TOOLS_FRAMES_FILE_PARTS_H
#define TOOLS_FRAMES_FILE_PARTS_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace olvex_tools {

// A number of so many bytes, the highest first. Requires: bytes holds them.
std::uint64_t big_endian(const unsigned char* bytes, std::size_t count);

// How many bytes a number of EBML (RFC 8794) has by its first: as many zero bits as bytes follow, then a one. 9 for
// none.
std::size_t length_of_number(unsigned char first);

// A file that is read in places.
class PlacedFile {
 public:
  explicit PlacedFile(const std::string& path);
  ~PlacedFile();
  PlacedFile(const PlacedFile&) = delete;
  PlacedFile& operator=(const PlacedFile&) = delete;

  std::uint64_t size() const { return size_; }  // 0 for a file that cannot be read
  // Whether all bytes were there.
  bool read(std::uint64_t place, void* bytes, std::size_t count) const;
  // So many bytes, or fewer at the end.
  std::size_t read_some(std::uint64_t place, void* bytes, std::size_t count) const;

 private:
  int descriptor_;
  std::uint64_t size_ = 0;
};

// ---- Boxes --------------------------------------------------------------------------------------

// Of a box in memory: its type and what follows its head. place: of its head, in what it was found in.
struct ContainerBox {
  std::string_view type;
  std::basic_string_view<unsigned char> content;
  std::size_t place = 0;
};
using BoxBytes = std::basic_string_view<unsigned char>;

// The boxes that lie one after the other; those up to a damaged one.
std::vector<ContainerBox> boxes_in(BoxBytes bytes);
// The content of the box at the end of a path of types, the first of each; empty where there is none.
BoxBytes box_at(BoxBytes bytes, std::initializer_list<std::string_view> path);

// The box moov of a file, its head included, and its place there; empty bytes where there is none or it is not
// the only one.
struct MovieBox {
  std::vector<unsigned char> bytes;
  std::uint64_t place = 0;
};
MovieBox movie_box(const PlacedFile& file);

// A table: version and flags, a count, and entries of that many 32-bit numbers. Empty when it is cut.
std::vector<std::uint32_t> table_of(BoxBytes content, std::size_t numbers_per_entry);

// ---- Elements -----------------------------------------------------------------------------------

struct Element {
  std::uint32_t id = 0;
  std::uint64_t start = 0;  // of the content
  std::uint64_t end = 0;
};

// The element at that place; nothing at limit, where it does not fit before it, and where its size is open.
std::optional<Element> element_at(const PlacedFile& file, std::uint64_t place, std::uint64_t limit);

}  // namespace olvex_tools

#endif  // TOOLS_FRAMES_FILE_PARTS_H
