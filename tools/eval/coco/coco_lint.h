// coco_lint.h - finds what is usually a slip in the files of eval coco and would spoil the metrics
// without a word: shifted ids, corners in place of sizes, boxes that count for nothing.
// Read coco_files.h for what is refused outright.
#ifndef TOOLS_EVAL_COCO_COCO_LINT_H
#define TOOLS_EVAL_COCO_COCO_LINT_H

#include <string>
#include <vector>

#include "tools/eval/coco/coco_data.h"
#include "tools/common/lint_finding.h"

namespace olvex_tools {

// One finding per kind and file.
std::vector<LintFinding> lint_coco(const CocoTruth& truth, const std::string& truth_path,
                                   const std::vector<CocoResult>& results,
                                   const std::string& result_path);

}  // namespace olvex_tools

#endif  // TOOLS_EVAL_COCO_COCO_LINT_H
