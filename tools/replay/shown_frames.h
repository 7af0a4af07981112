// SPDX-License-Identifier: Apache-2.0
// shown_frames.h - played frames with their pictures: drawn, or as a file for viewers.
#ifndef TOOLS_REPLAY_SHOWN_FRAMES_H
#define TOOLS_REPLAY_SHOWN_FRAMES_H

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "tools/frames/frame_source.h"
#include "tools/replay/replay.h"

namespace olvex_tools {

// The picture that belongs to a played frame: one that the recorder kept, or one of a video.
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

// Both throw ToolError (kInputError).

// Draws boxes over the frames that have a picture, into a video or, by any other name, a folder. after: the same
// frames with changed options, to stand beside the others, as that text says; null without. notice tells the
// user something.
void draw_frames(const std::string& path, FramePictures* pictures,
                 const std::vector<PlayedFrame>& before, const std::vector<PlayedFrame>* after,
                 const std::string& changes, const std::function<void(const std::string&)>& notice);

// Writes a file for viewers: of each handle the boxes as image annotations, and the pictures that there are as
// JPEG. Coordinates are pixels of the picture, or of the display where there is none.
void write_for_viewers(const std::string& path, FramePictures* pictures,
                       const std::vector<PlayedFrame>& frames);

}  // namespace olvex_tools

#endif  // TOOLS_REPLAY_SHOWN_FRAMES_H
