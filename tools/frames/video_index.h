// SPDX-License-Identifier: Apache-2.0
// video_index.h - the time of every frame of a video file, read from the file's own tables without decoding:
// MP4 and MOV (ISO/IEC 14496-12) and Matroska (RFC 9559). video_source.cpp seeks by it.
#ifndef TOOLS_FRAMES_VIDEO_INDEX_H
#define TOOLS_FRAMES_VIDEO_INDEX_H

#include <cstdint>
#include <string>
#include <vector>

#include "tools/frames/file_parts.h"

namespace olvex_tools {

// Microseconds from the first shown frame, in the order in which frames are shown. Empty for other formats and
// where the tables do not tell what a coder shows: several video tracks, edits beyond one cut at the start,
// fragments, laced blocks, a file that was not finished, or tables that are damaged.
std::vector<std::uint64_t> times_of_frames(const std::string& path);

// Of the content of a box stbl: when each sample is shown, in the order of decoding, in ticks of the track.
std::vector<std::int64_t> shown_times(BoxBytes samples);
// Ticks in a second by the content of a header (mvhd or mdhd); 0 when it is cut.
std::uint64_t ticks_per_second(BoxBytes header);

}  // namespace olvex_tools

#endif  // TOOLS_FRAMES_VIDEO_INDEX_H
