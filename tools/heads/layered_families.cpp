// layered_families.cpp - heads with outputs for each stride: anchors, distance bins, class and objectness,
// score and distance, one layer with a formula of its own, and the library's own layers. Declared in
// head_evidence.h.
#include <algorithm>
#include <map>
#include <optional>

#include "tools/common/text.h"
#include "tools/heads/head_evidence.h"

namespace olvex_tools {

namespace {

constexpr std::int64_t kBox = 4;
constexpr std::int64_t kUsualBins[] = {8, 16, 17, 32};

bool are_usual_bins(std::int64_t bins) {
  return std::find(std::begin(kUsualBins), std::end(kUsualBins), bins) != std::end(kUsualBins);
}

bool has_obj_in_name(const RowKind& kind) {
  return in_lower_case(kind.tensors.front().output).find("obj") != std::string::npos;
}

// The kinds by what they hold; null where there is none of the sort.
struct KindsOfParts {
  const RowKind* classes = nullptr;
  const RowKind* objectness = nullptr;
  const RowKind* box = nullptr;
  const RowKind* points = nullptr;
  std::size_t known = 0;
};

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
  for (const RowKind& kind : evidence.layout().kinds) {
    const bool is_score = evidence.is_probability({kind, 0, kind.channels});
    if (!is_score && kind.channels == kBox) {
      take(kind, &parts.box);
    } else if (!is_score && kind.channels >= 2 * kBox &&
               kind.channels != evidence.known_classes()) {
      take(kind, &parts.points);
    } else {
      scores.push_back(&kind);
    }
  }
  // The one of a single channel is the objectness; between two such ones the name decides.
  const bool two = scores.size() == 2;
  const bool second =
      two && scores[1]->channels == 1 && (scores[0]->channels > 1 || !has_obj_in_name(*scores[0]));
  if (two && (second || scores[0]->channels == 1)) {
    take(*scores[second ? 1 : 0], &parts.objectness);
    take(*scores[second ? 0 : 1], &parts.classes);
  } else if (scores.size() == 1) {
    take(*scores.front(), &parts.classes);
  }
  return parts;
}

// Planes of several anchors: the layout with the values of a row instead of those of a cell.
HeadLayout with_anchors(HeadLayout layout, std::int64_t anchors) {
  layout.anchors = anchors;
  layout.rows *= anchors;
  for (RowKind& kind : layout.kinds) {
    kind.channels /= anchors;
    for (HeadTensor& tensor : kind.tensors) {
      tensor.rows *= anchors;
      tensor.channels /= anchors;
      tensor.anchors = anchors;
    }
  }
  return layout;
}

// Distances and classes: where each begins in the same or in another kind.
struct BinsAndClasses {
  Channels bins;
  Channels classes;
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
                    !holds_scores(evidence, bins) && !evidence.is_decoded(bins);
  if (fits) {
    found->push_back({bins, classes});
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
  return found;
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
  return most_likely(evidence, found);
}

HeadReading distance_bins_reading(const HeadEvidence& evidence, const BinsAndClasses& parts) {
  const std::int64_t bins = parts.bins.count / kBox;
  HeadReading reading = begin_reading(
      evidence, "distance-bins", "class scores, and the shares of bins for each side's distance");
  add_fact(&reading,
           std::to_string(bins) + " bins for each of four sides, " +
               (parts.bins.first == 0 && &parts.bins.kind.get() == &parts.classes.kind.get()
                    ? "in front of the classes"
                    : "behind or apart from the classes"),
           "--bins " + std::to_string(bins));
  Head& head = reading.head;
  head.boxes = evidence.part(parts.bins);
  head.box_code = BoxCode::kDistances;
  head.bins = bins;
  // Those of four strides count from the cells' corners.
  set_cell_references(evidence, evidence.layout().strides.size() == 4 ? 0 : .5, &reading);
  head.classes =
      evidence.probability(parts.classes, evidence.options().class_activation, "class", &reading);
  conclude_class_count(evidence, parts.classes.count, &reading);
  return reading;
}

// Usual boxes of the anchors in pixels, by stride.
const std::map<int, std::vector<BoxSize>>& usual_anchors() {
  static const std::map<int, std::vector<BoxSize>> kAnchors = {
      {8, {{10, 13}, {16, 30}, {33, 23}}},
      {16, {{30, 61}, {62, 45}, {59, 119}}},
      {32, {{116, 90}, {156, 198}, {373, 326}}}};
  return kAnchors;
}

std::optional<SizesOfLayers> anchors_of(const HeadEvidence& evidence) {
  if (evidence.options().anchors) {
    return evidence.options().anchors;
  }
  SizesOfLayers sizes;
  for (const int stride : evidence.layout().strides) {
    const auto found = usual_anchors().find(stride);
    if (found == usual_anchors().end()) {
      return std::nullopt;
    }
    sizes.push_back(found->second);
  }
  return evidence.layout().strides.size() == usual_anchors().size() ? std::make_optional(sizes)
                                                                    : std::nullopt;
}

const char* word_of(CentreCurve curve) {
  switch (curve) {
    case CentreCurve::kSigmoid:
      return "sigmoid";
    case CentreCurve::kTanh:
      return "tanh";
    case CentreCurve::kTwice:
      return "twice";
    case CentreCurve::kTwiceSigmoid:
      return "twice-sigmoid";
    case CentreCurve::kIdentity:
      break;
  }
  return "none";
}

const char* word_of(SizeCurve curve) {
  switch (curve) {
    case SizeCurve::kSigmoid:
      return "sigmoid";
    case SizeCurve::kSquare:
      return "square";
    case SizeCurve::kSquareOfSigmoid:
      return "square-of-sigmoid";
    case SizeCurve::kExponential:
      break;
  }
  return "exponential";
}

void conclude_curves(const HeadEvidence& evidence, CentreCurve usual_centre, SizeCurve usual_size,
                     HeadReading* reading) {
  const HeadOptions& options = evidence.options();
  Head& head = reading->head;
  head.centre_curve = options.centre_curve.value_or(usual_centre);
  head.size_curve = options.size_curve.value_or(usual_size);
  add_fact(reading,
           std::string("curve of the centres: ") + word_of(head.centre_curve) +
               (options.centre_curve ? "" : ", as usual"),
           std::string("--centre-curve ") + word_of(head.centre_curve));
  add_fact(reading,
           std::string("curve of the sizes: ") + word_of(head.size_curve) +
               (options.size_curve ? "" : ", as usual"),
           std::string("--size-curve ") + word_of(head.size_curve));
}

HeadReading anchors_reading(const HeadEvidence& evidence, const SizesOfLayers& anchors) {
  const RowKind& kind = evidence.layout().kinds.front();
  const std::int64_t classes = kind.channels - kBox - 1;
  HeadReading reading = begin_reading(evidence, "anchors",
                                      "for each anchor of a cell box, objectness and " +
                                          counted(classes, "class", "classes") + ", undecoded");
  add_fact(&reading,
           evidence.options().anchors ? "anchors: as --anchors says"
                                      : "anchors: the usual ones of these strides",
           "--anchors " + describe(anchors));
  set_sized_references(evidence, evidence.layout().strides, anchors, 0, 0, &reading);
  Head& head = reading.head;
  head.boxes = evidence.part({kind, 0, kBox});
  head.box_code = BoxCode::kOffsets;
  const bool done = evidence.is_probability({kind, 0, kBox});
  conclude_curves(evidence, done ? CentreCurve::kTwice : CentreCurve::kTwiceSigmoid,
                  done ? SizeCurve::kSquare : SizeCurve::kSquareOfSigmoid, &reading);
  head.objectness = evidence.probability({kind, kBox, 1}, evidence.options().objectness_activation,
                                         "objectness", &reading);
  head.classes = evidence.probability({kind, kBox + 1, classes},
                                      evidence.options().class_activation, "class", &reading);
  conclude_class_count(evidence, classes, &reading);
  return reading;
}

bool all_layers_have(const SizesOfLayers& sizes, std::size_t layers, std::int64_t anchors) {
  return sizes.size() == layers &&
         std::all_of(sizes.begin(), sizes.end(), [&](const std::vector<BoxSize>& layer) {
           return static_cast<std::int64_t>(layer.size()) == anchors;
         });
}

}  // namespace

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

std::vector<HeadReading> conclude_anchors(const HeadEvidence& evidence) {
  const HeadLayout& given = evidence.layout();
  const std::optional<SizesOfLayers> sizes = anchors_of(evidence);
  if (given.kinds.size() != 1 || !sizes || given.strides.size() != sizes->size()) {
    return {};
  }
  const auto anchors = static_cast<std::int64_t>(sizes->front().size());
  const std::int64_t all = given.kinds.front().channels;
  const bool fits_planes = given.planes && given.layered && all % anchors == 0;
  if (!fits_planes && given.anchors != anchors) {
    return {};
  }
  HeadLayout layout = fits_planes ? with_anchors(given, anchors) : given;
  layout.anchors_first = !fits_planes;
  if (!all_layers_have(*sizes, layout.strides.size(), anchors)) {
    return {};
  }
  const HeadEvidence own(evidence.question(), layout);
  const RowKind& kind = layout.kinds.front();
  const bool asked = evidence.is_asked_for("anchors");
  const std::int64_t known = evidence.known_classes();
  // Distance bins and classes side by side end one kind of value within the planes.
  const bool one_kind = !fits_planes || given.kinds.front().runs.size() < 2;
  const bool fits = kind.channels > kBox + 1 && (known == 0 || known == kind.channels - kBox - 1) &&
                    !own.is_decoded({kind, 0, kBox}) && one_kind;
  return fits || (asked && kind.channels > kBox + 1)
             ? std::vector<HeadReading>{anchors_reading(own, *sizes)}
             : std::vector<HeadReading>();
}

std::vector<HeadReading> conclude_class_objectness_box(const HeadEvidence& evidence) {
  const HeadLayout& layout = evidence.layout();
  const KindsOfParts parts = sort_kinds(evidence);
  const bool fits = parts.known == layout.kinds.size() && parts.box != nullptr &&
                    parts.classes != nullptr && parts.objectness != nullptr &&
                    layout.anchors == 1 && !layout.strides.empty() &&
                    !evidence.is_decoded({*parts.box, 0, kBox});
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
  if (has_points) {
    head.objectness_power = .5;
    head.class_power = .5;
  }
  add_fact(&reading, has_points
                         ? "score: square root of class x objectness, as usual beside key points"
                         : "score: class x objectness");
  conclude_class_count(evidence, parts.classes->channels, &reading);
  if (has_points) {
    conclude_points(evidence, {*parts.points, 0, parts.points->channels}, PointCode::kOffsets,
                    &reading);
  }
  return {reading};
}

std::vector<HeadReading> conclude_score_distance(const HeadEvidence& evidence) {
  const HeadLayout& given = evidence.layout();
  if (!given.layered || given.kinds.size() < 2 || given.kinds.size() > 3) {
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
                    parts.classes != nullptr && parts.objectness == nullptr &&
                    !own.is_decoded({*parts.box, 0, kBox});
  if (!fits) {
    return {};
  }
  const bool has_points = parts.points != nullptr;
  HeadReading reading = begin_reading(own, "score-distance",
                                      std::string("scores, distances of the sides") +
                                          (has_points ? " and key points" : "") + " apart");
  Head& head = reading.head;
  head.boxes = own.part({*parts.box, 0, kBox});
  head.box_code = BoxCode::kDistances;
  set_cell_references(own, has_points || anchors == 2 ? 0 : .5, &reading);
  head.classes = own.probability({*parts.classes, 0, parts.classes->channels},
                                 own.options().class_activation, "class", &reading);
  conclude_class_count(own, parts.classes->channels, &reading);
  if (has_points) {
    conclude_points(own, {*parts.points, 0, parts.points->channels}, PointCode::kOffsets, &reading);
  }
  return {reading};
}

std::vector<HeadReading> conclude_own_formula(const HeadEvidence& evidence) {
  const HeadLayout& layout = evidence.layout();
  if (layout.kinds.size() != 1 || layout.strides.size() != 1 || layout.anchors != 1) {
    return {};
  }
  const RowKind& kind = layout.kinds.front();
  const std::int64_t classes = kind.channels - kBox - 1;
  if (classes < 1) {
    return {};
  }
  const bool fits =
      evidence.is_probability({kind, 0, 1}) && !evidence.is_probability({kind, 1, kBox}) &&
      !evidence.is_decoded({kind, 1, kBox}) && evidence.is_probability({kind, kBox + 1, classes});
  if (!fits && !evidence.is_asked_for("own-formula")) {
    return {};
  }
  HeadReading reading = begin_reading(evidence, "own-formula",
                                      "one layer of objectness, box and classes, in this order");
  Head& head = reading.head;
  head.boxes = evidence.part({kind, 1, kBox});
  head.box_code = BoxCode::kOffsets;
  set_cell_references(evidence, 0, &reading);
  for (ReferenceBox& reference : head.references) {
    reference.width = static_cast<double>(evidence.question().size.width);
    reference.height = static_cast<double>(evidence.question().size.height);
  }
  conclude_curves(evidence, CentreCurve::kTanh, SizeCurve::kSigmoid, &reading);
  add_fact(&reading, "sizes are fractions of the input");
  head.objectness = evidence.probability({kind, 0, 1}, evidence.options().objectness_activation,
                                         "objectness", &reading);
  head.classes =
      evidence.probability({kind, kBox + 1, classes}, evidence.options().class_activation, "class",
                           &reading, Activation::kSoftmax);
  head.objectness_power = .6;
  head.class_power = .4;
  add_fact(&reading, "score: objectness ^ 0.6 x class ^ 0.4, as usual");
  conclude_class_count(evidence, classes, &reading);
  return {reading};
}

std::vector<HeadReading> conclude_raw(const HeadEvidence& evidence) {
  const HeadLayout& layout = evidence.layout();
  const InputSize& size = evidence.question().size;
  const bool three_layers = layout.layered && layout.strides.size() == 3 &&
                            layout.kinds.size() == 1 && !layout.anchors_first &&
                            (layout.planes || layout.anchors == 1);
  if (!three_layers ||
      evidence.is_probability({layout.kinds.front(), 0, layout.kinds.front().channels})) {
    return {};
  }
  const RowKind& kind = layout.kinds.front();
  for (std::size_t i = 0; i < layout.strides.size(); ++i) {
    const bool whole = size.width % layout.strides[i] == 0 && size.height % layout.strides[i] == 0;
    const auto shape = evidence.question().network.shape_of(kind.tensors[i].output);
    if (!whole || !shape || shape->size() != 4) {
      return {};
    }
  }
  std::vector<HeadReading> readings;
  for (const RawWord& word : evidence.question().raw_words) {
    const bool is_bins =
        kind.runs.size() > 1 && !evidence.is_asked_for("raw") && !find_bins(evidence).empty();
    if (word.channels != kind.channels || is_bins) {
      continue;
    }
    HeadReading reading =
        begin_reading(evidence, "raw",
                      "three layers of " + std::to_string(kind.channels) +
                          " channels, which the library decodes itself: " + word.meaning);
    for (const HeadTensor& tensor : kind.tensors) {
      reading.head.raw_layers.push_back(tensor.output);
    }
    reading.head.raw_nchw = layout.planes;
    reading.head.boxes = evidence.part({kind, 0, kBox});
    reading.head.box_code = BoxCode::kDistances;
    reading.head.bins = 0;
    reading.head.classes = evidence.part({kind, kBox, word.classes});
    reading.head.classes.activation = Activation::kSigmoid;
    reading.head.class_count = word.classes;
    set_cell_references(evidence, .5, &reading);
    reading.facts.pop_back();  // the library counts from there anyway
    reading.head.model_out = word.word;
    add_fact(&reading,
             word.word.empty() ? "model_out: none needed, it goes by the channels"
                               : "model_out: " + word.word,
             word.word.empty() ? "" : "--model-out " + word.word);
    readings.push_back(reading);
  }
  return readings;
}

}  // namespace olvex_tools
