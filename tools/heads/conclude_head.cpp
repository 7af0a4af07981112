// SPDX-License-Identifier: Apache-2.0
// conclude_head.cpp - asks the concluder of each family, and chooses the readings that the values speak for.
#include "tools/heads/conclude_head.h"

#include <algorithm>
#include <numeric>
#include <optional>

#include "tools/common/text.h"
#include "tools/heads/head_evidence.h"

namespace olvex_tools {

namespace {

double mean_of(const HeadPart& part, const OutputValues& values) {
  double sum = 0;
  double count = 0;
  for (std::int64_t i = 0; i < part.count; ++i) {
    const std::vector<float> channel = read_channel(part.tensors, part.first + i, values);
    sum = std::accumulate(channel.begin(), channel.end(), sum);
    count += static_cast<double>(channel.size());
  }
  return count > 0 ? sum / count : 0;
}

// How much lower the logits of scores are than the values of boxes; nothing where there are no logits.
std::optional<double> depth_of_scores(const Head& head, const OutputValues& values) {
  const HeadPart& scores = head.objectness.present() ? head.objectness : head.classes;
  const bool undecoded = head.box_code == BoxCode::kOffsets || head.box_code == BoxCode::kDistances;
  return undecoded && scores.activation != Activation::kNone
             ? std::make_optional(mean_of(head.boxes, values) - mean_of(scores, values))
             : std::nullopt;
}

// Any number of channels can be bins: an unusual number counts only where nothing else fits.
void drop_unlikely_bins(std::vector<HeadReading>* readings) {
  const auto unlikely = [](const HeadReading& reading) {
    return reading.head.family == "distance-bins" && !are_usual_bins(reading.head.bins);
  };
  if (!std::all_of(readings->begin(), readings->end(), unlikely)) {
    readings->erase(std::remove_if(readings->begin(), readings->end(), unlikely), readings->end());
  }
}

// Most cells show nothing: where the right values are taken for scores they are far below the others.
void keep_deepest_scores(const OutputValues& values, std::vector<HeadReading>* readings) {
  constexpr double kClear = 2;
  constexpr double kLead = 1.5;
  std::vector<double> depths;
  for (const HeadReading& reading : *readings) {
    const std::optional<double> depth = depth_of_scores(reading.head, values);
    if (!depth) {
      return;
    }
    depths.push_back(*depth);
  }
  const double most = *std::max_element(depths.begin(), depths.end());
  std::vector<HeadReading> kept;
  for (std::size_t i = 0; i < depths.size(); ++i) {
    const bool deepest = depths[i] > most - 1e-6;
    if (!deepest && !(most >= kClear && most >= kLead * depths[i])) {
      return;
    }
    if (deepest) {
      kept.push_back((*readings)[i]);
    }
  }
  for (HeadReading& reading : kept) {
    if (kept.size() < readings->size()) {
      add_fact(&reading, "its scores are logits that lie below everything else");
    }
  }
  *readings = kept;
}

// Of another set of strides; these do not matter where boxes are decoded.
bool are_same(const HeadReading& left, const HeadReading& right) {
  return left.head.family == right.head.family && left.head.references.empty() &&
         right.head.references.empty() && left.head.class_count == right.head.class_count;
}

void drop_repeated(std::vector<HeadReading>* readings) {
  std::vector<HeadReading> kept;
  for (const HeadReading& reading : *readings) {
    if (std::none_of(kept.begin(), kept.end(),
                     [&](const HeadReading& other) { return are_same(reading, other); })) {
      kept.push_back(reading);
    }
  }
  *readings = kept;
}

// Drops the readings for which less speaks than for another, or that say the same.
void keep_likely_readings(const HeadQuestion& question, std::vector<HeadReading>* readings) {
  if (!question.options.bins) {
    drop_unlikely_bins(readings);
  }
  drop_repeated(readings);
  if (readings->size() > 1 && question.values != nullptr) {
    keep_deepest_scores(*question.values, readings);
  }
}

struct KnownFamily {
  HeadFamily family;
  Concluder conclude;
};

const std::vector<KnownFamily>& known_families() {
  static const std::vector<KnownFamily> kFamilies = {
      {{"raw", "three layers that the library decodes itself"}, conclude_raw},
      {{"combined", "1 x (4 + classes + key points) x N, decoded; or 1 x N x ..."},
       conclude_combined},
      {{"end-to-end", "1 x N x 6: corners, score, number of the class"}, conclude_end_to_end},
      {{"objectness", "1 x N x (5 + classes), decoded"}, conclude_objectness},
      {{"objectness-offsets", "1 x N x (5 + classes), offsets in cells"},
       conclude_objectness_offsets},
      {{"anchors", "for each stride 1 x A (5 + classes) x H x W, or 1 x A x H x W x (5 + classes)"},
       conclude_anchors},
      {{"distance-bins", "for each stride classes and 4 x bins, apart or in one"},
       conclude_distance_bins},
      {{"class-objectness-box", "for each stride class, objectness, box, key points"},
       conclude_class_objectness_box},
      {{"score-distance", "for each stride score, distances, key points"}, conclude_score_distance},
      {{"priors", "1 x N x 4 offsets and 1 x N x classes, for each prior; key points"},
       conclude_priors},
      {{kDecodedTables, "1 x N x 4 boxes and 1 x N x classes, decoded; key points"},
       conclude_boxes_and_scores},
      {{"own-formula", "one layer 1 x (5 + classes) x H x W: objectness ^ 0.6 x class ^ 0.4"},
       conclude_own_formula}};
  return kFamilies;
}

std::vector<HeadReading> readings_of(const HeadQuestion& question,
                                     const std::vector<NetworkTensor>& outputs) {
  std::vector<HeadReading> readings;
  for (const HeadLayout& layout : lay_out(question, outputs)) {
    const HeadEvidence evidence(question, layout);
    for (const KnownFamily& known : known_families()) {
      if (question.options.family && *question.options.family != known.family.name) {
        continue;
      }
      for (HeadReading& reading : known.conclude(evidence)) {
        conclude_preprocessing(question, &reading);
        readings.push_back(std::move(reading));
      }
    }
  }
  keep_likely_readings(question, &readings);
  return readings;
}

bool is_decoded(const HeadReading& reading) {
  return reading.head.raw_layers.empty() && reading.head.references.empty();
}

// Of a network that has the layers from which it decodes among its outputs, too.
std::vector<HeadReading> readings_beside_layers(const HeadQuestion& question) {
  std::vector<NetworkTensor> tables;
  std::size_t layers = 0;
  for (const NetworkTensor& output : question.network.outputs()) {
    if (is_layer_of_cells(output, question.size)) {
      ++layers;
    } else {
      tables.push_back(output);
    }
  }
  std::vector<HeadReading> readings =
      layers == 0 || tables.empty() ? std::vector<HeadReading>() : readings_of(question, tables);
  if (!std::all_of(readings.begin(), readings.end(), is_decoded)) {
    return {};
  }
  for (HeadReading& reading : readings) {
    add_fact(&reading, counted(layers, "layer", "layers") + " beside it left out");
  }
  return readings;
}

}  // namespace

std::vector<HeadReading> conclude_head(const HeadQuestion& question) {
  const std::vector<HeadReading> readings = readings_of(question, question.network.outputs());
  return readings.empty() ? readings_beside_layers(question) : readings;
}

const std::vector<HeadFamily>& head_families() {
  static const std::vector<HeadFamily> kFamilies = [] {
    std::vector<HeadFamily> families;
    for (const KnownFamily& known : known_families()) {
      families.push_back(known.family);
    }
    return families;
  }();
  return kFamilies;
}

std::string options_of(const HeadReading& reading) {
  std::vector<std::string> options;
  for (const HeadFact& fact : reading.facts) {
    if (!fact.option.empty()) {
      options.push_back(fact.option);
    }
  }
  return join(options, " ");
}

}  // namespace olvex_tools
