// network_preparation.cpp - the steps from a network's file to the one in the image, and the refusals of
// heads that cannot be concluded.
#include "tools/pack/network_preparation.h"

#include <algorithm>
#include <map>

#include "tools/common/text.h"
#include "tools/common/whole_file.h"
#include "tools/frames/frame_source.h"
#include "tools/inside/network_trial.h"
#include "tools/network/selection_tail.h"
#include "tools/pack/engine_run.h"

namespace olvex_tools {

namespace {

std::string outputs_text(const NetworkGraph& network) {
  std::vector<std::string> texts;
  for (const NetworkTensor& output : network.outputs()) {
    texts.push_back(describe(output));
  }
  return join(texts, ", ");
}

bool is_side(std::int64_t pixels) {
  constexpr std::int64_t kMost = 8192;
  return pixels > 0 && pixels <= kMost;
}

// The input that takes the picture, of four known dimensions.
NetworkTensor picture_input(const PackOptions& options, const NetworkGraph& network) {
  for (const NetworkTensor& input : network.inputs()) {
    const bool chosen = options.input ? input.name == *options.input : network.inputs().size() == 1;
    if (chosen && input.shape.size() == 4 && is_side(input.shape[2]) && is_side(input.shape[3])) {
      return input;
    }
  }
  throw ToolError(kModelError,
                  network.path() +
                      ": a head can be concluded for one input of 1 x planes x height x "
                      "width only. Name it with --input, or say what the outputs are: "
                      "--boxes NAME --scores NAME");
}

bool are_outputs_described(const PackOptions& options) {
  return !options.raw.empty() || options.boxes || options.scores || options.keypoints ||
         !options.description_path.empty();
}

// The words of model_out by the channels of a layer: what the library takes without a word comes first, and
// the words only where there is nothing such.
std::vector<RawWord> raw_words(const PackOptions& options) {
  const std::string given = first_value(options.pairs, kModelOutKey);
  std::map<std::int64_t, std::vector<RawWord>> by_channels;
  for (const std::string& word : type_words()) {
    const TypeCounts counts = counts_of_word(word);
    for (const std::int64_t values : {3, 2}) {
      const std::int64_t channels = 4 + counts.classes + values * counts.keypoints;
      const TypeCounts guess = guess_counts(static_cast<int>(channels));
      const bool needs_no_word = given.empty() && guess.known && guess.classes == counts.classes &&
                                 guess.keypoints == counts.keypoints;
      const std::string meaning = counted(counts.classes, "class", "classes") + ", " +
                                  counted(counts.keypoints, "key point", "key points");
      std::vector<RawWord>& words = by_channels[channels];
      const bool known = std::any_of(words.begin(), words.end(),
                                     [](const RawWord& other) { return other.word.empty(); });
      const bool same = !words.empty() && words.back().word == word;
      if (!known && !same && (given.empty() || given == word)) {
        words.push_back({needs_no_word ? "" : word, channels, counts.classes, meaning});
      }
    }
  }
  std::vector<RawWord> all;
  for (const auto& [channels, words] : by_channels) {
    all.insert(all.end(), words.begin(), words.end());
  }
  return all;
}

// The engine's own threads would not be there in a child process.
class SingleThread {
 public:
  SingleThread() { cv::setNumThreads(1); }
  ~SingleThread() { cv::setNumThreads(-1); }
  SingleThread(const SingleThread&) = delete;
  SingleThread& operator=(const SingleThread&) = delete;
};

// What the network computes for the picture, in the preprocessing that is given, or unscaled to 0..1: what
// kind of values the outputs hold does not depend on it.
OutputValues look_at_outputs(const PackOptions& options, const NetworkGraph& network,
                             const std::vector<char>& bytes, const NetworkTensor& tensor,
                             const cv::Mat& picture) {
  InputValues input;
  input.name = tensor.name;
  input.width = static_cast<int>(tensor.shape[3]);
  input.height = static_cast<int>(tensor.shape[2]);
  input.order = tensor.shape[1] == 1 ? qv_host::ColourOrder::kGray
                                     : options.network_order.value_or(qv_host::ColourOrder::kRgb);
  input.mean = options.mean.value_or(input.mean);
  input.scale = options.scale.value_or(ThreeNumbers{{1.f / 255.f, 1.f / 255.f, 1.f / 255.f}});
  const auto run = [&] {
    return EngineRun(bytes, network.path(), names_of(network.outputs()), true).run(picture, input);
  };
  require_harmless_work(network.path(), bytes.size(), run);
  const SingleThread single;  // the image is tried in a child later
  const OutputValues values = run();
  for (const NetworkTensor& output : network.outputs()) {
    const auto count = static_cast<std::int64_t>(values.at(output.name).size());
    if (count == 0 || count != elements_of(output.shape)) {
      throw ToolError(kModelError, network.path() + ": the network says that its output is " +
                                       describe(output) + ", and computes " +
                                       counted(count, "value", "values") +
                                       ". Export it again with fixed sizes");
    }
  }
  return values;
}

std::string quoted(const std::string& word) {
  const bool plain =
      !word.empty() && word.find_first_not_of(
                           "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
                           "%+,-./:=@_") == std::string::npos;
  std::string text = "'";
  for (const char letter : word) {
    text += letter == '\'' ? "'\\''" : std::string(1, letter);
  }
  return plain ? word : text + "'";
}

// The command line with what was concluded in addition.
std::string command_of(const PackOptions& options, const HeadReading& reading) {
  std::string text = "olvex-det pack " + quoted(options.network_path);
  const std::string concluded = " " + options_of(reading) + " ";
  for (const GivenOption& option : options.given) {
    if (option.name.empty() || concluded.find(" " + option.name + " ") != std::string::npos) {
      continue;
    }
    text += " " + option.name;
    for (const std::string& value : option.values) {
      text += " " + quoted(value);
    }
  }
  return text + concluded.substr(0, concluded.size() - 1);
}

[[noreturn]] void refuse_unknown_head(const PackOptions& options, const NetworkGraph& network,
                                      const InputSize& size) {
  std::string families;
  for (const HeadFamily& family : head_families()) {
    families += format("\n  %-22s", family.name.c_str()) + family.outputs;
  }
  throw ToolError(
      kModelError,
      network.path() + ": " +
          (options.head.family ? "the outputs do not fit --head " + *options.head.family
                               : "no known head fits the outputs") +
          ". Input " + std::to_string(size.width) + "x" + std::to_string(size.height) +
          ", outputs: " + outputs_text(network) +
          ". Say what they are, --boxes NAME --scores NAME or --raw OUT1 OUT2 OUT3, or name the "
          "head, --head FAMILY:" +
          families);
}

HeadReading only_reading(const PackOptions& options, const NetworkGraph& network,
                         const InputSize& size, const std::vector<HeadReading>& readings) {
  if (readings.empty()) {
    refuse_unknown_head(options, network, size);
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

// The network with its own outputs, as the engine takes it.
std::vector<char> uncut_network(const NetworkGraph& graph) {
  NetworkGraph copy = graph;
  fit_to_engine(&copy);
  require_known_operators(copy);
  return copy.bytes();
}

void conclude_and_append(const PackOptions& options, const cv::Mat& picture,
                         PreparedNetwork* prepared) {
  ConcludedHead head;
  const NetworkTensor input = picture_input(options, prepared->graph);
  const InputSize size = {input.shape[3], input.shape[2]};
  head.uncut = uncut_network(prepared->graph);
  head.outputs = names_of(prepared->graph.outputs());
  const OutputValues values = look_at_outputs(options, prepared->graph, head.uncut, input, picture);
  const HeadQuestion question = {prepared->graph,        size,   options.head, raw_words(options),
                                 prepared->axes_unknown, &values};
  head.reading = only_reading(options, prepared->graph, size, conclude_head(question));
  head.command = command_of(options, head.reading);
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
  prepared->axes_unknown = cut.suppressed;
  if (cut.decoded_tables) {
    fill_in(&prepared->options.head.family, std::string("boxes-and-scores"));
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
      NetworkGraph(options.network_path, file), file, {}, {}, {}, options, false};
  prepared.rewrites = make_static(size_in(start), &prepared.graph);
  if (!are_outputs_described(options)) {
    silence_opencv();
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
