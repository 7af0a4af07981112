// coco_lint.cpp - one function per kind of doubt, and the search for ids that fit better when
// shifted. Read coco_lint.h first.
#include "tools/eval/coco/coco_lint.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <tuple>
#include <utility>

#include "tools/eval/coco/coco_matching.h"
#include "tools/eval/coco/coco_metrics.h"
#include "tools/eval/coco/coco_picture_errors.h"

namespace olvex_tools {

namespace {

// ---- single boxes -----------------------------------------------------------------------------

// A box of either file with what its doubts need.
struct PlacedBox {
  Box box;
  const CocoPicture* picture;  // null: the truth has no such picture
  const char* list;            // what messages call it
  std::size_t number;          // in that list, from 0
};

std::string number_text(double value) {
  char text[64];
  std::snprintf(text, sizeof text, "%.6g", value);
  return text;
}

std::string box_text(const Box& box) {
  return "[" + number_text(box.x) + ", " + number_text(box.y) + ", " + number_text(box.width) +
         ", " + number_text(box.height) + "]";
}

std::string counted(std::size_t count, const std::string& one, const std::string& many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
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

void lint_boxes(const std::vector<PlacedBox>& boxes, const std::string& file,
                std::vector<LintFinding>* findings) {
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
    findings->push_back({"boxes_without_area", file, empty.count(),
                         counted(empty.count(), "box has", "boxes have") +
                             " no area or a negative size (" + empty.example() +
                             "), so nothing can overlap. Write bbox as [x, y, width, height]."});
  }
  // With real sizes most boxes in the right half of a picture are narrower than their left edge.
  constexpr std::size_t kFewest = 2;
  const bool all_corners = corners * 100 >= boxes.size() * 99;
  if (outside.count() >= kFewest && outside.count() * 5 >= boxes.size() && all_corners) {
    findings->push_back({"corners_instead_of_size", file, outside.count(),
                         counted(outside.count(), "box reaches", "boxes reach") +
                             " beyond the picture, but would lie within if bbox were the corners "
                             "[x1, y1, x2, y2] (" +
                             outside.example() + "). Write [x1, y1, x2 - x1, y2 - y1]."});
  } else if (outside.count() > 0) {
    const CocoPicture& picture = *outside.first().picture;
    findings->push_back({"boxes_outside_picture", file, outside.count(),
                         counted(outside.count(), "box reaches", "boxes reach") +
                             " beyond the picture (" + outside.example() + ", picture " +
                             std::to_string(picture.id) + " has " + number_text(picture.width) +
                             "x" + number_text(picture.height) +
                             "). Check that boxes and pictures have one scale, and clip boxes to "
                             "the picture."});
  }
}

void lint_annotation_ids(const CocoTruth& truth, const std::string& file,
                         std::vector<LintFinding>* findings) {
  std::set<std::int64_t> seen;
  std::size_t count = 0;
  std::int64_t example = 0;
  for (const TruthBox& box : truth.boxes) {
    if (box.id && !seen.insert(*box.id).second && count++ == 0) {
      example = *box.id;
    }
  }
  if (count > 0) {
    findings->push_back({"duplicate_annotation_ids", file, count,
                         counted(count, "annotation has", "annotations have") +
                             " the id of an earlier one (id " + std::to_string(example) +
                             "). Give each an id of its own, or remove what was written twice."});
  }
}

void lint_scores(const std::vector<CocoResult>& results, const std::string& file,
                 std::vector<LintFinding>* findings) {
  const auto wrong = [](const CocoResult& result) {
    return !(result.score >= 0 && result.score <= 1);
  };
  const auto count = static_cast<std::size_t>(std::count_if(results.begin(), results.end(), wrong));
  if (count == 0) {
    return;
  }
  const auto example = std::find_if(results.begin(), results.end(), wrong);
  findings->push_back({"scores_out_of_range", file, count,
                       counted(count, "score lies", "scores lie") + " outside 0 to 1 (result [" +
                           std::to_string(example - results.begin()) + "] has " +
                           number_text(example->score) +
                           "). Metrics need the order alone, but --confusion-score and the worst "
                           "pictures need probabilities."});
}

void lint_duplicates(const std::vector<CocoResult>& results, const std::string& file,
                     std::vector<LintFinding>* findings) {
  const auto key = [&](std::size_t i) {
    const CocoResult& result = results[i];
    return std::make_tuple(result.image_id, result.category_id, result.box.x, result.box.y,
                           result.box.width, result.box.height);
  };
  std::vector<std::size_t> order(results.size());
  for (std::size_t i = 0; i < order.size(); ++i) {
    order[i] = i;
  }
  std::sort(order.begin(), order.end(), [&](std::size_t left, std::size_t right) {
    return std::make_pair(key(left), left) < std::make_pair(key(right), right);
  });
  std::size_t count = 0;
  std::size_t example = 0;
  for (std::size_t i = 1; i < order.size(); ++i) {
    if (key(order[i]) == key(order[i - 1]) && count++ == 0) {
      example = order[i];
    }
  }
  if (count > 0) {
    findings->push_back({"duplicate_results", file, count,
                         counted(count, "result repeats", "results repeat") +
                             " picture, class and box of an earlier one (result [" +
                             std::to_string(example) +
                             "]); each counts as a false box. Were two runs written into one "
                             "file?"});
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

void lint_numbers(const std::vector<CocoResult>& results, const std::string& file,
                  std::vector<LintFinding>* findings) {
  std::map<std::int64_t, std::size_t> per_picture;
  std::map<std::pair<std::int64_t, std::int64_t>, std::size_t> per_class;
  for (const CocoResult& result : results) {
    ++per_picture[result.image_id];
    ++per_class[{result.image_id, result.category_id}];
  }
  std::size_t pictures = 0;
  if (const auto most = crowded(per_picture, &pictures)) {
    findings->push_back({"many_boxes_in_picture", file, pictures,
                         counted(pictures, "picture has", "pictures have") +
                             " more than 100 results (picture " + std::to_string(most->first) +
                             " has " + std::to_string(most->second) +
                             "). The library reports far fewer on a camera; raise the threshold "
                             "of the run to measure what it will show."});
  }
  std::size_t cells = 0;
  if (const auto most = crowded(per_class, &cells)) {
    findings->push_back({"many_boxes_of_class", file, cells,
                         counted(cells, "picture has", "pictures have") +
                             " more than 100 results of one class (picture " +
                             std::to_string(most->first.first) + " has " +
                             std::to_string(most->second) + " of class " +
                             std::to_string(most->first.second) +
                             "). Only the best 100 count; raise the threshold of the run."});
  }
}

// ---- shifted ids ------------------------------------------------------------------------------

// Results by picture and class, the best first, for looking up what may match a truth box.
class ResultIndex {
 public:
  explicit ResultIndex(const std::vector<CocoResult>& results) {
    for (const CocoResult& result : results) {
      sorted_.push_back(&result);
    }
    std::stable_sort(sorted_.begin(), sorted_.end(), [](const auto* left, const auto* right) {
      return std::make_tuple(left->image_id, left->category_id, -left->score) <
             std::make_tuple(right->image_id, right->category_id, -right->score);
    });
  }

  bool finds(std::int64_t image_id, std::int64_t category_id, const TruthBox& truth) const {
    const auto wanted = std::make_pair(image_id, category_id);
    const auto key = [](const CocoResult* result) {
      return std::make_pair(result->image_id, result->category_id);
    };
    auto candidate = std::lower_bound(
        sorted_.begin(), sorted_.end(), wanted,
        [&](const CocoResult* result, const auto& value) { return key(result) < value; });
    for (std::size_t i = 0; i < kDetectionsCounted; ++i, ++candidate) {
      if (candidate == sorted_.end() || key(*candidate) != wanted) {
        return false;
      }
      if (overlap((*candidate)->box, truth.box, truth.crowd) >= kErrorOverlap) {
        return true;
      }
    }
    return false;
  }

 private:
  std::vector<const CocoResult*> sorted_;
};

// A guess at how the ids of a result and those of the truth belong together.
struct IdGuess {
  // The result's id for an element of the truth, given its index.
  std::function<std::int64_t(std::size_t)> result_id;
  std::string what;  // "one less than", for the message
};

template <typename Element>
std::vector<IdGuess> shifted_ids(const std::vector<Element>& elements) {
  return {{[&elements](std::size_t i) { return elements[i].id - 1; }, "one less than"},
          {[&elements](std::size_t i) { return elements[i].id + 1; }, "one more than"}};
}

// Truth boxes that some result finds, with the ids as guessed.
std::size_t boxes_found(const CocoTruth& truth, const ResultIndex& results, const IdGuess& pictures,
                        const IdGuess& classes) {
  return static_cast<std::size_t>(
      std::count_if(truth.boxes.begin(), truth.boxes.end(), [&](const TruthBox& box) {
        return results.finds(pictures.result_id(box.picture), classes.result_id(box.category), box);
      }));
}

// Whether the guess explains ids that the truth does not know: all of them, once guessed right.
bool explains_ids(const std::set<std::int64_t>& result_ids, std::size_t elements,
                  const IdGuess& plain, const IdGuess& guess) {
  std::set<std::int64_t> known;
  std::set<std::int64_t> guessed;
  for (std::size_t i = 0; i < elements; ++i) {
    known.insert(plain.result_id(i));
    guessed.insert(guess.result_id(i));
  }
  const auto all_in = [&](const std::set<std::int64_t>& ids) {
    return std::includes(ids.begin(), ids.end(), result_ids.begin(), result_ids.end());
  };
  return !all_in(known) && all_in(guessed);
}

// Neighbouring pictures look alike and neighbouring classes get mixed up, so a few more boxes prove
// nothing.
bool is_massively_more(std::size_t found, std::size_t before) {
  constexpr std::size_t kFewest = 4;
  return found >= kFewest && found > 2 * before;
}

std::string id_range(const std::set<std::int64_t>& ids) {
  return std::to_string(*ids.begin()) + " to " + std::to_string(*ids.rbegin());
}

class ShiftLint {
 public:
  ShiftLint(const CocoTruth& truth, const std::string& truth_path,
            const std::vector<CocoResult>& results, const std::string& result_path)
      : truth_(truth), truth_path_(truth_path), result_path_(result_path), index_(results) {
    for (const CocoResult& result : results) {
      image_ids_.insert(result.image_id);
      category_ids_.insert(result.category_id);
    }
    pictures_.result_id = [this](std::size_t i) { return truth_.pictures[i].id; };
    classes_.result_id = [this](std::size_t i) { return truth_.categories[i].id; };
  }

  void lint(std::vector<LintFinding>* findings) const {
    if (image_ids_.empty() || truth_.pictures.empty() || truth_.categories.empty()) {
      return;
    }
    const std::size_t plain = boxes_found(truth_, index_, pictures_, classes_);
    lint_pictures(plain, findings);
    if (!lint_shifted_classes(plain, findings)) {
      lint_unknown_classes(findings);
    }
  }

 private:
  void lint_pictures(std::size_t plain, std::vector<LintFinding>* findings) const {
    for (const IdGuess& guess : shifted_ids(truth_.pictures)) {
      const std::size_t found = boxes_found(truth_, index_, guess, classes_);
      const bool explained = explains_ids(image_ids_, truth_.pictures.size(), pictures_, guess);
      if ((explained && found >= plain) || is_massively_more(found, plain)) {
        findings->push_back(
            {"image_ids_shifted", result_path_, image_ids_.size(),
             "image ids seem to be " + guess.what + " those of " + truth_path_ + " (" +
                 id_range(image_ids_) + " against " + std::to_string(truth_.pictures.front().id) +
                 " to " + std::to_string(truth_.pictures.back().id) + "): shifted by one, " +
                 std::to_string(found) + " truth boxes are found, as they are " +
                 std::to_string(plain) +
                 ". Number pictures alike in both files; olvex-det run counts frames from 1."});
        return;
      }
    }
  }

  bool lint_shifted_classes(std::size_t plain, std::vector<LintFinding>* findings) const {
    std::vector<IdGuess> guesses = shifted_ids(truth_.categories);
    guesses.push_back({[](std::size_t i) { return static_cast<std::int64_t>(i); },
                       "places, counted from 0, among"});
    for (const IdGuess& guess : guesses) {
      const std::size_t found = boxes_found(truth_, index_, pictures_, guess);
      const bool explained = explains_ids(category_ids_, truth_.categories.size(), classes_, guess);
      if ((explained && found > plain) || is_massively_more(found, plain)) {
        findings->push_back(
            {"class_ids_shifted", result_path_, category_ids_.size(),
             "class ids seem to be " + guess.what + " those of " + truth_path_ + " (" +
                 id_range(category_ids_) + " against " +
                 std::to_string(truth_.categories.front().id) + " to " +
                 std::to_string(truth_.categories.back().id) + "): taken so, " +
                 std::to_string(found) + " truth boxes are found, as they are " +
                 std::to_string(plain) +
                 ". Number the truth's categories from 0 in the order of the model's classes."});
        return true;
      }
    }
    return false;
  }

  void lint_unknown_classes(std::vector<LintFinding>* findings) const {
    std::set<std::int64_t> unknown;
    for (const std::int64_t id : category_ids_) {
      if (!index_of_id(truth_.categories, id)) {
        unknown.insert(id);
      }
    }
    if (!unknown.empty()) {
      findings->push_back({"unknown_classes", result_path_, unknown.size(),
                           counted(unknown.size(), "class id is", "class ids are") +
                               " not in the categories of " + truth_path_ + " (class " +
                               std::to_string(*unknown.begin()) +
                               "); their results are left out. Add the classes to the truth if "
                               "they are annotated."});
    }
  }

  const CocoTruth& truth_;
  const std::string& truth_path_;
  const std::string& result_path_;
  ResultIndex index_;
  std::set<std::int64_t> image_ids_;
  std::set<std::int64_t> category_ids_;
  IdGuess pictures_;
  IdGuess classes_;
};

}  // namespace

std::vector<LintFinding> lint_coco(const CocoTruth& truth, const std::string& truth_path,
                                   const std::vector<CocoResult>& results,
                                   const std::string& result_path) {
  std::vector<LintFinding> findings;
  std::vector<PlacedBox> placed;
  for (const TruthBox& box : truth.boxes) {
    placed.push_back({box.box, &truth.pictures[box.picture], "annotations", placed.size()});
  }
  lint_boxes(placed, truth_path, &findings);
  lint_annotation_ids(truth, truth_path, &findings);
  placed.clear();
  for (const CocoResult& result : results) {
    const std::optional<std::size_t> picture = index_of_id(truth.pictures, result.image_id);
    placed.push_back(
        {result.box, picture ? &truth.pictures[*picture] : nullptr, "result", placed.size()});
  }
  lint_boxes(placed, result_path, &findings);
  lint_scores(results, result_path, &findings);
  lint_duplicates(results, result_path, &findings);
  lint_numbers(results, result_path, &findings);
  ShiftLint(truth, truth_path, results, result_path).lint(&findings);
  return findings;
}

}  // namespace olvex_tools
