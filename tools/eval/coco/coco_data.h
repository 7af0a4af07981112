// coco_data.h - what eval coco compares: the boxes of the truth and those of a result.
// coco_files.h reads them, coco_matching.h pairs them.
#ifndef TOOLS_EVAL_COCO_COCO_DATA_H
#define TOOLS_EVAL_COCO_COCO_DATA_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/common/box.h"

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

// A result as its file has it, with ids that the truth need not know.
struct CocoResult {
  std::int64_t image_id = 0;
  std::int64_t category_id = 0;
  Box box;
  double score = 0;
};

// A result whose picture and class the truth knows.
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

}  // namespace olvex_tools

#endif  // TOOLS_EVAL_COCO_COCO_DATA_H
