// SPDX-License-Identifier: Apache-2.0
// codec_modules.h - picture files and videos, by modules that are loaded at the first call.
#ifndef TOOLS_FRAMES_CODEC_MODULES_H
#define TOOLS_FRAMES_CODEC_MODULES_H

#include <memory>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/videoio.hpp>

namespace olvex_tools {

// Each throws ToolError (kInternalError) when its module cannot be loaded.

// 8-bit BGR; empty for anything but a picture. Throws cv::Exception for some damaged ones.
cv::Mat decode_picture(const std::vector<unsigned char>& bytes);

// extension  with its point, as in ".png"
// False, or cv::Exception, when the extension is unknown.
bool encode_picture(const std::string& extension, const cv::Mat& picture,
                    std::vector<unsigned char>* bytes);

// Neither is open.
std::unique_ptr<cv::VideoCapture> make_video_capture();
std::unique_ptr<cv::VideoWriter> make_video_writer();

}  // namespace olvex_tools

#endif  // TOOLS_FRAMES_CODEC_MODULES_H
