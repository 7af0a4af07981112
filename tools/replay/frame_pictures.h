// SPDX-License-Identifier: Apache-2.0
// frame_pictures.h - the picture that belongs to a played frame: one that the recorder kept, or one of a video.
#ifndef TOOLS_REPLAY_FRAME_PICTURES_H
#define TOOLS_REPLAY_FRAME_PICTURES_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <opencv2/core.hpp>

#include "tools/frames/frame_source.h"
#include "tools/replay/replay.h"

namespace olvex_tools {

class FramePictures {
 public:
  // video  path of a video, or of pictures; empty: those that the recording kept
  // start  the number of the frame that its first picture belongs to, from 1; with several handles, the same of
  //        each handle's own frames
  // Throws ToolError (kInputError).
  FramePictures(const Recording& recording, const std::string& video, long start);

  // 8-bit BGR; empty where there is none. Ask in the order in which frames were played. Throws ToolError
  // (kInputError) for a picture that cannot be read.
  cv::Mat picture_of(const PlayedFrame& frame);
  // Whether picture_of() need be asked.
  bool may_have(const PlayedFrame& frame) const;
  // Nothing for kept pictures, which say when they were taken.
  std::optional<double> frames_per_second() const;

 private:
  cv::Mat kept_picture(const PlayedFrame& frame) const;
  cv::Mat next_of_video(long index);

  const Recording& recording_;
  long start_;
  bool has_one_handle_ = true;
  std::unique_ptr<FrameSource> video_;
  SourceFrame shown_;  // the last one of the video
};

}  // namespace olvex_tools

#endif  // TOOLS_REPLAY_FRAME_PICTURES_H
