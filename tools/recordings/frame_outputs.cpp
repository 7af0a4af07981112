// SPDX-License-Identifier: Apache-2.0
// frame_outputs.cpp - sizes of outputs, and what each of them holds. Every length is checked before it is used: a
// recording may be damaged.
#include "tools/recordings/frame_outputs.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <stdexcept>

#include "recorder/recording_format.h"

namespace olvex_tools {

namespace {

// Tensor.format: QV_IPU_FORMAT_ and the name.
constexpr std::uint32_t kU8 = 0;
constexpr std::uint32_t kInt16 = 2;
constexpr std::uint32_t kInt8 = 4;
constexpr std::uint64_t kMostBytes = 1u << 28;

[[noreturn]] void refuse(const std::string& what) {
  throw OutputFault{what};
}

// The first output's type holds for all.
std::size_t element_size(const RecordedNetwork& network) {
  const std::uint32_t format = network.outputs.empty() ? kU8 : network.outputs.front().format;
  if (format == kU8 || format == kInt8) {
    return 1;
  }
  return format == kInt16 ? 2 : 4;
}

// -infinity, or the lowest integer.
void fill_below(std::size_t element, Bytes* bytes) {
  const unsigned char lowest[2][4] = {{0x00, 0x80}, {0x00, 0x00, 0x80, 0xff}};
  for (std::size_t k = 0; k < bytes->size(); ++k) {
    (*bytes)[k] = lowest[element == 4 ? 1 : 0][k % element];
  }
}

// What is left out is below every threshold: minus infinity, or the lowest integer.
Bytes filled(const CellLayout& layout) {
  Bytes bytes(layout.cells * layout.channels * layout.element);
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

class CellReader {
 public:
  explicit CellReader(const std::string& data) : data_(data) {}

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

CellLayout layout_of(const RecordedOutput& output, const RecordedNetwork& network,
                     const RecordedTensor& tensor, std::size_t size) {
  CellLayout layout = {};
  layout.element = element_size(network);
  layout.channels = tensor.shape[3];
  layout.classes = output.classes;
  const std::uint64_t cells = std::uint64_t{tensor.shape[1]} * tensor.shape[2];
  const std::uint64_t most = layout.channels == 0 ? 0 : size / layout.element / layout.channels;
  if (cells == 0 || cells > most) {
    refuse("an output in cells that its buffer does not hold");
  }
  layout.cells = static_cast<std::size_t>(cells);
  return layout;
}

Bytes filled_output(const RecordedOutput& output, const CellLayout& layout, std::size_t size) {
  try {
    Bytes bytes = fill_cells(std::string(output.data.begin(), output.data.end()), layout);
    bytes.resize(size);
    return bytes;
  } catch (const std::runtime_error& error) {
    refuse(error.what());
  }
}

Bytes whole_output(const RecordedOutput& output, const RecordedNetwork& network,
                   const RecordedTensor& tensor, std::size_t size) {
  if (output.encoding == RECORDING_CELLS) {
    return filled_output(output, layout_of(output, network, tensor, size), size);
  }
  if (output.encoding != RECORDING_WHOLE) {
    refuse("an output of encoding " + std::to_string(output.encoding));
  }
  if (!output.data.empty() && output.data.size() != size) {
    refuse("an output of " + std::to_string(output.data.size()) + " bytes, whose buffer has " +
           std::to_string(size));
  }
  return output.data;
}

}  // namespace

Bytes fill_cells(const std::string& data, const CellLayout& layout) {
  CellReader reader(data);
  if (layout.classes == 0 || RECORDING_FIRST_CLASS + layout.classes > layout.channels) {
    reader.refuse("the layout has no such classes");
  }
  Bytes bytes = filled(layout);
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

std::vector<std::size_t> output_sizes(const RecordedNetwork& network) {
  std::vector<std::size_t> sizes;
  std::uint64_t all = 0;
  for (const RecordedTensor& tensor : network.outputs) {
    std::uint64_t size = element_size(network);
    for (const std::uint32_t extent : tensor.shape) {
      size = std::min(kMostBytes + 1, size * std::max(extent, 1u));
    }
    size = tensor.bytes != 0 ? tensor.bytes : size;
    all += size;
    if (all > kMostBytes) {
      refuse("outputs of more than 256 MiB");
    }
    sizes.push_back(static_cast<std::size_t>(size));
  }
  return sizes;
}

std::vector<Bytes> whole_outputs(const RecordedFrame& frame, const RecordedNetwork& network) {
  const std::vector<std::size_t> sizes = output_sizes(network);
  if (frame.outputs.size() != sizes.size()) {
    refuse(std::to_string(frame.outputs.size()) + " outputs of a network that has " +
           std::to_string(sizes.size()));
  }
  std::vector<Bytes> outputs;
  for (std::size_t k = 0; k < sizes.size(); ++k) {
    outputs.push_back(whole_output(frame.outputs[k], network, network.outputs[k], sizes[k]));
  }
  return outputs;
}

std::vector<Bytes> empty_outputs(const RecordedNetwork& network) {
  std::vector<Bytes> outputs;
  for (const std::size_t size : output_sizes(network)) {
    outputs.emplace_back(size);
    // Layers; all others are lists, whose count is 0.
    if (network.outputs.size() == 3) {
      fill_below(element_size(network), &outputs.back());
    }
  }
  return outputs;
}

}  // namespace olvex_tools
