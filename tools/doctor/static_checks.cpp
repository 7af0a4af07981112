// SPDX-License-Identifier: Apache-2.0
// static_checks.cpp - the checks that need no picture: the description, the shapes of the outputs, and what
// the library makes of them. Declared in doctor.h.
#include <algorithm>
#include <cstdint>
#include <functional>
#include <utility>

#include "tools/common/text.h"
#include "tools/doctor/doctor.h"
#include "tools/inside/foreign_platform.h"
#include "tools/network/network_graph.h"

namespace olvex_tools {

namespace {

using qv_host::Description;

// The extents of a raw layer, as the library gets them.
struct LayerExtents {
  unsigned height, width, channels;
};

LayerExtents extents_of(const TensorFacts& tensor) {
  return {tensor.shape[1], tensor.shape[2], tensor.shape[3]};
}

// Those that the other layout would give.
LayerExtents in_other_layout(const TensorFacts& tensor, bool nchw) {
  const LayerExtents now = extents_of(tensor);
  return nchw ? LayerExtents{now.channels, now.height, now.width}
              : LayerExtents{now.width, now.channels, now.height};
}

bool is_grid_of(const LayerExtents& layer, const qv_host::InputDescription& input) {
  const auto width = static_cast<unsigned>(input.width);
  const auto height = static_cast<unsigned>(input.height);
  return layer.width > 0 && layer.height > 0 && width % layer.width == 0 &&
         height % layer.height == 0 && width / layer.width == height / layer.height;
}

bool is_raw(const ExaminedModel& examined) {
  return examined.image.description.kind == qv_host::OutputKind::kRaw &&
         examined.facts.outputs.size() == examined.image.description.raw.size();
}

std::string word_of(const ExaminedModel& examined) {
  return first_value(examined.facts.valid_pairs, kModelOutKey);
}

// Whether the layers are no grids of cells, and would be in the other layout.
bool are_planes_for_cells(const ExaminedModel& examined) {
  const Description& description = examined.image.description;
  bool now = true;
  bool other = true;
  for (std::size_t i = 0; i < examined.facts.outputs.size(); ++i) {
    const TensorFacts& tensor = examined.facts.outputs[i];
    const LayerExtents swapped = in_other_layout(tensor, description.raw[i].nchw);
    now = now && is_grid_of(extents_of(tensor), description.input);
    other = other && is_grid_of(swapped, description.input);
  }
  return other && !now;
}

Outcome found_layout(const ExaminedModel& examined) {
  const Description& description = examined.image.description;
  const auto text = [](const TensorFacts& tensor) { return describe(tensor); };
  return found("the library gets " + join(examined.facts.outputs, ", ", text) +
                   " for an input of " +
                   size_text(description.input.width, description.input.height),
               "planes are taken for cells: height, width and channels of the layers are mixed up",
               std::string("pack with --layout ") + (description.raw[0].nchw ? "nhwc" : "nchw"));
}

std::string words_for(const std::function<bool(const TypeCounts&)>& fits) {
  std::vector<std::string> words;
  for (const std::string& word : type_words()) {
    if (fits(counts_of_word(word))) {
      words.push_back(word);
    }
  }
  return join(words, " or ");
}

// "pack with --model-out zrpcnh", or without a word where none fits.
std::string word_remedy(const std::string& words) {
  return words.empty() ? "pack without --model-out: the library has no word for these outputs"
                       : "pack with --model-out " + words;
}

// The word does not fit the channels of the raw layers, which do fit the input.
Outcome found_word(const ExaminedModel& examined, int channels) {
  const auto fits = [channels](const TypeCounts& counts) { return channels_fit(counts, channels); };
  return found("the model_out word \"" + word_of(examined) + "\" stands for layers of " +
                   describe_channels(counts_of_word(word_of(examined))) +
                   " channels, and these have " + std::to_string(channels),
               "the library finds no box", word_remedy(words_for(fits)));
}

// Score columns that are classes; 0 when the network leaves their number open.
int class_columns(const ExaminedModel& examined) {
  const qv_host::DecodedOutput& decoded = examined.image.description.decoded;
  const NetworkGraph network(examined.path, examined.image.network);
  for (const NetworkTensor& tensor : network.outputs()) {
    if (tensor.name == decoded.scores && !tensor.shape.empty()) {
      const auto columns = static_cast<int>(std::min<std::int64_t>(tensor.shape.back(), INT16_MAX));
      return std::max(0, columns - (decoded.background >= 0 ? 1 : 0));
    }
  }
  return 0;
}

int class_count(const ExaminedModel& examined) {
  const Description& description = examined.image.description;
  if (description.kind == qv_host::OutputKind::kRaw) {
    return examined.facts.decoding.counts.classes;
  }
  return description.decoded.emit_classes ? class_columns(examined) : 0;
}

Outcome found_class_count(const ExaminedModel& examined, int declared, int classes) {
  const bool background =
      declared == classes - 1 && examined.image.description.decoded.background < 0;
  const auto fits = [classes](const TypeCounts& counts) {
    return counts.known && counts.classes == classes && counts.keypoints == 0;
  };
  return found(
      "the model_out word \"" + word_of(examined) + "\" declares " +
          counted(declared, "class", "classes") + ", the scores hold " + std::to_string(classes),
      "class ids do not mean what the word says, or are reported beyond its classes",
      word_remedy(words_for(fits)) +
          (background ? "; if a column is the background, with --background and its number" : ""));
}

// Names are by library class id: as many as the network has, or as are presented.
bool names_fit(const ExaminedModel& examined, int classes) {
  const auto names = static_cast<int>(examined.image.description.class_names.size());
  const std::string lib_out = first_value(examined.facts.valid_pairs, kLibOutKey);
  return names == 0 || names == classes ||
         (!lib_out.empty() && names == counts_of_word(lib_out).classes);
}

}  // namespace

Outcome check_decoding(Examination* examination) {
  const ExaminedModel& examined = examination->examined;
  const DecodingFacts& decoding = examined.facts.decoding;
  if (decoding.fault.empty()) {
    return passed(decoding.reason);
  }
  if (platform_is_foreign()) {  // there is no description to compare with
    return found(decoding.reason, "the library finds no box", decoding.fault);
  }
  if (is_raw(examined) && are_planes_for_cells(examined)) {
    return found_layout(examined);
  }
  const TypeCounts word = counts_of_word(word_of(examined));
  const int channels =
      is_raw(examined) ? static_cast<int>(extents_of(examined.facts.outputs[0]).channels) : 0;
  if (decoding.decoder == kDecoderCpu && word.known && !channels_fit(word, channels)) {
    return found_word(examined, channels);
  }
  return found(decoding.reason, "the library finds no box", decoding.fault);
}

Outcome check_layer_order(Examination* examination) {
  const ExaminedModel& examined = examination->examined;
  if (!is_raw(examined)) {
    return skipped("for raw layers");
  }
  std::vector<std::pair<int, std::string>> layers;  // stride and name
  for (std::size_t i = 0; i < examined.facts.outputs.size(); ++i) {
    const LayerExtents layer = extents_of(examined.facts.outputs[i]);
    if (!is_grid_of(layer, examined.image.description.input)) {
      return skipped("the layers are no grids of cells");
    }
    layers.emplace_back(examined.image.description.input.width / static_cast<int>(layer.width),
                        examined.image.description.raw[i].name);
  }
  const std::string strides =
      join(layers, ", ", [](const auto& layer) { return std::to_string(layer.first); });
  const auto not_finer = [](const auto& a, const auto& b) { return a.first >= b.first; };
  const bool in_order = std::adjacent_find(layers.begin(), layers.end(), not_finer) == layers.end();
  if (in_order) {
    return passed("strides " + strides);
  }
  std::sort(layers.begin(), layers.end());
  const bool twice =
      std::adjacent_find(layers.begin(), layers.end(), [](const auto& a, const auto& b) {
        return a.first == b.first;
      }) != layers.end();
  return found(
      "strides " + strides + " in the order of the layers",
      twice ? "two layers have the same stride: one of another stride is missing"
            : "the layers do not go from fine to coarse, as --raw and --raw-scale expect them",
      twice
          ? "pack with --raw and one layer of each stride"
          : "pack with --raw " + join(layers, " ", [](const auto& layer) { return layer.second; }));
}

Outcome check_classes(Examination* examination) {
  const ExaminedModel& examined = examination->examined;
  if (!examined.facts.decoding.fault.empty()) {
    return skipped("needs outputs that the library can decode");
  }
  const int classes = class_count(examined);
  if (classes <= 0) {
    return skipped("the outputs do not tell their classes");
  }
  const TypeCounts word = counts_of_word(word_of(examined));
  if (word.known && word.classes != classes) {
    return found_class_count(examined, word.classes, classes);
  }
  if (!names_fit(examined, classes)) {
    const std::size_t names = examined.image.description.class_names.size();
    return found(counted(names, "class name", "class names") + " for " +
                     counted(classes, "class", "classes"),
                 "names are missing, or belong to other classes",
                 "pack with --class-names and a file of " + std::to_string(classes) + " lines");
  }
  return passed(counted(classes, "class", "classes"));
}

Outcome check_input_values(Examination* examination) {
  const qv_host::InputDescription& input = examination->examined.image.description.input;
  const std::size_t planes = input.network_order == qv_host::ColourOrder::kGray ? 1 : 3;
  const auto end = input.scale.begin() + static_cast<std::ptrdiff_t>(planes);
  if (std::find(input.scale.begin(), end, 0.f) != end) {
    return found("the scale of the input is 0", "the network sees the same in every picture",
                 "pack with the --scale of its training, such as 1/255");
  }
  return passed("the scale is not 0");
}

}  // namespace olvex_tools
