// SPDX-License-Identifier: Apache-2.0
// compare.h - runs read back, the frames of them that are shown, and the sheet that shows them.
// compare_runs.cpp reads and chooses, compare_outlines.cpp finds what changed, compare_sheet.cpp draws;
// compare_command.cpp calls them.
#ifndef TOOLS_COMPARE_COMPARE_H
#define TOOLS_COMPARE_COMPARE_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "tools/common/box.h"
#include "tools/frames/frame_record.h"

namespace olvex_tools {

class FrameSource;

// One run to compare: what olvex-det run --jsonl wrote, read back.
struct ComparedRun {
  std::string label;
  std::string path;
  std::vector<std::string> class_names;  // by class id; empty where the file names none
  std::vector<FrameRecord> frames;       // one per line of the file; their numbers rise
};

// Throws ToolError (kInputError) with file and line when it is not what olvex-det run writes.
ComparedRun read_compared_run(const std::string& label, const std::string& path);

// The frame of that number, or null where the run has none.
const FrameRecord* find_frame(const ComparedRun& run, long number);

// "tracked.jsonl:12", the place of one of the run's frames. Requires: frame is one of them.
std::string place_of(const ComparedRun& run, const FrameRecord& frame);

Box box_of(const Detection& detection);

// Boxes of one class that overlap by half (IoU) or more; those without area at the same place alone.
bool are_counterparts(const Detection& left, const Detection& right);
bool has_counterpart(const Detection& box, const FrameRecord& record);

// One frame as each run saw it, in the order of the runs.
struct ComparedFrame {
  long number = 0;
  std::vector<const FrameRecord*> records;
  // Per run, its boxes that lack a counterpart in at least one other run.
  std::vector<std::size_t> boxes_alone;
};

// Splits the frames that all runs hold into so many equal parts and takes from each the one with the
// most boxes alone, at least half a part after the one before; where several have as many, the one
// nearest to the part's middle. Throws ToolError (kInputError) when the runs share no frame or are not of one
// picture size. Requires: runs is not empty and lives as long as the result; count is above 0.
std::vector<ComparedFrame> choose_frames(const std::vector<ComparedRun>& runs, std::size_t count);

// The frames of those numbers. Throws ToolError (kInputError) when a run lacks one, or when the
// runs are not of one picture size there.
std::vector<ComparedFrame> named_frames(const std::vector<ComparedRun>& runs,
                                        const std::vector<long>& numbers);

// What a run made of the first one's boxes in a frame. In compare_outlines.cpp, up to text_of_changes.
struct FrameChanges {
  std::vector<const Detection*> gained;  // without a counterpart in the first run
  std::vector<const Detection*> moved;   // with one that it overlaps by less than 0.8
  std::vector<const Detection*> lost;    // of the first run, without a counterpart in this one
};

// Both live as long as the result.
FrameChanges changes_of(const FrameRecord& first, const FrameRecord& other);

// The picture with an outline around each: gained green, moved yellow, lost red and crossed out. Their
// widths suit a tile of that width. record: whose size the boxes are scaled from.
cv::Mat outlined(const cv::Mat& picture, const FrameRecord& record, const FrameChanges& changes,
                 int tile_width);

// ", 1 gained, 2 lost, 1 moved", without those that there are none of.
std::string text_of_changes(const FrameChanges& changes);

// The sheet: a row per frame, a column per run, boxes drawn as run draws them. In the columns after the first
// outlines show what differs from that.
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

#endif  // TOOLS_COMPARE_COMPARE_H
