// SPDX-License-Identifier: Apache-2.0
// codecs.h - OpenCV's codecs as two modules that olvex-det loads when it first needs them
// (tools/frames/codec_modules.cpp). More than 200 libraries come with them, whose start takes ten times as
// long as that of all the others.
#ifndef TOOLS_CODECS_CODECS_H
#define TOOLS_CODECS_CODECS_H

#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/videoio.hpp>

namespace olvex_tools {

// What libolvex_picture_codec.so exports under the name below.
struct PictureCodec {
  // 8-bit BGR; empty for anything but a picture. May throw cv::Exception.
  cv::Mat (*decode)(const std::vector<unsigned char>& bytes);
  // extension  with its point, as in ".png"
  // False, or cv::Exception, when the extension is unknown.
  bool (*encode)(const std::string& extension, const cv::Mat& picture,
                 std::vector<unsigned char>* bytes);
};
constexpr char kPictureCodecModule[] = "libolvex_picture_codec.so";
constexpr char kPictureCodecSymbol[] = "olvex_picture_codec";

// What libolvex_video_codec.so exports. The objects are deleted by their virtual destructors, and all that is
// called of them is virtual, so that the program itself needs no symbol of the videoio module.
struct VideoCodec {
  cv::VideoCapture* (*new_capture)();
  cv::VideoWriter* (*new_writer)();
};
constexpr char kVideoCodecModule[] = "libolvex_video_codec.so";
constexpr char kVideoCodecSymbol[] = "olvex_video_codec";

}  // namespace olvex_tools

#endif  // TOOLS_CODECS_CODECS_H
