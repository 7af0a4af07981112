// spread_frames.h - a limited number of frames of a source, taken evenly from its start to its end.
// frame_source.h has the sources.
#ifndef TOOLS_FRAMES_SPREAD_FRAMES_H
#define TOOLS_FRAMES_SPREAD_FRAMES_H

#include <functional>
#include <string>

#include "tools/frames/frame_source.h"

namespace olvex_tools {

// Hands at most limit frames of input (see open_frame_source) to process and returns how many; a source of
// unknown length gives its first ones. Shows the progress. Throws ToolError (kInputError) when a picture is
// unreadable or there is no frame at all, and what process throws.
long for_spread_frames(const std::string& input, const FrameLayout& layout, long limit,
                       const std::function<void(SourceFrame*)>& process);

}  // namespace olvex_tools

#endif  // TOOLS_FRAMES_SPREAD_FRAMES_H
