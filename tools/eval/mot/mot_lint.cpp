// SPDX-License-Identifier: Apache-2.0
// mot_lint.cpp - one function per kind of mistake. Declared in mot.h.

#include <algorithm>
#include <limits>
#include <set>
#include <utility>

#include "tools/common/text.h"
#include "tools/eval/mot/mot.h"

namespace olvex_tools {

namespace {

constexpr std::size_t kManyBoxes = 100;  // in a frame; more than a scene for detectors has
// A shift is a mistake when it makes that many more of the truth's boxes match.
constexpr long kClearGain = 5;
constexpr long kClearGainPercent = 10;

std::string row_text(const MotRow& row) {
  return "row " + std::to_string(row.line) + " (frame " + std::to_string(row.frame) + ", id " +
         std::to_string(row.id) + ")";
}

class Lint {
 public:
  Lint(const MotFile& truth, MotFile* result) : truth_(truth), result_(*result) {}

  std::vector<LintFinding> run() {
    find_empty_files();
    find_repeated_ids();
    find_frame_zero(truth_, result_);
    find_frame_zero(result_, truth_);
    find_crowded_frame(truth_);
    find_crowded_frame(result_);
    find_empty_boxes(truth_);
    find_empty_boxes(result_);
    find_frames_beyond_truth();
    find_shifts();
    return std::move(findings_);
  }

 private:
  void add(const char* kind, const MotFile& file, const std::string& message) {
    findings_.push_back({kind, file.path, 0, message});
  }

  void find_empty_files() {
    if (truth_.rows.empty()) {
      add("empty_truth", truth_,
          "there are no rows, so no metric is defined. Is it the right file?");
    }
    if (result_.rows.empty()) {
      add("empty_result", result_,
          "there are no rows. Was it written by olvex-det run --track --mot, and to the end? A "
          "lower --threshold finds more.");
    }
  }

  void find_repeated_ids() {
    std::vector<MotRow> kept;
    std::vector<MotRow> repeated;
    std::set<long> ids;
    for (const MotRow& row : result_.rows) {
      if (!kept.empty() && kept.back().frame != row.frame) {
        ids.clear();
      }
      (ids.insert(row.id).second ? kept : repeated).push_back(row);
    }
    if (!repeated.empty()) {
      add("repeated_ids", result_,
          counted(repeated.size(), "row repeats an id of its", "rows repeat an id of their") +
              " frame, first " + row_text(repeated.front()) +
              (repeated.size() == 1 ? "; it is" : "; they are") +
              " left out. Are two results in the file? Name a different file for each.");
    }
    result_.rows = std::move(kept);
  }

  void find_frame_zero(const MotFile& file, const MotFile& other) {
    if (!file.rows.empty() && !other.rows.empty() && file.rows.front().frame == 0 &&
        other.rows.front().frame > 0) {
      add("frames_from_zero", file,
          "frames are numbered from 0, see " + row_text(file.rows.front()) + "; in " + other.path +
              " they are from 1. Add 1 to the first column.");
    }
  }

  void find_crowded_frame(const MotFile& file) {
    for (std::size_t i = kManyBoxes; i < file.rows.size(); ++i) {
      const long frame = file.rows[i].frame;
      if (file.rows[i - kManyBoxes].frame == frame) {
        add("many_boxes_in_frame", file,
            "frame " + std::to_string(frame) + " has more than " + std::to_string(kManyBoxes) +
                " boxes. Is the first column the frame's number? If boxes of low score fill it, "
                "raise --threshold.");
        return;
      }
    }
  }

  void find_empty_boxes(const MotFile& file) {
    const auto is_empty = [](const MotRow& row) {
      return row.box.width <= 0 || row.box.height <= 0;
    };
    const auto first = std::find_if(file.rows.begin(), file.rows.end(), is_empty);
    if (first != file.rows.end()) {
      const auto count = std::count_if(first, file.rows.end(), is_empty);
      add("boxes_without_area", file,
          counted(count, "box", "boxes") + " of a width or height of 0 or less, first " +
              row_text(*first) + (count == 1 ? "; it matches" : "; they match") +
              " nothing. Columns 3 to 6 are left, top, width and height, not corners.");
    }
  }

