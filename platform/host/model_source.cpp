// SPDX-License-Identifier: Apache-2.0
// model_source.cpp - reads a model by its path or by the caller's read callback.
#include "platform/host/model_source.h"

#include <algorithm>

#include "platform/host/host_error.h"
#include "platform/host/memory_map.h"

namespace qv_host {
namespace {

std::string origin_of(const ReadableRange& range) {
  return range.file.empty() ? "model in memory" : range.file;
}

// The library's callback copies from the context's address without looking, so what it is about to
// touch has to be there.
void require_readable(const char* context, std::size_t size) {
  const ReadableRange range = readable_range(context, size);
  if (range.size == 0) {
    throw HostError(QV_HOST_READ_FAILED,
                    "the model's address cannot be read; hand over a mapped model image");
  }
  if (range.size < size) {
    throw HostError(QV_HOST_BAD_IMAGE, origin_of(range) +
                                           ": truncated: " + std::to_string(range.size) +
                                           " bytes from the start pattern on, expected " +
                                           std::to_string(size) + "; copy or pack it again");
  }
}

void call(QV_IPU_ReadFunc read, char* destination, std::size_t offset, std::size_t size,
          char* context) {
  // An image has at most kMaxNetworkSize bytes and a little, which an int holds.
  const int code = read(destination, static_cast<int>(offset), static_cast<int>(size), context);
  if (code != 0) {
    throw HostError(QV_HOST_READ_FAILED, "the read callback failed with code " +
                                             std::to_string(code) + " for " + std::to_string(size) +
                                             " bytes at offset " + std::to_string(offset));
  }
}

Model load_through_callback(QV_IPU_ReadFunc read, char* context) {
  require_readable(context, kImageHeaderSize);
  Model model;
  model.origin = origin_of(readable_range(context, 1));
  char fixed[kImageHeaderSize];
  call(read, fixed, 0, sizeof fixed, context);
  try {
    const std::size_t size = static_cast<std::size_t>(image_size(parse_image_header(fixed)));
    // A callback of another kind has something else at its context's address, a path for example,
    // and looks after its own ranges.
    if (std::equal(std::begin(fixed), std::end(fixed), context)) {
      require_readable(context, size);
    }
    std::vector<char> bytes(size);
    std::copy(std::begin(fixed), std::end(fixed), bytes.begin());
    call(read, bytes.data() + kImageHeaderSize, kImageHeaderSize, size - kImageHeaderSize, context);
    model.image = parse_image(bytes.data(), bytes.size());
  } catch (const ImageError& error) {
    throw ImageError(model.origin + ": " + error.what());
  }
  return model;
}

}  // namespace

Model load_model(QV_IPU_ReadFunc read, char* path_or_context) {
  if (path_or_context == nullptr) {
    throw HostError(QV_HOST_BAD_ARGUMENT,
                    read != nullptr
                        ? "the read callback's context is NULL; is there no \"QTNX\" in "
                          "the model file?"
                        : "the path of the model file is NULL");
  }
  if (read != nullptr) {
    return load_through_callback(read, path_or_context);
  }
  return Model{read_image_file(path_or_context, nullptr), path_or_context};
}

}  // namespace qv_host
