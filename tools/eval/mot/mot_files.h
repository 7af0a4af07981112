// mot_files.h - the two files that tracks are measured from: the truth, and the rows that olvex-det
// run --track --mot writes.
#ifndef TOOLS_EVAL_MOT_MOT_FILES_H
#define TOOLS_EVAL_MOT_MOT_FILES_H

#include <cstddef>
#include <string>
#include <vector>

#include "tools/common/box.h"
#include "tools/common/evaluation.h"

namespace olvex_tools {

struct MotRow {
  std::size_t line = 0;  // in the file, from 1
  long frame = 0;        // from 1; 0 is let through for the lint to find
  long id = 0;
  int class_id = 0;
  bool ignored = false;  // truth that counts neither as found nor as missed
  Box box;               // display pixels
};

struct MotFile {
  std::string path;
  std::vector<MotRow> rows;  // by frame, those of a frame in the order of the file
};

// Both skip blank lines and lines that start with #, and throw ToolError (kInputError) with file and
// row for a row that they cannot take.

// frame,id,left,top,width,height,consider,class,visibility[,moving]. Each object has one class and
// at most one row in a frame.
MotFile read_mot_truth(const std::string& path);
// frame,id,left,top,width,height,score,class,-1,-1.
MotFile read_mot_result(const std::string& path);

// What is probably a mistake in the files and not in the tracker; at most one finding per kind and file. Of
// rows of result that repeat an id in a frame only the first is kept. In mot_lint.cpp.
std::vector<LintFinding> lint_tracks(const MotFile& truth, MotFile* result);

}  // namespace olvex_tools

#endif  // TOOLS_EVAL_MOT_MOT_FILES_H
