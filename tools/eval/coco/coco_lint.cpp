// SPDX-License-Identifier: Apache-2.0
// coco_lint.cpp - one function per kind of warning. Declared in coco.h; coco_shift_lint.cpp finds ids
// that fit better when shifted.
#include "tools/eval/coco/coco.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <tuple>
#include <utility>

#include "tools/common/text.h"

namespace olvex_tools {

namespace {

// ---- single boxes -----------------------------------------------------------------------------

// A box of either file with what its warnings need.
struct PlacedBox {
  Box box;
  const CocoPicture* picture;  // null: the truth has no such picture
  const char* list;            // what messages call it
  std::size_t number;          // in that list, from 0
};

std::string number_text(double value) {
  return format("%.6g", value);
}

std::string box_text(const Box& box) {
  return "[" + number_text(box.x) + ", " + number_text(box.y) + ", " + number_text(box.width) +
         ", " + number_text(box.height) + "]";
}

bool has_size(const PlacedBox& placed) {
  return placed.picture != nullptr && placed.picture->width > 0 && placed.picture->height > 0;
}

// Edges that are rounded to whole pixels lie outside by less.
bool reaches_out(const PlacedBox& placed) {
  constexpr double kTolerance = 1;  // pixels
  const Box& box = placed.box;
  return has_size(placed) && (box.x < -kTolerance || box.y < -kTolerance ||
                              box.x + box.width > placed.picture->width + kTolerance ||
                              box.y + box.height > placed.picture->height + kTolerance);
}

// Whether the third and fourth number make sense as the right and lower edge.
bool could_be_corners(const PlacedBox& placed) {
  constexpr double kTolerance = 1;  // pixels
  const Box& box = placed.box;
  return has_size(placed) && box.width > box.x && box.height > box.y &&
         box.width <= placed.picture->width + kTolerance &&
         box.height <= placed.picture->height + kTolerance;
}

// Counts boxes of a kind and keeps the first for an example.
class Tally {
 public:
  void add(const PlacedBox& placed) {
    if (count_++ == 0) {
      example_ = placed;
    }
  }
  std::size_t count() const { return count_; }
  std::string example() const {
    return std::string(example_.list) + " [" + std::to_string(example_.number) + "] is " +
           box_text(example_.box);
  }
  const PlacedBox& first() const { return example_; }

 private:
  std::size_t count_ = 0;
  PlacedBox example_ = {};
};

// The findings of one file.
struct FileFindings {
  const std::string& file;
  std::vector<LintFinding>* all;

