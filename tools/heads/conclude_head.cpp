// conclude_head.cpp - asks the concluder of each family.
#include "tools/heads/conclude_head.h"

#include <algorithm>

#include "tools/common/text.h"
#include "tools/heads/head_evidence.h"
#include "tools/heads/network_metadata.h"

namespace olvex_tools {

namespace {

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
