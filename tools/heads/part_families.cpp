// part_families.cpp - heads with an output for each part and stride: class, objectness, box, key points; or
// score, distances, key points. Declared in head_evidence.h.
#include <algorithm>

#include "tools/common/text.h"
#include "tools/heads/head_evidence.h"
#include "tools/heads/output_names.h"

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
  const std::optional<ValueRange> range = evidence.range({box, 0, kBox});
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

}  // namespace olvex_tools
