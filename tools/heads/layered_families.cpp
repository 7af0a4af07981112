// SPDX-License-Identifier: Apache-2.0
// layered_families.cpp - heads that are layers of cells: anchors, one layer with a formula of its own, and
// the library's own three. Declared in head_evidence.h.
#include <algorithm>
#include <map>
#include <optional>

#include "tools/common/text.h"
#include "tools/heads/head_evidence.h"

namespace olvex_tools {

namespace {

constexpr std::int64_t kBox = 4;
// The boxes of a generation of networks, and how its values become boxes.
struct UsualAnchors {
  std::vector<int> strides;
  std::int64_t classes = 0;  // 0: any number
  SizesOfLayers sizes;       // pixels
  CentreCurve centre_curve = CentreCurve::kTwiceSigmoid;
  SizeCurve size_curve = SizeCurve::kSquareOfSigmoid;
  Activation class_activation = Activation::kSigmoid;
};

// Boxes in cells of 32 pixels.
SizesOfLayers in_cells(const std::vector<BoxSize>& boxes) {
  SizesOfLayers sizes(1);
  for (const BoxSize& box : boxes) {
    sizes.front().push_back({32 * box.width, 32 * box.height});
  }
  return sizes;
}

const std::vector<UsualAnchors>& usual_anchors() {
  static const std::vector<UsualAnchors> kAnchors = {
      {{8, 16, 32},
       0,
       {{{10, 13}, {16, 30}, {33, 23}},
        {{30, 61}, {62, 45}, {59, 119}},
        {{116, 90}, {156, 198}, {373, 326}}}},
      {{8, 16, 32, 64},
       0,
       {{{19, 27}, {44, 40}, {38, 94}},
        {{96, 68}, {86, 152}, {180, 137}},
        {{140, 301}, {303, 264}, {238, 542}},
        {{436, 615}, {739, 380}, {925, 792}}}},
      {{16, 32},
       0,
       {{{10, 14}, {23, 27}, {37, 58}}, {{81, 82}, {135, 169}, {344, 319}}},
       CentreCurve::kSigmoid,
       SizeCurve::kExponential},
      {{32},
       20,
       in_cells({{1.08, 1.19}, {3.42, 4.41}, {6.63, 11.38}, {9.42, 5.11}, {16.62, 10.52}}),
       CentreCurve::kSigmoid,
       SizeCurve::kExponential,
       Activation::kSoftmax},
      {{32},
       80,
       in_cells({{.57273, .677385},
                 {1.87446, 2.06253},
                 {3.33843, 5.47434},
                 {7.88282, 3.52778},
                 {9.77052, 9.16828}}),
       CentreCurve::kSigmoid,
       SizeCurve::kExponential,
       Activation::kSoftmax}};
  return kAnchors;
}

// Those given, with the curves of the newest generation, or the usual ones of these strides and channels.
std::optional<UsualAnchors> anchors_of(const HeadEvidence& evidence) {
  const HeadLayout& layout = evidence.layout();
  for (const UsualAnchors& usual : usual_anchors()) {
    const auto boxes = static_cast<std::int64_t>(usual.sizes.front().size());
    const std::int64_t channels = layout.kinds.front().channels;
    const std::int64_t of_row = layout.planes ? channels / boxes : channels;
    const bool fits = usual.classes == 0 || of_row == kBox + 1 + usual.classes;
    if (!evidence.options().anchors && fits && layout.strides == usual.strides) {
      return usual;
    }
  }
  if (!evidence.options().anchors) {
    return std::nullopt;
  }
  UsualAnchors given;
  given.sizes = *evidence.options().anchors;
  return given;
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

// Of tables; of layers the shape says it.
void conclude_row_order(const HeadEvidence& evidence, HeadReading* reading) {
  const HeadTensor& tensor = evidence.layout().kinds.front().tensors.front();
  const auto shape = evidence.question().network.shape_of(tensor.output);
  if (evidence.layout().planes || (shape && shape->size() == 5)) {
    return;
  }
  const bool anchors_first = evidence.layout().anchors_first;
  const std::string source = evidence.options().anchors_first ? ", as --row-order says"
                             : evidence.layout().knows_order  ? ", by the graph"
                                                              : "";
  add_fact(reading,
           (anchors_first ? "rows go anchor by anchor, of each the cells"
                          : "rows go cell by cell, of each the anchors") +
               source,
           std::string("--row-order ") + (anchors_first ? "anchors" : "cells"));
}

HeadReading anchors_reading(const HeadEvidence& evidence, const UsualAnchors& usual) {
  const RowKind& kind = evidence.layout().kinds.front();
  const std::int64_t classes = kind.channels - kBox - 1;
  HeadReading reading = begin_reading(evidence, "anchors",
                                      "for each anchor of a cell box, objectness and " +
                                          counted(classes, "class", "classes") + ", undecoded");
  conclude_row_order(evidence, &reading);
  add_fact(&reading,
           evidence.options().anchors ? "anchors: as --anchors says"
                                      : "anchors: the usual ones of these strides",
           "--anchors " + describe(usual.sizes));
  set_sized_references(evidence, evidence.layout().strides, usual.sizes, 0, 0, &reading);
  Head& head = reading.head;
  head.boxes = evidence.part({kind, 0, kBox});
  head.box_code = BoxCode::kOffsets;
  const bool done = evidence.is_probability({kind, 0, kBox});
  const bool squares = done && usual.size_curve == SizeCurve::kSquareOfSigmoid;
  conclude_curves(evidence, squares ? CentreCurve::kTwice : usual.centre_curve,
                  squares ? SizeCurve::kSquare : usual.size_curve, &reading);
  head.objectness = evidence.probability({kind, kBox, 1}, evidence.options().objectness_activation,
                                         "objectness", &reading);
  head.classes =
      evidence.probability({kind, kBox + 1, classes}, evidence.options().class_activation, "class",
                           &reading, usual.class_activation);
  conclude_score_powers(evidence, kProduct, "", &reading);
  conclude_class_count(classes, &reading);
  return reading;
}

bool all_layers_have(const SizesOfLayers& sizes, std::size_t layers, std::int64_t anchors) {
  return sizes.size() == layers &&
         std::all_of(sizes.begin(), sizes.end(), [&](const std::vector<BoxSize>& layer) {
           return static_cast<std::int64_t>(layer.size()) == anchors;
         });
}

}  // namespace

std::vector<HeadReading> conclude_anchors(const HeadEvidence& evidence) {
  const HeadLayout& given = evidence.layout();
  const std::optional<UsualAnchors> usual =
      given.kinds.size() == 1 ? anchors_of(evidence) : std::nullopt;
  if (!usual || given.strides.size() != usual->sizes.size()) {
    return {};
  }
  const auto anchors = static_cast<std::int64_t>(usual->sizes.front().size());
  const std::int64_t all = given.kinds.front().channels;
  const bool fits_planes = given.planes && given.layered && all % anchors == 0;
  if (!fits_planes && given.anchors != anchors) {
    return {};
  }
  const HeadLayout layout = fits_planes ? with_anchors(given, anchors) : given;
  if (!all_layers_have(usual->sizes, layout.strides.size(), anchors)) {
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
  if (!fits && !(asked && kind.channels > kBox + 1)) {
    return {};
  }
  std::vector<HeadReading> readings;
  for (const bool anchors_first : {true, false}) {
    if (!layout.knows_order || layout.anchors_first == anchors_first) {
      HeadLayout ordered = layout;
      ordered.anchors_first = anchors_first;
      readings.push_back(anchors_reading(HeadEvidence(evidence.question(), ordered), *usual));
    }
  }
  return readings;
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
  conclude_score_powers(evidence, {{.6, .4}}, ", as usual", &reading);
  conclude_class_count(classes, &reading);
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
        kind.runs.size() > 1 && !evidence.is_asked_for("raw") && may_be_distance_bins(evidence);
    const std::int64_t known = evidence.known_classes();
    if (word.channels != kind.channels || is_bins || (known != 0 && known != word.classes) ||
        evidence.is_probability({kind, kBox, word.classes})) {
      continue;
    }
    HeadReading reading =
        begin_reading(evidence, "raw",
                      "three layers of " + std::to_string(kind.channels) +
                          " channels, which the library decodes itself: " + word.meaning);
    for (const HeadTensor& tensor : kind.tensors) {
      reading.head.raw_layers.push_back(tensor.output);
    }
    reading.head.raw_nchw = kind.tensors.front().arrangement == Arrangement::kPlanes;
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