  // one, many: what there is of so many, as in "box has", "boxes have".
  void add(const char* kind, std::size_t count, const char* one, const char* many,
           const std::string& rest) const {
    all->push_back({kind, file, count, counted(count, one, many) + rest});
  }
};

void lint_boxes(const std::vector<PlacedBox>& boxes, const FileFindings& findings) {
  Tally empty;
  Tally outside;
  std::size_t corners = 0;
  for (const PlacedBox& placed : boxes) {
    if (!(placed.box.width > 0 && placed.box.height > 0)) {
      empty.add(placed);
    }
    if (reaches_out(placed)) {
      outside.add(placed);
    }
    corners += could_be_corners(placed) ? 1u : 0u;
  }
  if (empty.count() > 0) {
    findings.add("boxes_without_area", empty.count(), "box has", "boxes have",
                 " no area or a negative size (" + empty.example() +
                     "), so nothing can overlap. Write bbox as [x, y, width, height].");
  }
  // With real sizes most boxes in the right half of a picture are narrower than their left edge.
  constexpr std::size_t kFewest = 2;
  const bool all_corners = corners * 100 >= boxes.size() * 99;
  if (outside.count() >= kFewest && outside.count() * 5 >= boxes.size() && all_corners) {
    findings.add("corners_instead_of_size", outside.count(), "box reaches", "boxes reach",
                 " beyond the picture, but would lie within if bbox were the corners "
                 "[x1, y1, x2, y2] (" +
                     outside.example() + "). Write [x1, y1, x2 - x1, y2 - y1].");
  } else if (outside.count() > 0) {
    const CocoPicture& picture = *outside.first().picture;
    findings.add("boxes_outside_picture", outside.count(), "box reaches", "boxes reach",
                 " beyond the picture (" + outside.example() + ", picture " +
                     std::to_string(picture.id) + " has " + number_text(picture.width) + "x" +
                     number_text(picture.height) +
                     "). Check that boxes and pictures have one scale, and clip boxes to "
                     "the picture.");
  }
}

void lint_annotation_ids(const CocoTruth& truth, const FileFindings& findings) {
  std::set<std::int64_t> seen;
  std::size_t count = 0;
  std::int64_t example = 0;
  for (const TruthBox& box : truth.boxes) {
    if (box.id && !seen.insert(*box.id).second && count++ == 0) {
      example = *box.id;
    }
  }
  if (count > 0) {
    findings.add("duplicate_annotation_ids", count, "annotation has", "annotations have",
                 " the id of an earlier one (id " + std::to_string(example) +
                     "). Give each another id, or remove what was written twice.");
  }
}

void lint_scores(const std::vector<CocoResult>& results, const FileFindings& findings) {
  const auto wrong = [](const CocoResult& result) {
    return !(result.score >= 0 && result.score <= 1);
  };
  const auto count = static_cast<std::size_t>(std::count_if(results.begin(), results.end(), wrong));
  if (count == 0) {
    return;
  }
  const auto example = std::find_if(results.begin(), results.end(), wrong);
  findings.add("scores_out_of_range", count, "score lies", "scores lie",
               " outside 0 to 1 (result [" + std::to_string(example - results.begin()) + "] has " +
                   number_text(example->score) +
                   "). Metrics need the order alone, but --confusion-score and the worst "
                   "pictures need probabilities.");
}

void lint_duplicates(const std::vector<CocoResult>& results, const FileFindings& findings) {
  using Key = std::tuple<std::int64_t, std::int64_t, double, double, double, double>;
  std::map<Key, std::vector<std::size_t>> equal_results;
  for (std::size_t i = 0; i < results.size(); ++i) {
    const Box& box = results[i].box;
    equal_results[{results[i].image_id, results[i].category_id, box.x, box.y, box.width,
                   box.height}]
        .push_back(i);
  }
  std::size_t count = 0;
  std::size_t example = 0;
  for (const auto& [key, indices] : equal_results) {
    if (count == 0 && indices.size() > 1) {
      example = indices[1];
    }
    count += indices.size() - 1;
  }
  if (count > 0) {
    findings.add("duplicate_results", count, "result repeats", "results repeat",
                 " picture, class and box of an earlier one (result [" + std::to_string(example) +
                     "]); each counts as a false box. Were two runs written into one "
                     "file?");
  }
}

// ---- boxes per picture ------------------------------------------------------------------------

// The most boxes with one key, if more than the metrics look at; count is how many keys have more.
template <typename Key>
std::optional<std::pair<Key, std::size_t>> crowded(const std::map<Key, std::size_t>& boxes,
                                                   std::size_t* count) {
  std::optional<std::pair<Key, std::size_t>> most;
  for (const auto& [key, number] : boxes) {
    if (number > kDetectionsCounted) {
      ++*count;
      if (!most || number > most->second) {
        most = {key, number};
      }
    }
  }
  return most;
}

void lint_numbers(const std::vector<CocoResult>& results, const FileFindings& findings) {
  std::map<std::int64_t, std::size_t> per_picture;
  std::map<std::pair<std::int64_t, std::int64_t>, std::size_t> per_class;
  for (const CocoResult& result : results) {
    ++per_picture[result.image_id];
    ++per_class[{result.image_id, result.category_id}];
  }
  std::size_t pictures = 0;
  if (const auto most = crowded(per_picture, &pictures)) {
    findings.add("many_boxes_in_picture", pictures, "picture has", "pictures have",
                 " more than 100 results (picture " + std::to_string(most->first) + " has " +
                     std::to_string(most->second) +
                     "). The library reports far fewer on a camera; raise the threshold "
                     "of the run to measure what it will show.");
  }
  std::size_t cells = 0;
  if (const auto most = crowded(per_class, &cells)) {
    findings.add("many_boxes_of_class", cells, "picture has", "pictures have",
                 " more than 100 results of one class (picture " +
                     std::to_string(most->first.first) + " has " + std::to_string(most->second) +
                     " of class " + std::to_string(most->first.second) +
                     "). Only the best 100 count; raise the threshold of the run.");
  }
}

}  // namespace

std::vector<LintFinding> lint_coco(const CocoTruth& truth, const std::string& truth_path,
                                   const std::vector<CocoResult>& results,
                                   const std::string& result_path) {
  std::vector<LintFinding> findings;
  const FileFindings of_truth = {truth_path, &findings};
  const FileFindings of_result = {result_path, &findings};
  std::vector<PlacedBox> placed;
  for (const TruthBox& box : truth.boxes) {
    placed.push_back({box.box, &truth.pictures[box.picture], "annotations", placed.size()});
  }
  lint_boxes(placed, of_truth);
  lint_annotation_ids(truth, of_truth);
  placed.clear();
  for (const CocoResult& result : results) {
    const std::optional<std::size_t> picture = index_of_id(truth.pictures, result.image_id);
    placed.push_back(
        {result.box, picture ? &truth.pictures[*picture] : nullptr, "result", placed.size()});
  }
  lint_boxes(placed, of_result);
  lint_scores(results, of_result);
  lint_duplicates(results, of_result);
  lint_numbers(results, of_result);
  lint_shifted_ids(truth, truth_path, results, result_path, &findings);
  return findings;
}

}  // namespace olvex_tools
