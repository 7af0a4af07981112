// video_container.h - whether a video file reaches as far as its own structure says.
#ifndef TOOLS_FRAMES_VIDEO_CONTAINER_H
#define TOOLS_FRAMES_VIDEO_CONTAINER_H

#include <string>

namespace olvex_tools {

// Whether the outermost parts of an MP4 or MOV (ISO/IEC 14496-12), AVI (RIFF) or Matroska (RFC 9559)
// file end exactly where the file does. A file can be whole and show fewer frames than it counts: an
// edit list leaves out the start, or the sound is longer than the pictures. False for other formats.
bool is_whole_container(const std::string& path);

}  // namespace olvex_tools

#endif  // TOOLS_FRAMES_VIDEO_CONTAINER_H
