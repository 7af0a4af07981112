// compare_choice.h - which frames to show: those in which runs differ most, or those asked for.
// compare_run.h holds the runs, compare_sheet.h draws the frames.
#ifndef TOOLS_COMPARE_COMPARE_CHOICE_H
#define TOOLS_COMPARE_COMPARE_CHOICE_H

#include <cstddef>
#include <vector>

#include "tools/compare/compare_run.h"

namespace olvex_tools {

// One frame as each run saw it, in the order of the runs.
struct ComparedFrame {
  long number = 0;
  std::vector<const FrameRecord*> records;
  // Per run, its boxes that lack a counterpart in at least one other run: a box of the same class
  // that overlaps by half (IoU) or more.
  std::vector<std::size_t> boxes_alone;
};

// Splits the frames that all runs hold into so many equal parts and takes from each the one with the
// most boxes alone, at least half a part behind the one before; where several have as many, the one
// nearest to the part's middle. Throws ToolError (kInputError) when the runs share no frame or are not of one
// picture size. Requires: runs is not empty and lives as long as the result; count is above 0.
std::vector<ComparedFrame> choose_frames(const std::vector<ComparedRun>& runs, std::size_t count);

// The frames of those numbers. Throws ToolError (kInputError) when a run lacks one, or when the
// runs are not of one picture size there.
std::vector<ComparedFrame> named_frames(const std::vector<ComparedRun>& runs,
                                        const std::vector<long>& numbers);

}  // namespace olvex_tools

#endif  // TOOLS_COMPARE_COMPARE_CHOICE_H
