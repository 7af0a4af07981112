// SPDX-License-Identifier: Apache-2.0
// coco_shift_lint.cpp - ids of a result that seem to be shifted against those of the truth: more truth boxes
// are found, or all ids are known, when they are taken for others. Declared in coco.h.
#include <algorithm>
#include <functional>
#include <set>
#include <tuple>
#include <utility>

#include "tools/common/text.h"
#include "tools/eval/coco/coco.h"

namespace olvex_tools {

namespace {

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

// Whether the guess explains ids that the truth does not have: all of them, when right.
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
    for (const IdGuess& guess : shifted_ids(truth_.pictures)) {
      const std::size_t found = boxes_found(truth_, index_, guess, classes_);
      const bool explained = explains_ids(image_ids_, truth_.pictures.size(), pictures_, guess);
      if ((explained && found >= plain) || is_massively_more(found, plain)) {
        findings->push_back(shift("image", image_ids_, truth_.pictures, guess, "shifted by one, ",
                                  found, plain,
                                  "Number pictures alike in both files; olvex-det run counts "
                                  "frames from 1."));
        break;
      }
    }
    std::vector<IdGuess> guesses = shifted_ids(truth_.categories);
    guesses.push_back({[](std::size_t i) { return static_cast<std::int64_t>(i); },
                       "places, counted from 0, among"});
    for (const IdGuess& guess : guesses) {
      const std::size_t found = boxes_found(truth_, index_, pictures_, guess);
      const bool explained = explains_ids(category_ids_, truth_.categories.size(), classes_, guess);
      if ((explained && found > plain) || is_massively_more(found, plain)) {
        findings->push_back(shift("class", category_ids_, truth_.categories, guess, "taken so, ",
                                  found, plain,
                                  "Number the truth's categories from 0 in the order of the "
                                  "model's classes."));
        return;
      }
    }
    lint_unknown_classes(findings);
  }

 private:
  template <typename Element>
  LintFinding shift(const std::string& what, const std::set<std::int64_t>& ids,
                    const std::vector<Element>& elements, const IdGuess& guess, const char* how,
                    std::size_t found, std::size_t plain, const char* advice) const {
    return {what + "_ids_shifted", result_path_, ids.size(),
            what + " ids seem to be " + guess.what + " those of " + truth_path_ + " (" +
                std::to_string(*ids.begin()) + " to " + std::to_string(*ids.rbegin()) +
                " against " + std::to_string(elements.front().id) + " to " +
                std::to_string(elements.back().id) + "): " + how + std::to_string(found) +
                " truth boxes are found, as they are " + std::to_string(plain) + ". " + advice};
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

void lint_shifted_ids(const CocoTruth& truth, const std::string& truth_path,
                      const std::vector<CocoResult>& results, const std::string& result_path,
                      std::vector<LintFinding>* findings) {
  ShiftLint(truth, truth_path, results, result_path).lint(findings);
}

}  // namespace olvex_tools
