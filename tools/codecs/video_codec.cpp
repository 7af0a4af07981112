// SPDX-License-Identifier: Apache-2.0
// video_codec.cpp - the module of videos and cameras, by OpenCV's videoio.
#include "tools/codecs/codecs.h"

namespace {

cv::VideoCapture* new_capture() {
  return new cv::VideoCapture;
}
cv::VideoWriter* new_writer() {
  return new cv::VideoWriter;
}

}  // namespace

extern "C" {
extern const olvex_tools::VideoCodec olvex_video_codec;
const olvex_tools::VideoCodec olvex_video_codec = {new_capture, new_writer};
}
