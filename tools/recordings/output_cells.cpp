// SPDX-License-Identifier: Apache-2.0
// output_cells.cpp - every length is checked before it is used: a recording may be damaged.
#include "tools/recordings/output_cells.h"

#include <cmath>
#include <cstring>
#include <stdexcept>

#include "recorder/recording_format.h"

namespace {

// What is left out is below every threshold: minus infinity, or the lowest integer.
std::vector<unsigned char> filled(const CellLayout& layout) {
  std::vector<unsigned char> bytes(layout.cells * layout.channels * layout.element);
  const float lowest = -INFINITY;
  const std::int16_t lowest_integer = INT16_MIN;
  const void* const value = layout.element == 2 ? static_cast<const void*>(&lowest_integer)
                                                : static_cast<const void*>(&lowest);
  for (std::size_t cell = 0; cell < layout.cells; ++cell) {
    for (std::size_t k = 0; k < layout.classes; ++k) {
      const std::size_t at = cell * layout.channels + RECORDING_FIRST_CLASS + k;
      std::memcpy(&bytes[at * layout.element], value, layout.element);
    }
  }
  return bytes;
}

class Reader {
 public:
  explicit Reader(const std::string& data) : data_(data) {}

  bool is_at_end() const { return at_ == data_.size(); }
  std::size_t byte() { return *take(1); }
  std::size_t word() {
    const unsigned char* const bytes = take(2);
    return bytes[0] | static_cast<std::size_t>(bytes[1]) << 8;
  }
  const unsigned char* take(std::size_t size) {
    if (size > data_.size() - at_) {
      refuse("ends inside a cell");
    }
    at_ += size;
    return reinterpret_cast<const unsigned char*>(data_.data()) + at_ - size;
  }
  [[noreturn]] void refuse(const std::string& what) const {
    throw std::runtime_error("cells: " + what + " (at byte " + std::to_string(at_) + ")");
  }

 private:
  const std::string& data_;
  std::size_t at_ = 0;
};

}  // namespace

std::vector<unsigned char> fill_cells(const std::string& data, const CellLayout& layout) {
  Reader reader(data);
  if (layout.classes == 0 || RECORDING_FIRST_CLASS + layout.classes > layout.channels) {
    reader.refuse("the layout has no such classes");
  }
  std::vector<unsigned char> bytes = filled(layout);
  const std::size_t element = layout.element;
  const std::size_t behind = RECORDING_FIRST_CLASS + layout.classes;
  for (std::size_t next = 0; !reader.is_at_end(); ++next) {
    next += reader.word();
    const std::size_t count = reader.byte();
    if (next >= layout.cells || count > layout.classes) {
      reader.refuse("a cell or class that the layout has not");
    }
    unsigned char* const cell = &bytes[next * layout.channels * element];
    const unsigned char* const classes = reader.take(count);
    std::memcpy(cell, reader.take(RECORDING_FIRST_CLASS * element),
                RECORDING_FIRST_CLASS * element);
    for (std::size_t k = 0; k < count; ++k) {
      if (classes[k] >= layout.classes) {
        reader.refuse("a class that the layout has not");
      }
      std::memcpy(cell + (RECORDING_FIRST_CLASS + classes[k]) * element, reader.take(element),
                  element);
    }
    const std::size_t rest = (layout.channels - behind) * element;
    std::memcpy(cell + behind * element, reader.take(rest), rest);
  }
  return bytes;
}
