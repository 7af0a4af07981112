// coco_files.h - reads the two files of eval coco: the truth, in COCO's instances format, and a
// result, in COCO's results format.
// What comes out is paired in coco_matching.cpp.
#ifndef TOOLS_EVAL_COCO_COCO_FILES_H
#define TOOLS_EVAL_COCO_COCO_FILES_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/common/box.h"
#include "tools/common/evaluation.h"

namespace olvex_tools {

struct CocoPicture {
  std::int64_t id = 0;
  double width = 0;   // pixels; 0: the file does not say
  double height = 0;  // pixels; 0: the file does not say
  std::string file_name;
};

struct CocoCategory {
  std::int64_t id = 0;
  std::string name;
};

struct TruthBox {
  std::optional<std::int64_t> id;
  std::size_t picture = 0;   // index in CocoTruth::pictures
  std::size_t category = 0;  // index in CocoTruth::categories
  Box box;
  double area = 0;       // square pixels; of the object, which may fill less than its box
  bool crowd = false;    // a box around many objects, which may be found any number of times
  bool ignored = false;  // neither missed when not found nor counted when found; so is a crowd
};

struct CocoTruth {
  std::vector<CocoPicture> pictures;     // by ascending id
  std::vector<CocoCategory> categories;  // by ascending id
  std::vector<TruthBox> boxes;           // in the order of the file
};

// A result as its file has it, with ids that the truth need not have.
struct CocoResult {
  std::int64_t image_id = 0;
  std::int64_t category_id = 0;
  Box box;
  double score = 0;
};

// A result whose picture and class the truth has.
struct ResultBox {
  std::size_t picture = 0;   // index in CocoTruth::pictures
  std::size_t category = 0;  // index in CocoTruth::categories
  Box box;
  double score = 0;
};

// The index of the element with that id. Requires: elements ascend by id.
template <typename Element>
std::optional<std::size_t> index_of_id(const std::vector<Element>& elements, std::int64_t id) {
  std::size_t low = 0;
  std::size_t high = elements.size();
  while (low < high) {
    const std::size_t middle = low + (high - low) / 2;
    if (elements[middle].id < id) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  if (low == elements.size() || elements[low].id != id) {
    return std::nullopt;
  }
  return low;
}

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

// What is usually a mistake in the files and would falsify the metrics unnoticed: ids that are shifted,
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
