// SPDX-License-Identifier: Apache-2.0
// mp4_times.h - gives the frames of a finished MP4 or MOV file their own times, which OpenCV's encoder cannot take:
// it writes a constant rate. picture_writers.cpp calls it.
#ifndef TOOLS_FRAMES_MP4_TIMES_H
#define TOOLS_FRAMES_MP4_TIMES_H

#include <cstdint>
#include <string>
#include <vector>

namespace olvex_tools {

// times: microseconds of each frame from the first one, rising. The new tables are appended before the old ones are
// struck out, so that the file can be played at any moment. Throws ToolError (kInputError) when the file cannot be
// written, and leaves it as it was.
// Requires: the file holds one track, of so many frames.
void set_frame_times(const std::string& path, const std::vector<std::uint64_t>& times);

}  // namespace olvex_tools

#endif  // TOOLS_FRAMES_MP4_TIMES_H
