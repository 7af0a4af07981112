// SPDX-License-Identifier: Apache-2.0
// table_families.cpp - heads with one table of boxes and one of scores: priors, and what is decoded already.
// Declared in head_evidence.h.
#include <algorithm>
#include <optional>

#include "tools/common/command.h"
#include "tools/common/text.h"
#include "tools/heads/head_evidence.h"

namespace olvex_tools {

namespace {

constexpr std::int64_t kBox = 4;
constexpr std::int64_t kFewestPointValues = 6;

struct Tables {
  const RowKind* boxes = nullptr;
  const RowKind* scores = nullptr;
  const RowKind* points = nullptr;
};

// How much speaks for a table of four values being the boxes; 0: it is scores.
int weight_as_boxes(const HeadEvidence& evidence, const RowKind& kind) {
  const NamedContents named = contents_by_name(kind.tensors.front().output);
  if (kind.channels != kBox || named == NamedContents::kScores) {
    return 0;
  }
  const bool is_score = evidence.is_probability({kind, 0, kBox});
  return (named == NamedContents::kBoxes ? 4 : 0) + (evidence.is_decoded({kind, 0, kBox}) ? 2 : 0) +
         (is_score ? 0 : 1);
}

// Boxes have four values; so may scores, which are another kind. Null when there are none. Throws ToolError
// (kUsageError) when two tables, both decoded or both not, may equally be the boxes.
const RowKind* find_boxes(const HeadEvidence& evidence, bool decoded) {
  const RowKind* found = nullptr;
  const RowKind* equal = nullptr;
  int most = 0;
  for (const RowKind& kind : evidence.layout().kinds) {
    const int weight = weight_as_boxes(evidence, kind);
    equal = weight > most ? nullptr : weight > 0 && weight == most ? &kind : equal;
    found = weight > most ? &kind : found;
    most = std::max(most, weight);
  }
  if (equal != nullptr && evidence.is_decoded({*found, 0, kBox}) == decoded) {
    throw ToolError(kUsageError,
                    evidence.question().network.path() + ": either of \"" +
                        found->tensors.front().output + "\" and \"" +
                        equal->tensors.front().output +
                        "\" may be the boxes. Name them in the network, boxes and scores; or where "
                        "they are decoded say so: --boxes NAME --scores NAME");
  }
  return found;
}

// Which of two tables holds key points; null: neither can be told to.
const RowKind* find_points(const HeadEvidence& evidence, const RowKind& left,
                           const RowKind& right) {
  const auto only = [&](auto&& is_such) {
    return is_such(left) == is_such(right) ? nullptr : is_such(left) ? &left : &right;
  };
  for (const RowKind* const points :
       {only([](const RowKind& kind) {
          return contents_by_name(kind.tensors.front().output) == NamedContents::kPoints;
        }),
        only([&](const RowKind& kind) {
          return evidence.is_decoded({kind, 0, kind.channels});
        }),
        only([&](const RowKind& kind) {
          return !evidence.is_probability({kind, 0, kind.channels});
        }),
        only([](const RowKind& kind) { return library_takes_points(kind.channels); })}) {
    if (points != nullptr) {
      return points;
    }
  }
  return nullptr;
}

Tables tables_of(const HeadEvidence& evidence, bool decoded) {
  const HeadLayout& layout = evidence.layout();
  if (layout.kinds.size() < 2 || layout.kinds.size() > 3) {
    return {};
  }
  Tables tables;
  tables.boxes = find_boxes(evidence, decoded);
  std::vector<const RowKind*> others;
  for (const RowKind& kind : layout.kinds) {
    if (&kind != tables.boxes) {
      others.push_back(&kind);
    }
  }
  if (tables.boxes == nullptr || others.size() + 1 != layout.kinds.size()) {
    return {};
  }
  if (others.size() == 2) {
    tables.points = find_points(evidence, *others[0], *others[1]);
    // So few values are an objectness, or numbers of classes.
    if (tables.points == nullptr || tables.points->channels < kFewestPointValues) {
      return {};
    }
  }
  tables.scores = others[tables.points == others[0] ? 1 : 0];
  return tables;
}

// The name of a background among the classes, where there are as many names as columns; -1: none.
int named_background(const HeadEvidence& evidence, std::int64_t columns) {
  const std::vector<std::string>& names = evidence.class_names();
  for (std::size_t i = 0; i < names.size() && static_cast<std::int64_t>(names.size()) == columns;
       ++i) {
    if (in_lower_case(names[i]).find("background") != std::string::npos) {
      return static_cast<int>(i);
    }
  }
  return -1;
}

// The column of the background: the one of that name, or the first one where the scores of a row add up to 1, or
// where there is one more than classes are known.
void conclude_background(const HeadEvidence& evidence, const RowKind& scores, bool logits,
                         HeadReading* reading) {
  const std::int64_t columns = scores.channels;
  const std::optional<int> given = evidence.options().background;
  const std::int64_t known = evidence.known_classes();
  const int named = named_background(evidence, columns);
  const bool adds_up = !logits && have_background(evidence, scores);
  const bool usual = logits ? reading->head.classes.activation == Activation::kSoftmax : adds_up;
  const bool has_background = columns > 1 && (known > 0 ? columns == known + 1 : usual);
  reading->head.background = given.value_or(named >= 0 ? named : has_background ? 0 : -1);
  if (reading->head.background == named && named >= 0) {
    reading->class_names.erase(reading->class_names.begin() + named);
  }
  const std::string text = reading->head.background < 0
                               ? "no background among the scores"
                               : "background: column " + std::to_string(reading->head.background);
  const char* source = named >= 0 ? ", as the metadata names it"
                       : adds_up  ? ", as the scores of a row add up to 1"
                                  : "";
  add_fact(reading, text + (given ? "" : source),
           reading->head.background < 0
               ? "--background none"
               : "--background " + std::to_string(reading->head.background));
}

// Sides of the usual priors, by stride.
struct UsualPriors {
  bool with_points;
  bool limited;  // no side is longer than the input's
  std::vector<int> strides;
  SizesOfLayers sizes;
};

SizesOfLayers squares(const std::vector<std::vector<double>>& sides) {
  SizesOfLayers sizes;
  for (const std::vector<double>& layer : sides) {
    sizes.emplace_back();
    for (const double side : layer) {
      sizes.back().push_back({side, side});
    }
  }
  return sizes;
}

const std::vector<UsualPriors>& usual_priors() {
  static const std::vector<UsualPriors> kPriors = {
      {false, true, {8, 16, 32, 64}, squares({{10, 16, 24}, {32, 48}, {64, 96}, {128, 192, 256}})},
      {true, false, {8, 16, 32}, squares({{16, 32}, {64, 128}, {256, 512}})}};
  return kPriors;
}

std::int64_t count_of(const InputSize& size, const std::vector<int>& strides,
                      const SizesOfLayers& sizes) {
  std::int64_t count = 0;
  for (std::size_t i = 0; i < strides.size(); ++i) {
    count += cells_of(size, strides[i]) * static_cast<std::int64_t>(sizes[i].size());
  }
  return count;
}

// Strides from 8 on, each twice the one before.
std::vector<int> doubling_strides(std::size_t count) {
  std::vector<int> strides;
  for (int stride = 8; strides.size() < count; stride *= 2) {
    strides.push_back(stride);
  }
  return strides;
}

void limit_sizes(const InputSize& size, UsualPriors* priors) {
  for (std::vector<BoxSize>& layer : priors->sizes) {
    for (BoxSize& box : layer) {
      box.width =
          priors->limited ? std::min(box.width, static_cast<double>(size.width)) : box.width;
      box.height =
          priors->limited ? std::min(box.height, static_cast<double>(size.height)) : box.height;
    }
  }
}

// Those given, or those usual ones whose number fits; the ones with key points first where there are some.
std::optional<UsualPriors> find_priors(const HeadEvidence& evidence, bool with_points) {
  const HeadOptions& options = evidence.options();
  const InputSize& size = evidence.question().size;
  const std::int64_t rows = evidence.layout().rows;
  if (options.prior_sizes) {
    const UsualPriors given = {
        with_points, false, options.strides.value_or(doubling_strides(options.prior_sizes->size())),
        *options.prior_sizes};
    if (given.strides.size() != given.sizes.size() ||
        count_of(size, given.strides, given.sizes) != rows) {
      throw ToolError(
          kUsageError,
          "--prior-sizes: " +
              (given.strides.size() != given.sizes.size()
                   ? std::to_string(given.sizes.size()) + " lists of sizes for " +
                         counted(given.strides.size(), "stride", "strides")
                   : "they are " + std::to_string(count_of(size, given.strides, given.sizes)) +
                         " priors at strides " + list_of(given.strides) + ", the network has " +
                         std::to_string(rows) + " rows") +
              ". Give the sizes of each stride, and --strides");
    }
    return given;
  }
  std::vector<UsualPriors> usual = usual_priors();
  std::stable_partition(usual.begin(), usual.end(), [&](const UsualPriors& priors) {
    return priors.with_points == with_points;
  });
  for (UsualPriors& priors : usual) {
    if (count_of(size, priors.strides, priors.sizes) == rows &&
        (!evidence.layout().layered || evidence.layout().strides == priors.strides)) {
      limit_sizes(size, &priors);
      return priors;
    }
  }
  return std::nullopt;
}

// Layers of each stride, with the same number of priors in every cell, as the rows of those; whole tables as they
// are.
std::optional<HeadLayout> layout_of_priors(const HeadEvidence& evidence) {
  const HeadLayout& layout = evidence.layout();
  const auto& sizes = evidence.options().prior_sizes;
  const std::int64_t of_cell = sizes ? static_cast<std::int64_t>(sizes->front().size()) : 2;
  const bool divisible =
      std::all_of(layout.kinds.begin(), layout.kinds.end(),
                  [of_cell](const RowKind& kind) { return kind.channels % of_cell == 0; });
  if (!layout.layered) {
    return layout;
  }
  if (layout.planes && layout.anchors == 1 && divisible) {
    return with_anchors(layout, of_cell);
  }
  return layout.anchors == of_cell ? std::make_optional(layout) : std::nullopt;
}

}  // namespace

std::vector<HeadReading> conclude_priors(const HeadEvidence& given) {
  const std::optional<HeadLayout> rows = layout_of_priors(given);
  if (!rows) {
    return {};
  }
  const HeadEvidence evidence(given.question(), *rows);
  const std::optional<UsualPriors> priors = find_priors(evidence, rows->kinds.size() == 3);
  const Tables tables = priors ? tables_of(evidence, false) : Tables();
  const bool asked = evidence.is_asked_for("priors");
  if (tables.scores == nullptr || (!asked && evidence.is_decoded({*tables.boxes, 0, kBox})) ||
      (rows->layered && !asked && !have_background(evidence, *tables.scores))) {
    return {};
  }
  HeadLayout layout = evidence.layout();
  layout.strides.clear();  // they come with the priors
  const HeadEvidence own(evidence.question(), layout);
  HeadReading reading =
      begin_reading(own, "priors", "box offsets and scores, undecoded, for each prior");
  const HeadOptions& options = evidence.options();
  const std::array<double, 2> variances =
      options.variances.value_or(std::array<double, 2>{{.1, .2}});
  add_fact(&reading,
           std::to_string(layout.rows) + " rows: the priors of strides " + list_of(priors->strides),
           "--strides " + comma_list(priors->strides));
  add_fact(&reading,
           options.prior_sizes ? "priors: as --prior-sizes says"
                               : "priors: usual sizes whose number fits",
           "--prior-sizes " + describe(priors->sizes));
  add_fact(&reading,
           options.variances ? "variances: as --variances says" : "variances: the usual ones",
           format("--variances %g,%g", variances[0], variances[1]));
  Head& head = reading.head;
  head.boxes = own.part({*tables.boxes, 0, kBox});
  head.box_code = BoxCode::kOffsets;
  head.size_variance = variances[1];
  set_sized_references(own, priors->strides, priors->sizes, .5, variances[0], &reading);
  const Channels scores = {*tables.scores, 0, tables.scores->channels};
  const bool logits = !own.is_probability(scores);
  const std::int64_t known = own.known_classes();
  const bool softmax =
      scores.count > 1 && (known != scores.count || named_background(own, scores.count) >= 0);
  head.classes = own.probability(scores, options.class_activation, "class", &reading,
                                 softmax ? Activation::kSoftmax : Activation::kSigmoid);
  conclude_background(own, *tables.scores, logits, &reading);
  conclude_class_count(scores.count, &reading);
  if (tables.points != nullptr) {
    // The library takes key points beside one class only, and the background is none.
    head.class_count -= head.background >= 0 ? 1 : 0;
    conclude_points(own, {*tables.points, 0, tables.points->channels}, PointCode::kOffsets,
                    &reading);
    head.class_count = scores.count;
  }
  return {reading};
}

std::vector<HeadReading> conclude_boxes_and_scores(const HeadEvidence& evidence) {
  const Tables tables = evidence.layout().layered ? Tables() : tables_of(evidence, true);
  const bool asked = evidence.is_asked_for(kDecodedTables);
  if (tables.scores == nullptr || (!asked && !evidence.is_decoded({*tables.boxes, 0, kBox}))) {
    return {};
  }
  HeadReading reading =
      begin_reading(evidence, kDecodedTables, "boxes and scores apart, decoded in the graph");
  conclude_final_boxes(evidence, {*tables.boxes, 0, kBox}, qv_host::BoxOrder::kCornerPairs, true,
                       &reading);
  const Channels scores = {*tables.scores, 0, tables.scores->channels};
  const bool logits = !evidence.is_probability(scores);
  Head& head = reading.head;
  head.classes =
      evidence.probability(scores, evidence.options().class_activation, "class", &reading);
  conclude_background(evidence, *tables.scores, logits, &reading);
  conclude_class_count(scores.count, &reading);
  if (tables.points != nullptr) {
    head.class_count -= head.background >= 0 ? 1 : 0;
    conclude_points(evidence, {*tables.points, 0, tables.points->channels}, PointCode::kFinal,
                    &reading);
    head.class_count = scores.count;
  }
  return {reading};
}

}  // namespace olvex_tools
