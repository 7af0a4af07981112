// compare_sheet.h - the sheet: a row per frame, a column per run, boxes drawn as run draws them.
// tile_grid.h lays it out, annotation.h draws a tile.
#ifndef TOOLS_COMPARE_COMPARE_SHEET_H
#define TOOLS_COMPARE_COMPARE_SHEET_H

#include <optional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "tools/compare/compare_choice.h"

namespace olvex_tools {

class FrameSource;

// input    how messages call the source
// display  picture size that the boxes are scaled to; without it the source's own
// frames   not empty; their numbers rise
// Reads the source up to the last of the frames. Throws ToolError (kInputError) when it ends before
// that, or when the boxes are for another picture size.
cv::Mat draw_compare_sheet(const std::string& input, FrameSource* source,
                           const std::optional<cv::Size>& display,
                           const std::vector<ComparedRun>& runs,
                           const std::vector<ComparedFrame>& frames);

}  // namespace olvex_tools

#endif  // TOOLS_COMPARE_COMPARE_SHEET_H
