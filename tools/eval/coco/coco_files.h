// coco_files.h - reads the two files of eval coco: the truth, in COCO's instances format, and a
// result, in COCO's results format.
// Read coco_data.h for what comes out, coco_lint.h for doubts about it.
#ifndef TOOLS_EVAL_COCO_COCO_FILES_H
#define TOOLS_EVAL_COCO_COCO_FILES_H

#include <string>
#include <vector>

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

}  // namespace olvex_tools

#endif  // TOOLS_EVAL_COCO_COCO_FILES_H
