// SPDX-License-Identifier: Apache-2.0
// codec_modules.cpp - loads the modules of tools/codecs. Declared in codec_modules.h.
#include "tools/frames/codec_modules.h"

#include <dlfcn.h>

#include "tools/codecs/codecs.h"
#include "tools/common/command.h"

namespace olvex_tools {

namespace {

// The module is looked for where the program's other libraries are, by its run path. It stays loaded: objects
// of it may live until the process ends.
const void* exported(const char* module, const char* symbol) {
  void* const loaded = dlopen(module, RTLD_NOW | RTLD_LOCAL);
  const void* const found = loaded == nullptr ? nullptr : dlsym(loaded, symbol);
  if (found == nullptr) {
    const char* const reason = dlerror();  // begins with the name
    throw ToolError(kInternalError, std::string(reason == nullptr ? module : reason) +
                                        ". Install olvex-det with all its libraries");
  }
  return found;
}

const PictureCodec& picture_codec() {
  static const auto* const codec =
      static_cast<const PictureCodec*>(exported(kPictureCodecModule, kPictureCodecSymbol));
  return *codec;
}

const VideoCodec& video_codec() {
  static const auto* const codec =
      static_cast<const VideoCodec*>(exported(kVideoCodecModule, kVideoCodecSymbol));
  return *codec;
}

}  // namespace

cv::Mat decode_picture(const std::vector<unsigned char>& bytes) {
  return picture_codec().decode(bytes);
}

bool encode_picture(const std::string& extension, const cv::Mat& picture,
                    std::vector<unsigned char>* bytes) {
  return picture_codec().encode(extension, picture, bytes);
}

std::unique_ptr<cv::VideoCapture> make_video_capture() {
  return std::unique_ptr<cv::VideoCapture>(video_codec().new_capture());
}

std::unique_ptr<cv::VideoWriter> make_video_writer() {
  return std::unique_ptr<cv::VideoWriter>(video_codec().new_writer());
}

}  // namespace olvex_tools