  void find_frames_beyond_truth() {
    if (truth_.rows.empty()) {
      return;
    }
    const long last = truth_.rows.back().frame;
    const auto first = std::find_if(result_.rows.begin(), result_.rows.end(),
                                    [&](const MotRow& row) { return row.frame > last; });
    if (first != result_.rows.end()) {
      const auto count = result_.rows.end() - first;
      add("frames_beyond_truth", result_,
          counted(count, "box lies", "boxes lie") + " behind the truth's last frame " +
              std::to_string(last) + ", first " + row_text(*first) +
              (count == 1 ? "; it counts" : "; they count") +
              " as false. Are both files of one clip? To stop in time, use run --limit " +
              std::to_string(last) + ".");
    }
  }

  // How many of the truth's boxes match one of the results when those get another frame, for each
  // of the given additions to the results' classes.
  std::vector<long> matches_when_shifted(long frames, const std::vector<int>& additions) const {
    std::vector<long> matches(additions.size(), 0);
    auto result = result_.rows.cbegin();
    for (auto truth = truth_.rows.cbegin(); truth != truth_.rows.cend();) {
      const auto truths = rows_of_frame(truth, truth_.rows.end(), truth->frame);
      const auto results = rows_of_frame(result, result_.rows.end(), truth->frame - frames);
      add_matches(truths, results, additions, &matches);
      truth = truths.second;
      result = results.second;
    }
    return matches;
  }

  using Rows = std::pair<std::vector<MotRow>::const_iterator, std::vector<MotRow>::const_iterator>;

  // Requires: frames ascend from begin to end.
  static Rows rows_of_frame(std::vector<MotRow>::const_iterator begin,
                            std::vector<MotRow>::const_iterator end, long frame) {
    begin = std::find_if(begin, end, [&](const MotRow& row) { return row.frame >= frame; });
    return {begin, std::find_if(begin, end, [&](const MotRow& row) { return row.frame > frame; })};
  }

  static std::vector<Box> boxes_of(const Rows& rows) {
    std::vector<Box> boxes;
    std::transform(rows.first, rows.second, std::back_inserter(boxes),
                   [](const MotRow& row) { return row.box; });
    return boxes;
  }

  static void add_matches(const Rows& truths, const Rows& results,
                          const std::vector<int>& additions, std::vector<long>* matches) {
    const auto pairs = matching_pairs(overlaps_between(boxes_of(truths), boxes_of(results)));
    constexpr std::size_t kNone = std::numeric_limits<std::size_t>::max();
    std::vector<std::size_t> counted(additions.size(), kNone);  // the row counted last
    for (const WeightedPair& pair : pairs) {
      const int wanted = (truths.first + static_cast<long>(pair.row))->class_id;
      const int found = (results.first + static_cast<long>(pair.column))->class_id;
      for (std::size_t i = 0; i < additions.size(); ++i) {
        if (found + additions[i] == wanted && counted[i] != pair.row) {
          counted[i] = pair.row;
          ++(*matches)[i];
        }
      }
    }
  }

  static bool is_clear_gain(long now, long shifted) {
    return shifted >= now + kClearGain && shifted * 100 >= now * (100 + kClearGainPercent);
  }

  void find_shifts() {
    const std::vector<long> by_class = matches_when_shifted(0, {-1, 0, 1});
    const long now = by_class[1];
    if (!is_clear_gain(now, static_cast<long>(truth_.rows.size()))) {
      return;  // not even if all matched
    }
    for (const int shift : {-1, 1}) {
      find_shift("frames_shifted", "frame number", "first column", shift, now,
                 matches_when_shifted(shift, {0}).front());
      find_shift("class_ids_shifted", "class id", "eighth column", shift, now,
                 by_class[shift < 0 ? 0 : 2]);
    }
  }

  void find_shift(const char* kind, const std::string& what, const std::string& column, int shift,
                  long now, long shifted) {
    if (!is_clear_gain(now, shifted)) {
      return;
    }
    const MotRow& example = result_.rows.front();
    const long value = kind == std::string("frames_shifted") ? example.frame : example.class_id;
    add(kind, result_,
        std::to_string(shifted) + " instead of " + std::to_string(now) + " of the truth's " +
            std::to_string(truth_.rows.size()) + " boxes match when each " + what + " is " +
            (shift > 0 ? "raised" : "lowered") + " by 1, in row " + std::to_string(example.line) +
            " from " + std::to_string(value) + " to " + std::to_string(value + shift) + ". " +
            (shift > 0 ? "Add 1 to" : "Subtract 1 from") + " its " + column + ", or correct " +
            truth_.path + " the other way.");
  }

  const MotFile& truth_;
  MotFile& result_;
  std::vector<LintFinding> findings_;
};

}  // namespace

std::vector<LintFinding> lint_tracks(const MotFile& truth, MotFile* result) {
  return Lint(truth, result).run();
}

}  // namespace olvex_tools
