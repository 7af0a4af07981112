// SPDX-License-Identifier: Apache-2.0
// picture_writers.h - annotated frames as a video, or as pictures in a folder.
#ifndef TOOLS_FRAMES_PICTURE_WRITERS_H
#define TOOLS_FRAMES_PICTURE_WRITERS_H

#include <functional>
#include <memory>
#include <string>

#include "tools/frames/result_writers.h"

namespace olvex_tools {

// Frames must come with their picture.

// Whether the name ends in .mp4, .mkv, .mov or .avi.
bool is_video_name(const std::string& path);

// Requires: is_video_name(path). All frames get the size of the first. notice tells the user that no H.264 encoder
// was found.
std::unique_ptr<FrameWriter> make_video_writer(
    const std::string& path, double frames_per_second,
    const std::function<void(const std::string&)>& notice);
// Makes the folder; extension is png or jpg.
std::unique_ptr<FrameWriter> make_folder_writer(const std::string& folder,
                                                const std::string& extension);

}  // namespace olvex_tools

#endif  // TOOLS_FRAMES_PICTURE_WRITERS_H
