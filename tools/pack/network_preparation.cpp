// SPDX-License-Identifier: Apache-2.0
// network_preparation.cpp - the steps from a network's file to the one in the image, and the refusals of
// heads that cannot be concluded.
#include "tools/pack/pack.h"

#include <set>

#include "tools/common/text.h"
#include "tools/common/whole_file.h"
#include "tools/frames/frame_source.h"
#include "tools/inside/network_head.h"
#include "tools/inside/network_trial.h"
#include "tools/network/selection_tail.h"

namespace olvex_tools {

namespace {

bool are_outputs_described(const PackOptions& options) {
  return !options.raw.empty() || options.boxes || options.scores || options.keypoints ||
         !options.description_path.empty();
}

// The command line with what was concluded in addition.
std::string command_of(const PackOptions& options, const HeadReading& reading) {
  std::string text = "olvex-det pack " + shell_word(options.network_path);
  const std::string concluded = " " + options_of(reading) + " ";
  for (const GivenOption& option : options.given) {
    if (option.name.empty() || concluded.find(" " + option.name + " ") != std::string::npos) {
      continue;
    }
    text += " " + option.name;
    for (const std::string& value : option.values) {
      text += " " + shell_word(value);
    }
  }
  return text + concluded.substr(0, concluded.size() - 1);
}

HeadReading only_reading(const PackOptions& options, const NetworkGraph& network,
                         const NetworkHead& head) {
  const std::vector<HeadReading>& readings = head.readings;
  if (readings.empty()) {
    refuse_model(options.network_path, no_head_text(network, head, options.head.family));
  }
  if (readings.size() > 1) {
    std::string commands;
    for (const HeadReading& reading : readings) {
      commands += "\n  " + command_of(options, reading);
    }
    throw ToolError(kUsageError, network.path() + ": its outputs can be read in " +
                                     std::to_string(readings.size()) + " ways (" +
                                     outputs_text(network) + "). Choose one:" + commands);
  }
  return readings.front();
}

// Options of facts that this head does not have.
std::vector<std::string> notes_on_options(const PackOptions& options, const HeadReading& reading) {
  static const std::set<std::string> kOfHeads = {
      "--strides",    "--anchors",          "--prior-sizes",
      "--variances",  "--score-powers",     "--class-count",
      "--bins",       "--class-activation", "--centre-curve",
      "--size-curve", "--cell-centre",      "--objectness-activation",
      "--box-order",  "--box-unit",         "--box-axes",
      "--background", "--keypoint-values",  "--keypoint-activation",
      "--row-order"};
  const std::string concluded = " " + options_of(reading) + " ";
  std::vector<std::string> notes;
  for (const GivenOption& option : options.given) {
    if (kOfHeads.count(option.name) > 0 &&
        concluded.find(" " + option.name + " ") == std::string::npos) {
      notes.push_back(option.name + " changes nothing, as the head is " + reading.head.family);
    }
  }
  return notes;
}

template <typename Value>
void fill_in(std::optional<Value>* option, const Value& value) {
  if (!*option) {
    *option = value;
  }
}

void fill_in_preprocessing(const HeadReading& reading, PackOptions* options) {
  fill_in(&options->mean, reading.preprocessing.mean);
  fill_in(&options->scale, reading.preprocessing.scale);
  fill_in(&options->network_order, reading.preprocessing.order);
  fill_in(&options->resize, reading.preprocessing.resize);
  if (options->class_names_path.empty()) {
    options->class_names = reading.class_names;
  }
}

void fill_in_raw(const Head& head, PackOptions* options) {
  options->raw = head.raw_layers;
  fill_in(&options->nchw, head.raw_nchw);
  if (!head.model_out.empty() && first_value(options->pairs, kModelOutKey).empty()) {
    options->pairs.insert(options->pairs.begin(), {kModelOutKey, head.model_out});
  }
}

void fill_in_decoded(const Head& head, const DecodedOutputs& outputs, PackOptions* options) {
  options->boxes = outputs.boxes;
  options->scores = outputs.scores;
  options->box_order =
      has_centre_and_size(head) ? qv_host::BoxOrder::kCentreSize : qv_host::BoxOrder::kCornerPairs;
  options->box_fractions = head.box_fractions;
  options->background = head.background;
  if (!outputs.keypoints.empty()) {
    options->keypoints = outputs.keypoints;
    options->keypoint_values = static_cast<int>(head.keypoints.count);
  } else {
    options->keypoint_values.reset();
  }
}

std::optional<InputSize> size_in(const qv_host::Description& description) {
  return description.input.width == 0
             ? std::nullopt
             : std::make_optional(InputSize{description.input.width, description.input.height});
}

void conclude_and_append(const PackOptions& options, const cv::Mat& picture,
                         PreparedNetwork* prepared) {
  const NetworkHead found = conclude_network_head(
      {options.input, options.head, first_value(options.pairs, kModelOutKey), prepared->selection},
      prepared->graph, picture);
  ConcludedHead head;
  head.uncut = found.uncut;
  head.outputs = names_of(prepared->graph.outputs());
  head.reading = only_reading(options, prepared->graph, found);
  head.command = command_of(options, head.reading);
  prepared->notes = notes_on_options(options, head.reading);
  fill_in_preprocessing(head.reading, &prepared->options);
  if (head.reading.head.raw_layers.empty()) {
    const DecodedOutputs outputs = append_decoding(head.reading.head, &prepared->graph);
    fill_in_decoded(head.reading.head, outputs, &prepared->options);
  } else {
    fill_in_raw(head.reading.head, &prepared->options);
  }
  prepared->head = head;
}

// What selects boxes at the end of the network; the tables that are left are decoded.
void cut_and_note(PreparedNetwork* prepared) {
  const SelectionCut cut = cut_selection(&prepared->graph);
  if (!cut.obstacle.empty()) {
    throw ToolError(kModelError, prepared->graph.path() + ": " + one_line(cut.obstacle) +
                                     ". Export it without its last stage: the library selects");
  }
  prepared->rewrites.insert(prepared->rewrites.end(), cut.lines.begin(), cut.lines.end());
  prepared->selection = cut.selection;
  if (cut.decoded_tables) {
    fill_in(&prepared->options.head.family, std::string(kDecodedTables));
  }
}

}  // namespace

PreparedNetwork prepare_network(const PackOptions& options, const qv_host::Description& start,
                                const std::function<cv::Mat()>& picture) {
  const std::vector<char> file = read_whole_file("the network", options.network_path);
  require_harmless_reading(options.network_path, file.size(), [&] {
    NetworkGraph graph(options.network_path, file);
    make_static(size_in(start), &graph);
    cut_selection(&graph);
    fit_to_engine(&graph);
  });
  PreparedNetwork prepared = {
      NetworkGraph(options.network_path, file), file, {}, {}, {}, {}, options};
  prepared.rewrites = make_static(size_in(start), &prepared.graph);
  silence_opencv();
  if (!are_outputs_described(options)) {
    cut_and_note(&prepared);
    const PackOptions known = prepared.options;
    conclude_and_append(known, picture(), &prepared);
  }
  return prepared;
}

void finish_network(PreparedNetwork* prepared) {
  const bool changed = prepared->head || !prepared->rewrites.empty();
  prepared->portable = changed ? prepared->graph.bytes() : prepared->bytes;
  const std::vector<std::string> own = fit_to_engine(&prepared->graph);
  prepared->rewrites.insert(prepared->rewrites.end(), own.begin(), own.end());
  require_known_operators(prepared->graph);
  prepared->bytes = own.empty() ? prepared->portable : prepared->graph.bytes();
}

}  // namespace olvex_tools
