// SPDX-License-Identifier: Apache-2.0
// host_image_fuzz.cpp - offline models of the host accelerator: whole files as they are, and files
// whose lengths and checksum are right, so that what lies behind those is reached. The first byte
// of an input chooses: even: a file; odd: header text, description and network, divided by zero
// bytes.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <tuple>

#include <zlib.h>

#include "fuzz/fuzz_input.h"
#include "platform/host/host_image.h"

namespace {

using namespace qv_host;

auto members(const Description& d) {
  const auto& [input, raw, decoded] = std::tie(d.input, d.raw, d.decoded);
  return std::tie(d.title, d.kind, d.output_format, d.name_pairs, d.class_names, input.name,
                  input.width, input.height, input.format, input.frame_order, input.network_order,
                  input.resize, input.mean, input.scale, raw[0].name, raw[0].nchw, raw[0].scale,
                  raw[1].name, raw[1].nchw, raw[1].scale, raw[2].name, raw[2].nchw, raw[2].scale,
                  decoded.boxes, decoded.box_order, decoded.box_fractions, decoded.scores,
                  decoded.background, decoded.emit_classes, decoded.keypoints,
                  decoded.keypoint_values, decoded.max_boxes, decoded.min_score, decoded.box_scale,
                  decoded.score_scale, decoded.keypoint_scale);
}

// What the reader returns; nothing where it refuses, which it does in one line of plain text.
template <typename Read>
auto accepted(Read read) -> std::optional<decltype(read())> {
  try {
    return read();
  } catch (const ImageError& error) {
    const char* const end = error.what() + std::strlen(error.what());
    FUZZ_CHECK(std::none_of(error.what(), end,
                            [](char c) { return static_cast<unsigned char>(c) < 0x20; }));
    return std::nullopt;
  }
}

void check_round_trip(const Description& description, const std::vector<char>& network) {
  const std::string json = description_to_json(description);
  const Description again = parse_description(json);
  FUZZ_CHECK(members(again) == members(description));
  FUZZ_CHECK(description_to_json(again) == json);
  for (const std::string& name : output_tensor_names(description)) {
    FUZZ_CHECK(name.size() < OLVEX_TENSOR_NAME_SIZE);
  }
  const auto built = accepted([&] { return build_image(description, network); });
  FUZZ_CHECK(built.has_value() == !network.empty());
  if (built) {
    const Image image = parse_image(built->data(), built->size());
    FUZZ_CHECK(members(image.description) == members(description) && image.network == network);
  }
}

std::string little_endian(std::uint64_t value, std::size_t bytes) {
  std::string text;
  for (; text.size() < bytes; value >>= 8) {
    text += static_cast<char>(value & 0xff);
  }
  return text;
}

std::string sound_file(const std::vector<std::string>& parts) {
  const std::string contents = parts[1] + parts[2];
  const uLong crc =
      crc32(0, reinterpret_cast<const Bytef*>(contents.data()), static_cast<uInt>(contents.size()));
  return parts[0] + OLVEX_OFFLINE_MODEL_START + little_endian(kImageVersion, 4) +
         little_endian(parts[1].size(), 4) + little_endian(crc, 4) +
         little_endian(parts[2].size(), 8) + contents;
}

std::optional<Image> read_file(const std::string& bytes, std::string* text_header) {
  static MemoryFile file;
  return accepted([&] { return read_image_file(file.holding(bytes), text_header); });
}

void check_parts(const std::vector<std::string>& parts) {
  const auto description = accepted([&] { return parse_description(parts[1]); });
  std::string text_header;
  const auto image = read_file(sound_file(parts), &text_header);
  // With a 'Q' the header text may begin another image.
  if (parts[0].find('Q') == std::string::npos) {
    FUZZ_CHECK(image.has_value() == (description.has_value() && !parts[2].empty()));
    FUZZ_CHECK(!image || text_header == parts[0]);
  }
  if (description) {
    check_round_trip(*description, {parts[2].begin(), parts[2].end()});
  }
}

void check_file(const char* bytes, std::size_t size) {
  const auto image = accepted([&] { return parse_image(bytes, size); });
  FUZZ_CHECK(!image || image_size(image->header) == size);
  std::string text_header;
  const auto read = read_file(std::string(bytes, size), &text_header);
  FUZZ_CHECK(!image || (read && text_header.empty()));
  if (read) {
    check_round_trip(read->description, read->network);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) {
    return 0;
  }
  const char* const bytes = reinterpret_cast<const char*>(data) + 1;
  if (data[0] % 2 == 0) {
    check_file(bytes, size - 1);
  } else {
    check_parts(parts_of(std::string(bytes, size - 1), 3));
  }
  return 0;
}
