// SPDX-License-Identifier: Apache-2.0
// part_families.cpp - heads with parts apart: an output for each part and stride (class, objectness, box, key
// points; or score, distances, key points), and distances as shares of bins, beside or behind the classes.
// Declared in head_evidence.h.
#include <algorithm>
#include <iterator>

#include "tools/common/text.h"
#include "tools/heads/head_evidence.h"

namespace olvex_tools {

namespace {

constexpr std::int64_t kBox = 4;

NamedContents name_of(const RowKind& kind) {
  return contents_by_name(kind.tensors.front().output);
}

bool is_named_objectness(const RowKind& kind) {
  return in_lower_case(kind.tensors.front().output).find("obj") != std::string::npos ||
         name_of(kind) == NamedContents::kCentreness;
}

// The kinds by what they hold; null where there is none of the sort.
struct KindsOfParts {
  const RowKind* classes = nullptr;
  const RowKind* objectness = nullptr;
  const RowKind* box = nullptr;
  const RowKind* points = nullptr;
  std::size_t known = 0;
};

// Of the kinds of four values that are no probabilities the boxes: by name, or the one of the higher level, as
// logits of classes are low. Null when there is none, or it cannot be told.
const RowKind* find_box(const HeadEvidence& evidence) {
  constexpr double kClear = 2;
  std::vector<const RowKind*> found;
  for (const RowKind& kind : evidence.layout().kinds) {
    if (kind.channels == kBox && name_of(kind) != NamedContents::kScores &&
        !evidence.is_probability({kind, 0, kBox})) {
      found.push_back(&kind);
    }
  }
  if (found.size() != 2) {
    return found.size() == 1 ? found.front() : nullptr;
  }
  const bool named = name_of(*found[0]) == NamedContents::kBoxes;
  if (named != (name_of(*found[1]) == NamedContents::kBoxes)) {
    return found[named ? 0 : 1];
  }
  const double lead = evidence.mean({*found[0], 0, kBox}) - evidence.mean({*found[1], 0, kBox});
  return lead > kClear ? found[0] : lead < -kClear ? found[1] : nullptr;
}

// By numbers of channels and by which of them are scores.
KindsOfParts sort_kinds(const HeadEvidence& evidence) {
  KindsOfParts parts;
  const auto take = [&](const RowKind& kind, const RowKind** place) {
    if (*place == nullptr) {
      *place = &kind;
      ++parts.known;
    }
  };
  std::vector<const RowKind*> scores;
  const std::vector<RowKind>& kinds = evidence.layout().kinds;
  const bool some_score = std::any_of(kinds.begin(), kinds.end(), [&](const RowKind& kind) {
    return evidence.is_probability({kind, 0, kind.channels});
  });
  const RowKind* const box = find_box(evidence);
  for (const RowKind& kind : kinds) {
    const bool is_score = evidence.is_probability({kind, 0, kind.channels}) ||
                          name_of(kind) == NamedContents::kScores;
    if (&kind == box) {
      take(kind, &parts.box);
    } else if (!is_score && kind.channels >= 2 * kBox &&
               kind.channels != evidence.known_classes() &&
               (some_score || library_takes_points(kind.channels))) {
      take(kind, &parts.points);
    } else {
      scores.push_back(&kind);
    }
  }
  // The one of a single channel is the objectness; between two such ones the name decides.
  const bool two = scores.size() == 2;
  const bool second = two && scores[1]->channels == 1 &&
                      (scores[0]->channels > 1 || !is_named_objectness(*scores[0]));
  if (two && (second || scores[0]->channels == 1)) {
    take(*scores[second ? 1 : 0], &parts.objectness);
    take(*scores[second ? 0 : 1], &parts.classes);
  } else if (scores.size() == 1) {
    take(*scores.front(), &parts.classes);
  }
  return parts;
}

// The network makes the values of the box positive: distances of its sides, not offsets.
bool are_distances(const HeadEvidence& evidence, const RowKind& box) {
  const Treatment done = evidence.treatment({box, 0, kBox});
  const std::optional<Interval> range = evidence.range({box, 0, kBox});
  return (done.rectified || done.exponential) && range && range->least >= 0;
}

// As distances in cells, the boxes are larger than the picture: they are in pixels.
bool reach_too_far(const HeadEvidence& evidence, const RowKind& box) {
  const InputSize& size = evidence.question().size;
  return evidence.mean({box, 0, kBox}) * evidence.layout().strides.front() >
         static_cast<double>(std::max(size.width, size.height));
}

}  // namespace

std::vector<HeadReading> conclude_class_objectness_box(const HeadEvidence& evidence) {
  const HeadLayout& layout = evidence.layout();
  const KindsOfParts parts = sort_kinds(evidence);
  const bool fits =
      parts.known == layout.kinds.size() && parts.box != nullptr && parts.classes != nullptr &&
      parts.objectness != nullptr && layout.anchors == 1 && !layout.strides.empty() &&
      name_of(*parts.objectness) != NamedContents::kCentreness &&
      !evidence.is_decoded({*parts.box, 0, kBox}) &&
      (evidence.is_asked_for("class-objectness-box") || !are_distances(evidence, *parts.box));
  if (!fits) {
    return {};
  }
  const bool has_points = parts.points != nullptr;
  HeadReading reading = begin_reading(
      evidence, "class-objectness-box",
      std::string("class, objectness, box") + (has_points ? " and key points" : "") + " apart");
  Head& head = reading.head;
  head.boxes = evidence.part({*parts.box, 0, kBox});
  head.box_code = BoxCode::kOffsets;
  set_cell_references(evidence, 0, &reading);
  const HeadOptions& options = evidence.options();
  head.classes = evidence.probability({*parts.classes, 0, parts.classes->channels},
                                      options.class_activation, "class", &reading);
  head.objectness = evidence.probability({*parts.objectness, 0, 1}, options.objectness_activation,
                                         "objectness", &reading);
  conclude_score_powers(evidence, has_points ? std::array<double, 2>{{.5, .5}} : kProduct,
                        has_points ? ", as usual beside key points" : "", &reading);
  conclude_class_count(parts.classes->channels, &reading);
  if (has_points) {
    conclude_points(evidence, {*parts.points, 0, parts.points->channels}, PointCode::kOffsets,
                    &reading);
  }
  return {reading};
}

std::vector<HeadReading> conclude_score_distance(const HeadEvidence& evidence) {
  const HeadLayout& given = evidence.layout();
  if (!given.layered || given.kinds.size() < 2 || given.kinds.size() > 4) {
    return {};
  }
  // In planes a cell's box values tell how many anchors there are.
  std::int64_t anchors = given.anchors;
  for (const RowKind& kind : given.kinds) {
    if (given.planes && (kind.channels == kBox || kind.channels == 2 * kBox) &&
        !evidence.is_probability({kind, 0, kind.channels})) {
      anchors = kind.channels / kBox;
    }
  }
  const bool divisible =
      std::all_of(given.kinds.begin(), given.kinds.end(), [&](const RowKind& kind) {
        return !given.planes || (anchors > 0 && kind.channels % anchors == 0);
      });
  if (!divisible || anchors < 1 || anchors > 2) {
    return {};
  }
  const HeadLayout layout = given.planes && anchors > 1 ? with_anchors(given, anchors) : given;
  const HeadEvidence own(evidence.question(), layout);
  const KindsOfParts parts = sort_kinds(own);
  const bool fits = parts.known == layout.kinds.size() && parts.box != nullptr &&
                    parts.classes != nullptr && !own.is_decoded({*parts.box, 0, kBox}) &&
                    !(anchors == 2 && have_background(own, *parts.classes)) &&
                    (parts.objectness == nullptr || own.is_asked_for("score-distance") ||
                     (are_distances(own, *parts.box) && !reach_too_far(own, *parts.box)));
  if (!fits) {
    return {};
  }
  const bool has_points = parts.points != nullptr;
  HeadReading reading = begin_reading(
      own, "score-distance",
      std::string("scores, ") + (parts.objectness != nullptr ? "centre-ness, " : "") +
          "distances of the sides" + (has_points ? " and key points" : "") + " apart");
  Head& head = reading.head;
  head.boxes = own.part({*parts.box, 0, kBox});
  head.box_code = BoxCode::kDistances;
  set_cell_references(own, has_points || anchors == 2 ? 0 : .5, &reading);
  head.classes = own.probability({*parts.classes, 0, parts.classes->channels},
                                 own.options().class_activation, "class", &reading);
  if (parts.objectness != nullptr) {
    head.objectness = own.probability({*parts.objectness, 0, 1},
                                      own.options().objectness_activation, "objectness", &reading);
    conclude_score_powers(own, {{.5, .5}}, ", as usual for a centre-ness", &reading);
  }
  conclude_class_count(parts.classes->channels, &reading);
  if (has_points) {
    conclude_points(own, {*parts.points, 0, parts.points->channels}, PointCode::kOffsets, &reading);
  }
  return {reading};
}

// ---- Distances as shares of bins ----------------------------------------------------------------

namespace {

constexpr std::int64_t kUsualBins[] = {8, 16, 17, 32};

// Distances and classes: where each begins in the same or in another kind.
struct BinsAndClasses {
  Channels bins;
  Channels classes;
  bool by_level = false;  // which are which only the levels of the values say
};

// Whether some run among the channels is of scores.
bool holds_scores(const HeadEvidence& evidence, const Channels& channels) {
  const std::vector<ChannelRun>& runs = channels.kind.get().runs;
  return std::any_of(runs.begin(), runs.end(), [&](const ChannelRun& run) {
    const std::int64_t first = std::max(run.first, channels.first);
    const std::int64_t end = std::min(run.first + run.count, channels.first + channels.count);
    return first < end && evidence.is_probability({channels.kind, first, end - first});
  });
}

void add_if_fitting(const HeadEvidence& evidence, const Channels& bins, const Channels& classes,
                    std::vector<BinsAndClasses>* found) {
  const HeadOptions& options = evidence.options();
  const std::int64_t count = bins.count / kBox;
  const bool fits = bins.count % kBox == 0 && count > 1 && classes.count > 0 &&
                    (!options.bins || *options.bins == count) &&
                    (evidence.known_classes() == 0 || evidence.known_classes() == classes.count) &&
                    !holds_scores(evidence, bins) && !evidence.is_decoded(bins) &&
                    !evidence.is_decoded(classes);
  if (fits) {
    found->push_back({bins, classes, false});
  }
}

// Those whose classes are scores, and of these those with a usual number of bins, if there are any.
std::vector<BinsAndClasses> most_likely(const HeadEvidence& evidence,
                                        std::vector<BinsAndClasses> found) {
  const auto keep = [&](auto&& is_likely) {
    std::vector<BinsAndClasses> likely;
    std::copy_if(found.begin(), found.end(), std::back_inserter(likely), is_likely);
    found = likely.empty() ? found : likely;
  };
  keep([&](const BinsAndClasses& pair) { return evidence.is_probability(pair.classes); });
  keep([&](const BinsAndClasses& pair) { return are_usual_bins(pair.bins.count / kBox); });
  // In front or behind: logits of classes are low, as most rows show nothing.
  if (found.size() == 2 && found[0].bins.count == found[1].bins.count) {
    const bool first = evidence.mean(found[0].classes) <= evidence.mean(found[1].classes);
    found = {found[first ? 0 : 1]};
    found[0].by_level = true;
  }
  return found;
}

// In one piece without names: any of the commonest numbers of bins may fit, in front of the classes or behind them,
// whichever leaves the lower logits to the classes.
void add_untraced(const HeadEvidence& evidence, const RowKind& kind,
                  std::vector<BinsAndClasses>* found) {
  for (const std::int64_t bins : {8, 16}) {
    const std::int64_t side = bins * kBox;
    std::vector<BinsAndClasses> orders;
    add_if_fitting(evidence, {kind, 0, side}, {kind, side, kind.channels - side}, &orders);
    add_if_fitting(evidence, {kind, kind.channels - side, side}, {kind, 0, kind.channels - side},
                   &orders);
    orders = most_likely(evidence, orders);
    found->insert(found->end(), orders.begin(), orders.end());
  }
}

std::vector<BinsAndClasses> find_bins(const HeadEvidence& evidence) {
  const std::vector<RowKind>& kinds = evidence.layout().kinds;
  std::vector<BinsAndClasses> found;
  if (kinds.size() == 2) {
    for (std::size_t i = 0; i < 2; ++i) {
      add_if_fitting(evidence, {kinds[i], 0, kinds[i].channels},
                     {kinds[1 - i], 0, kinds[1 - i].channels}, &found);
    }
    return most_likely(evidence, found);
  }
  const RowKind& kind = kinds.front();
  const std::int64_t all = kind.channels;
  for (const ChannelRun& run : kind.runs) {
    add_if_fitting(evidence, {kind, run.first, all - run.first}, {kind, 0, run.first}, &found);
    add_if_fitting(evidence, {kind, 0, run.first}, {kind, run.first, all - run.first}, &found);
  }
  const bool asked = evidence.is_asked_for("distance-bins");
  if (kind.runs.size() < 2 && (asked || evidence.known_classes() > 0)) {
    for (const std::int64_t bins : kUsualBins) {
      const std::int64_t side = bins * kBox;
      add_if_fitting(evidence, {kind, 0, side}, {kind, side, all - side}, &found);
      add_if_fitting(evidence, {kind, all - side, side}, {kind, 0, all - side}, &found);
    }
  }
  found = most_likely(evidence, found);
  if (kind.runs.size() < 2 && found.empty() && evidence.known_classes() == 0) {
    add_untraced(evidence, kind, &found);
  }
  return found;
}

HeadReading distance_bins_reading(const HeadEvidence& evidence, const BinsAndClasses& parts) {
  const std::int64_t bins = parts.bins.count / kBox;
  HeadReading reading = begin_reading(
      evidence, "distance-bins", "class scores, and the shares of bins for each side's distance");
  add_fact(&reading,
           std::to_string(bins) + " bins for each of four sides, " +
               (parts.bins.first == 0 && &parts.bins.kind.get() == &parts.classes.kind.get()
                    ? "in front of the classes"
                    : "behind or apart from the classes") +
               (parts.by_level ? ", by the lower logits of the classes" : ""),
           "--bins " + std::to_string(bins));
  Head& head = reading.head;
  head.boxes = evidence.part(parts.bins);
  head.box_code = BoxCode::kDistances;
  head.bins = bins;
  // Those of four strides count from the cells' corners.
  set_cell_references(evidence, evidence.layout().strides.size() == 4 ? 0 : .5, &reading);
  head.classes =
      evidence.probability(parts.classes, evidence.options().class_activation, "class", &reading);
  conclude_class_count(parts.classes.count, &reading);
  return reading;
}

}  // namespace

bool are_usual_bins(std::int64_t bins) {
  return std::find(std::begin(kUsualBins), std::end(kUsualBins), bins) != std::end(kUsualBins);
}

bool may_be_distance_bins(const HeadEvidence& evidence) {
  return !find_bins(evidence).empty();
}

std::vector<HeadReading> conclude_distance_bins(const HeadEvidence& evidence) {
  const HeadLayout& layout = evidence.layout();
  if (layout.kinds.size() > 2 || layout.strides.empty() || layout.anchors != 1) {
    return {};
  }
  std::vector<HeadReading> readings;
  for (const BinsAndClasses& parts : find_bins(evidence)) {
    readings.push_back(distance_bins_reading(evidence, parts));
  }
  return readings;
}

}  // namespace olvex_tools
