// SPDX-License-Identifier: Apache-2.0
// last_output.h - what the public record Box_t does not carry: corners before they are cut to whole
// pixels, track ids and key points.
#ifndef TOOLS_INSIDE_LAST_OUTPUT_H
#define TOOLS_INSIDE_LAST_OUTPUT_H

#include <cstddef>
#include <vector>

#include "tools/frames/frame_record.h"

namespace olvex_tools {

// Adds corners, track ids (when has_tracks) and key points to the boxes of the last ALGO_DET_Run.
// Returns the number of boxes beyond ALGO_DET_MAX_BOXES, which it cut.
// Requires: handle is initialised, its last run succeeded, and detections holds what it reported.
std::size_t add_last_output(void* handle, bool has_tracks, std::vector<Detection>* detections);

}  // namespace olvex_tools

#endif  // TOOLS_INSIDE_LAST_OUTPUT_H
