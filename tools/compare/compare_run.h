// compare_run.h - one run to compare: what olvex-det run --jsonl wrote, read back.
// result_writers.cpp writes it; compare_choice.h picks the frames to show.
#ifndef TOOLS_COMPARE_COMPARE_RUN_H
#define TOOLS_COMPARE_COMPARE_RUN_H

#include <string>
#include <vector>

#include "tools/frames/frame_record.h"

namespace olvex_tools {

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

}  // namespace olvex_tools

#endif  // TOOLS_COMPARE_COMPARE_RUN_H
