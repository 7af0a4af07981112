// SPDX-License-Identifier: Apache-2.0
// host_image.cpp - the bytes of the host accelerator's offline models: reads, checks and writes them. The
// format's manual is docs/model-images.md; description_json.cpp reads the description inside, and
// host_accelerator.cpp opens channels on what is read here.
#include "platform/host/host_image.h"

#include <sys/stat.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <string_view>

namespace qv_host {
namespace {

constexpr std::string_view kStartPattern = OLVEX_OFFLINE_MODEL_START;
constexpr std::uint64_t kMaxTextHeader = 1u << 20;  // bytes of key/value text before the pattern

template <typename Unsigned>
Unsigned read_little_endian(const char* bytes) {
  Unsigned value = 0;
  for (std::size_t i = sizeof value; i-- > 0;) {
    value = static_cast<Unsigned>((value << 8) | static_cast<unsigned char>(bytes[i]));
  }
  return value;
}

template <typename Unsigned>
void append_little_endian(Unsigned value, std::vector<char>* bytes) {
  for (std::size_t i = 0; i < sizeof value; ++i) {
    bytes->push_back(static_cast<char>(value >> (8 * i) & 0xff));
  }
}

std::uint32_t add_to_crc(std::uint32_t crc, const char* bytes, std::size_t size) {
  return static_cast<std::uint32_t>(
      crc32(crc, reinterpret_cast<const Bytef*>(bytes), static_cast<uInt>(size)));
}

void check_sizes(std::uint64_t description_size, std::uint64_t network_size) {
  if (description_size == 0 || description_size > kMaxDescriptionSize) {
    throw ImageError("length of the description: found " + std::to_string(description_size) +
                     " bytes, expected 1 to " + std::to_string(kMaxDescriptionSize) +
                     "; the image is damaged or not from this project's packer");
  }
  if (network_size == 0 || network_size > kMaxNetworkSize) {
    throw ImageError("length of the network: found " + std::to_string(network_size) +
                     " bytes, expected 1 to " + std::to_string(kMaxNetworkSize) +
                     "; the image is damaged or not from this project's packer");
  }
}

std::vector<char> read_file(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    throw ImageReadError(path + ": cannot be read: " + std::strerror(errno));
  }
  if (!S_ISREG(status.st_mode)) {
    throw ImageReadError(path + ": is not a regular file");
  }
  const std::uint64_t size = static_cast<std::uint64_t>(status.st_size);
  if (size > kMaxTextHeader + kImageHeaderSize + kMaxDescriptionSize + kMaxNetworkSize) {
    throw ImageError(path + ": has " + std::to_string(size) + " bytes, too many for a model file");
  }
  std::vector<char> bytes(size);
  std::ifstream file(path, std::ios::binary);
  if (!file.read(bytes.data(), static_cast<std::streamsize>(size))) {
    throw ImageReadError(path + ": cannot be read: " + std::strerror(errno));
  }
  return bytes;
}

// Position of the start pattern; what precedes it is key/value text.
std::size_t find_start_pattern(const std::vector<char>& bytes) {
  const auto start =
      std::search(bytes.begin(), bytes.end(), kStartPattern.begin(), kStartPattern.end());
  if (start == bytes.end()) {
    throw ImageError("no start pattern \"QTNX\" in it; make a model file with the packer");
  }
  // The library's own scan for the pattern ends at a zero byte.
  if (std::find(bytes.begin(), start, '\0') != start) {
    throw ImageError(
        "a zero byte in the key/value text before \"QTNX\"; the library would stop there");
  }
  return static_cast<std::size_t>(start - bytes.begin());
}

}  // namespace

std::vector<char> build_image(const Description& description, const std::vector<char>& network) {
  const std::string json = description_to_json(description);
  check_sizes(json.size(), network.size());
  std::uint32_t crc = add_to_crc(0, json.data(), json.size());
  crc = add_to_crc(crc, network.data(), network.size());

  std::vector<char> image(kStartPattern.begin(), kStartPattern.end());
  append_little_endian(kImageVersion, &image);
  append_little_endian(static_cast<std::uint32_t>(json.size()), &image);
  append_little_endian(crc, &image);
  append_little_endian(static_cast<std::uint64_t>(network.size()), &image);
  image.insert(image.end(), json.begin(), json.end());
  image.insert(image.end(), network.begin(), network.end());
  return image;
}

std::uint64_t image_size(const ImageHeader& header) {
  return kImageHeaderSize + header.description_size + header.network_size;
}

ImageHeader parse_image_header(const char (&bytes)[kImageHeaderSize]) {
  if (!std::equal(kStartPattern.begin(), kStartPattern.end(), bytes)) {
    throw ImageError("does not begin with \"QTNX\"; make a model file with the packer");
  }
  ImageHeader header;
  header.version = read_little_endian<std::uint32_t>(bytes + 4);
  header.description_size = read_little_endian<std::uint32_t>(bytes + 8);
  header.crc = read_little_endian<std::uint32_t>(bytes + 12);
  header.network_size = read_little_endian<std::uint64_t>(bytes + 16);
  if (header.version != kImageVersion) {
    throw ImageError("version: found " + std::to_string(header.version) + ", expected " +
                     std::to_string(kImageVersion) +
                     "; pack the network again for this host accelerator");
  }
  check_sizes(header.description_size, header.network_size);
  return header;
}

Image parse_image(const char* bytes, std::size_t size) {
  if (size < kImageHeaderSize) {
    throw ImageError("truncated: " + std::to_string(size) + " bytes, the fixed part alone has " +
                     std::to_string(kImageHeaderSize));
  }
  char fixed[kImageHeaderSize];
  std::copy_n(bytes, kImageHeaderSize, fixed);
  Image image;
  image.header = parse_image_header(fixed);
  if (size != image_size(image.header)) {
    throw ImageError(std::string(size < image_size(image.header) ? "truncated" : "too long") +
                     ": found " + std::to_string(size) + " bytes, the lengths in it announce " +
                     std::to_string(image_size(image.header)));
  }
  const char* description = bytes + kImageHeaderSize;
  const char* network = description + image.header.description_size;
  std::uint32_t crc = add_to_crc(0, description, image.header.description_size);
  crc = add_to_crc(crc, network, static_cast<std::size_t>(image.header.network_size));
  if (crc != image.header.crc) {
    throw ImageError(
        "CRC-32: the bytes do not match the checksum; the image is damaged, copy or "
        "pack it again");
  }
  image.description = parse_description(std::string(description, image.header.description_size));
  image.network.assign(network, bytes + size);
  return image;
}

Image read_image_file(const std::string& path, std::string* text_header) {
  const std::vector<char> bytes = read_file(path);
  try {
    const std::size_t start = find_start_pattern(bytes);
    Image image = parse_image(bytes.data() + start, bytes.size() - start);
    if (text_header != nullptr) {
      text_header->assign(bytes.data(), start);
    }
    return image;
  } catch (const ImageError& error) {
    throw ImageError(path + ": " + error.what());
  }
}

}  // namespace qv_host
