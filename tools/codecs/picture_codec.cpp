// SPDX-License-Identifier: Apache-2.0
// picture_codec.cpp - the module of picture files, by OpenCV's imgcodecs.
#include <opencv2/imgcodecs.hpp>

#include "tools/codecs/codecs.h"

namespace {

// Not imread: that prints the name, which may hold anything, to the terminal.
cv::Mat decode(const std::vector<unsigned char>& bytes) {
  return bytes.empty() ? cv::Mat() : cv::imdecode(bytes, cv::IMREAD_COLOR);
}

bool encode(const std::string& extension, const cv::Mat& picture,
            std::vector<unsigned char>* bytes) {
  return cv::imencode(extension, picture, *bytes);
}

}  // namespace

extern "C" {
extern const olvex_tools::PictureCodec olvex_picture_codec;
const olvex_tools::PictureCodec olvex_picture_codec = {decode, encode};
}
