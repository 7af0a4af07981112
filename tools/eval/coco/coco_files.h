// coco_files.h - reads the two files of eval coco: the truth, in COCO's instances format, and a
// result, in COCO's results format.
// Read coco_data.h for what comes out.
#ifndef TOOLS_EVAL_COCO_COCO_FILES_H
#define TOOLS_EVAL_COCO_COCO_FILES_H

#include <string>
#include <vector>

#include "tools/common/evaluation.h"
#include "tools/eval/coco/coco_data.h"

namespace olvex_tools {

// Each throws ToolError (kInputError) that names file, item and member of what is wrong.
CocoTruth read_coco_truth(const std::string& path);
std::vector<CocoResult> read_coco_results(const std::string& path);

// The truth of these classes alone, each given by its id or its name. Throws ToolError (kUsageError)
// for one that the truth does not have.
CocoTruth restricted_to(const CocoTruth& truth, const std::vector<std::string>& classes);

// The results of the truth's classes, in their order. Throws ToolError (kInputError) for a picture
// that the truth does not have; path names the results.
std::vector<ResultBox> known_results(const CocoTruth& truth, const std::vector<CocoResult>& results,
                                     const std::string& path);

// What is usually a mistake in the files and would spoil the metrics without a word: ids that are shifted,
// corners in place of sizes, boxes that count for nothing. One finding per kind and file. In coco_lint.cpp.
std::vector<LintFinding> lint_coco(const CocoTruth& truth, const std::string& truth_path,
                                   const std::vector<CocoResult>& results,
                                   const std::string& result_path);

// Of these the ids alone. In coco_shift_lint.cpp.
void lint_shifted_ids(const CocoTruth& truth, const std::string& truth_path,
                      const std::vector<CocoResult>& results, const std::string& result_path,
                      std::vector<LintFinding>* findings);

}  // namespace olvex_tools

#endif  // TOOLS_EVAL_COCO_COCO_FILES_H
