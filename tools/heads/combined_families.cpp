// SPDX-License-Identifier: Apache-2.0
// combined_families.cpp - heads whose one output holds everything of a row: boxes, objectness, classes, key
// points. Declared in head_evidence.h.
#include <algorithm>
#include <array>
#include <optional>

#include "tools/common/command.h"
#include "tools/common/text.h"
#include "tools/heads/head_evidence.h"

namespace olvex_tools {

namespace {

constexpr std::int64_t kBox = 4;  // values of a box
constexpr std::int64_t kFewestPointValues = 6;

const RowKind* only_table(const HeadEvidence& evidence) {
  const HeadLayout& layout = evidence.layout();
  return layout.kinds.size() == 1 && !layout.layered ? &layout.kinds.front() : nullptr;
}

std::string shape_text(const RowKind& kind) {
  return "one output of rows of " + std::to_string(kind.channels) + " values";
}

// Rows of corners, score, number of the class. A class that no row shows has whole numbers, too, but they are
// computed as scores are.
bool holds_class_numbers(const HeadEvidence& evidence, const RowKind& kind) {
  if (kind.channels != 6 || !evidence.is_whole_numbers(kind, 5) ||
      !evidence.is_probability({kind, 4, 1})) {
    return false;
  }
  const Treatment done = evidence.treatment({kind, 5, 1});
  const std::optional<Interval> range = evidence.range({kind, 5, 1});
  const bool constant = range && range->least == range->most && range->most <= 1;
  return !(constant && (done.sigmoid || done.softmax) && !done.arg_max);
}

bool is_traced(const RowKind& kind) {
  return kind.runs.size() > 1;
}

// Everything behind the box is scores, or logits of some: these are low, as most rows show nothing.
bool are_scores_behind_box(const HeadEvidence& evidence, const RowKind& kind) {
  constexpr double kLow = -1;
  const Channels behind = {kind, kBox, kind.channels - kBox};
  return evidence.is_probability(behind) ||
         (is_traced(kind) && !evidence.is_decoded(behind) && evidence.mean(behind) < kLow);
}

// Classes directly behind the box: as many as are known, or as are scores.
std::int64_t classes_behind_box(const HeadEvidence& evidence, const RowKind& kind) {
  if (evidence.known_classes() > 0) {
    return evidence.known_classes();
  }
  if (!is_traced(kind)) {
    return evidence.is_probability({kind, kBox, kind.channels - kBox}) ? kind.channels - kBox : 0;
  }
  std::int64_t end = kBox;
  for (const ChannelRun& run : kind.runs) {
    const bool follows = run.first <= end && run.first + run.count > end;
    if (follows && evidence.is_probability({kind, end, run.first + run.count - end}) &&
        !evidence.is_decoded({kind, end, run.first + run.count - end})) {
      end = run.first + run.count;
    }
  }
  return end == kBox && are_scores_behind_box(evidence, kind) ? kind.channels - kBox : end - kBox;
}

enum class BehindBox { kClasses, kObjectness, kEither };

// By the rows that the first value behind the box is sure of: an objectness has a class beside it that is sure as
// well, and of several classes the others are not. Without such rows: the classes beside an objectness may have any
// level where there is nothing.
BehindBox by_sure_rows(const HeadEvidence& evidence, const RowKind& kind) {
  constexpr double kMost = .8;
  const std::vector<std::array<double, 2>> rows =
      evidence.first_and_best_other({kind, kBox, kind.channels - kBox});
  double sure = 0;
  double both = 0;
  double crowd = 0;
  for (const std::array<double, 2>& row : rows) {
    sure += row[0] >= .5 ? 1 : 0;
    both += row[0] >= .5 && row[1] >= .5 ? 1 : 0;
    crowd += row[0] < .05 && row[1] >= .2 ? 1 : 0;
  }
  const bool is_objectness =
      sure > 0 ? both >= kMost * sure : crowd > kMost * static_cast<double>(rows.size());
  const bool are_classes = sure > 0 && both <= (1 - kMost) * sure;
  return is_objectness ? BehindBox::kObjectness
         : are_classes ? BehindBox::kClasses
                       : BehindBox::kEither;
}

// Whether an objectness of its own stands behind the box: the known number of classes says so, or the graph that
// computes it apart, or several rows for each cell, or the values. Columns of classes alone are what exporters
// write as 1 x C x N.
BehindBox behind_box(const HeadEvidence& evidence, const RowKind& kind) {
  if (kind.channels <= kBox + 1 || !are_scores_behind_box(evidence, kind)) {
    return BehindBox::kClasses;
  }
  if (evidence.known_classes() > 0) {
    return kind.channels == kBox + 1 + evidence.known_classes() ? BehindBox::kObjectness
                                                                : BehindBox::kClasses;
  }
  if (evidence.layout().anchors > 1 || evidence.ends_before(kind, kBox + 1)) {
    return BehindBox::kObjectness;
  }
  const BehindBox seen = by_sure_rows(evidence, kind);
  const bool columns = kind.tensors.front().arrangement == Arrangement::kColumns;
  return seen == BehindBox::kEither && columns ? BehindBox::kClasses : seen;
}

// Whether what stands behind the first box of a cell stands behind others, too: the levels repeat.
bool repeats_for_anchors(const HeadEvidence& evidence, const RowKind& kind) {
  const double level = evidence.mean({kind, 0, kind.channels}) - 1;
  for (const std::int64_t anchors : {2, 3, 5, 6, 9}) {
    const std::int64_t of_row = kind.channels / anchors;
    bool repeats = kind.channels % anchors == 0 && of_row > kBox + 1;
    for (std::int64_t first = of_row; repeats && first < kind.channels; first += of_row) {
      repeats = evidence.mean({kind, first + kBox, 1}) < level;
    }
    if (repeats) {
      return true;
    }
  }
  return false;
}

// In one piece with box and classes: an objectness is low, as most cells show nothing, and classes are not.
bool has_low_objectness(const HeadEvidence& evidence, const RowKind& kind) {
  constexpr double kClear = 2;
  const double objectness = evidence.mean({kind, kBox, 1});
  return evidence.known_classes() == 0 && !is_traced(kind) &&
         objectness < evidence.mean({kind, 0, kBox}) - kClear &&
         objectness < evidence.mean({kind, kBox + 1, kind.channels - kBox - 1}) - kClear &&
         !repeats_for_anchors(evidence, kind);
}

}  // namespace

std::vector<HeadReading> conclude_combined(const HeadEvidence& evidence) {
  const RowKind* kind = only_table(evidence);
  const bool asked = evidence.is_asked_for("combined");
  if (kind == nullptr || kind->channels <= kBox) {
    return {};
  }
  const std::int64_t classes = classes_behind_box(evidence, *kind);
  const std::int64_t rest = kind->channels - kBox - classes;
  const bool may_be_points =
      rest == 0 || (rest >= kFewestPointValues && (rest % 2 == 0 || rest % 3 == 0));
  const bool fits = classes > 0 && may_be_points && evidence.is_decoded({*kind, 0, kBox}) &&
                    evidence.layout().anchors != 3 && !holds_class_numbers(evidence, *kind) &&
                    !(rest == 0 && behind_box(evidence, *kind) == BehindBox::kObjectness) &&
                    !(evidence.known_classes() > 0 && rest == 1);
  if (!fits && !(asked && classes > 0 && rest >= 0)) {
    return {};
  }
  HeadReading reading = begin_reading(
      evidence, "combined", shape_text(*kind) + ", box and class scores, decoded in the graph");
  conclude_final_boxes(evidence, {*kind, 0, kBox}, qv_host::BoxOrder::kCentreSize, false, &reading);
  reading.head.classes = evidence.probability(
      {*kind, kBox, classes}, evidence.options().class_activation, "class", &reading);
  conclude_class_count(classes, &reading);
  if (rest > 0) {
    conclude_points(evidence, {*kind, kBox + classes, rest}, PointCode::kFinal, &reading);
  }
  return {reading};
}

std::vector<HeadReading> conclude_end_to_end(const HeadEvidence& evidence) {
  const RowKind* kind = only_table(evidence);
  if (kind == nullptr || kind->channels != 6) {
    return {};
  }
  const bool numbers = evidence.question().values != nullptr
                           ? holds_class_numbers(evidence, *kind)
                           : evidence.treatment({*kind, 5, 1}).arg_max;
  if (!numbers && !evidence.is_asked_for("end-to-end")) {
    return {};
  }
  std::int64_t classes = evidence.known_classes();
  std::string source = "as many as are named";
  if (classes == 0) {
    classes = reduced_size(evidence.question().network, kind->tensors.front().output);
    source = "by the node that chooses the best";
  }
  if (classes == 0) {
    throw ToolError(
        kUsageError,
        evidence.question().network.path() +
            ": the rows hold boxes, scores and numbers of classes, but nothing says how many "
            "classes there are. Give --class-count N");
  }
  const std::optional<Interval> range = evidence.range({*kind, 5, 1});
  if (range && range->most >= static_cast<double>(classes)) {
    throw ToolError(kModelError,
                    evidence.question().network.path() +
                        format(": the numbers of classes reach %g, but there are ", range->most) +
                        counted(classes, "class", "classes") + ", which count from 0");
  }
  HeadReading reading = begin_reading(evidence, "end-to-end",
                                      shape_text(*kind) + ": box, score and number of the class");
  Head& head = reading.head;
  conclude_final_boxes(evidence, {*kind, 0, kBox}, qv_host::BoxOrder::kCornerPairs, false,
                       &reading);
  head.objectness = evidence.part({*kind, 4, 1});
  head.classes = evidence.part({*kind, 5, 1});
  head.score_code = ScoreCode::kClassId;
  head.class_count = classes;
  add_fact(&reading, counted(classes, "class", "classes") + ", " + source,
           "--class-count " + std::to_string(classes));
  return {reading};
}

std::vector<HeadReading> conclude_objectness(const HeadEvidence& evidence) {
  const RowKind* kind = only_table(evidence);
  const bool asked = evidence.is_asked_for("objectness");
  if (kind == nullptr || kind->channels <= kBox) {
    return {};
  }
  const std::int64_t classes = kind->channels - kBox - 1;
  const bool fits = evidence.is_decoded({*kind, 0, kBox}) &&
                    !holds_class_numbers(evidence, *kind) &&
                    behind_box(evidence, *kind) != BehindBox::kClasses;
  if (!fits && !asked) {
    return {};
  }
  HeadReading reading =
      begin_reading(evidence, "objectness",
                    shape_text(*kind) + ", box, objectness and classes, decoded in the graph");
  conclude_final_boxes(evidence, {*kind, 0, kBox}, qv_host::BoxOrder::kCentreSize, false, &reading);
  Head& head = reading.head;
  head.objectness = evidence.probability({*kind, kBox, 1}, evidence.options().objectness_activation,
                                         "objectness", &reading);
  if (classes > 0) {
    head.classes = evidence.probability({*kind, kBox + 1, classes},
                                        evidence.options().class_activation, "class", &reading);
    conclude_score_powers(evidence, kProduct, "", &reading);
  }
  conclude_class_count(std::max<std::int64_t>(classes, 1), &reading);
  return {reading};
}

std::vector<HeadReading> conclude_objectness_offsets(const HeadEvidence& evidence) {
  const HeadLayout& layout = evidence.layout();
  if (layout.kinds.size() != 1 || layout.strides.empty() || layout.anchors != 1) {
    return {};
  }
  const RowKind& kind = layout.kinds.front();
  const std::int64_t classes = kind.channels - kBox - 1;
  if (classes < 1) {
    return {};
  }
  const bool known = evidence.known_classes() == classes;
  const bool apart = evidence.ends_before(kind, kBox) && evidence.ends_before(kind, kBox + 1);
  const bool fits = !evidence.is_decoded({kind, 0, kBox}) &&
                    !evidence.treatment({kind, 0, kBox}).sigmoid &&
                    (apart || known || has_low_objectness(evidence, kind)) &&
                    !holds_class_numbers(evidence, kind) &&
                    evidence.is_probability({kind, kBox, 1}) ==
                        evidence.is_probability({kind, kBox + 1, classes});
  if (!fits && !evidence.is_asked_for("objectness-offsets")) {
    return {};
  }
  HeadReading reading =
      begin_reading(evidence, "objectness-offsets",
                    "rows of " + std::to_string(kind.channels) +
                        " values: offsets and log sizes in cells, objectness, classes");
  Head& head = reading.head;
  head.boxes = evidence.part({kind, 0, kBox});
  head.box_code = BoxCode::kOffsets;
  set_cell_references(evidence, 0, &reading);
  head.objectness = evidence.probability({kind, kBox, 1}, evidence.options().objectness_activation,
                                         "objectness", &reading);
  head.classes = evidence.probability({kind, kBox + 1, classes},
                                      evidence.options().class_activation, "class", &reading);
  conclude_score_powers(evidence, kProduct, "", &reading);
  conclude_class_count(classes, &reading);
  return {reading};
}

}  // namespace olvex_tools
