// mot_lint.h - finds what is probably a mistake in the files and not in the tracker, before anything
// is measured.
// Read mot_files.h for what is refused outright.
#ifndef TOOLS_EVAL_MOT_MOT_LINT_H
#define TOOLS_EVAL_MOT_MOT_LINT_H

#include <string>
#include <vector>

#include "tools/common/lint_finding.h"
#include "tools/eval/mot/mot_files.h"

namespace olvex_tools {

// At most one finding per kind and file. Of rows of result that repeat an id in a frame only the
// first is kept.
std::vector<LintFinding> lint_tracks(const MotFile& truth, MotFile* result);

}  // namespace olvex_tools

#endif  // TOOLS_EVAL_MOT_MOT_LINT_H
