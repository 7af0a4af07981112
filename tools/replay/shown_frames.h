// SPDX-License-Identifier: Apache-2.0
// shown_frames.h - played frames with their pictures: drawn, or as a file for viewers. frame_pictures.h has the
// pictures.
#ifndef TOOLS_REPLAY_SHOWN_FRAMES_H
#define TOOLS_REPLAY_SHOWN_FRAMES_H

#include <functional>
#include <string>
#include <vector>

#include "tools/replay/frame_pictures.h"
#include "tools/replay/replay.h"

namespace olvex_tools {

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
