// pack_options.cpp - declares pack's options and turns them into a description, with a message of
// its own for every word that does not fit. Read pack_options.h first.
#include "tools/pack/pack_options.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <utility>

#include <CLI/CLI.hpp>

#include "tools/pack/calibration.h"
#include "tools/common/command.h"
#include "tools/common/suggestion.h"
#include "tools/common/whole_file.h"

namespace olvex_tools {

namespace {

using qv_host::BoxOrder;
using qv_host::ColourOrder;
using qv_host::Description;
using qv_host::OutputKind;

constexpr long kMostCalibrationFrames = 1000000;  // by far: a few hundred settle a scale

[[noreturn]] void refuse_usage(const std::string& message) {
  throw ToolError(kUsageError, message);
}

std::string join(const std::vector<std::string>& words, const std::string& separator) {
  std::string text;
  for (const std::string& word : words) {
    text += (text.empty() ? "" : separator) + word;
  }
  return text;
}

std::string in_lower_case(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

// ---- Words and numbers --------------------------------------------------------------------------

template <typename Value>
using Choices = std::map<std::string, Value>;

template <typename Value>
Value choose(const std::string& option, const std::string& word, const Choices<Value>& choices) {
  const auto found = choices.find(in_lower_case(word));
  if (found != choices.end()) {
    return found->second;
  }
  std::vector<std::string> words;
  for (const auto& choice : choices) {
    words.push_back(choice.first);
  }
  refuse_usage(option + ": \"" + word + "\" is none of " + join(words, ", ") + "." +
               did_you_mean(word, words));
}

// The number that takes up the whole text; NaN when there is none.
double whole_number_text(const std::string& text) {
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  return text.empty() || *end != '\0' ? std::nan("") : value;
}

// A decimal number or a ratio such as 1/255.
float parse_number(const std::string& option, const std::string& text) {
  const std::size_t slash = text.find('/');
  double value = whole_number_text(text.substr(0, slash));
  if (slash != std::string::npos) {
    value /= whole_number_text(text.substr(slash + 1));
  }
  if (!std::isfinite(value) || std::fabs(value) > 3.0e38) {
    refuse_usage(option + ": \"" + text + "\" is no number. Write 0.5 or 1/255");
  }
  return static_cast<float>(value);
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts(1);
  for (const char c : text) {
    if (c == separator) {
      parts.emplace_back();
    } else {
      parts.back() += c;
    }
  }
  return parts;
}

// One number for all three, or three with commas between.
std::array<float, 3> parse_three(const std::string& option, const std::string& text) {
  const std::vector<std::string> parts = split(text, ',');
  if (parts.size() != 1 && parts.size() != 3) {
    refuse_usage(option + ": \"" + text + "\" holds " + std::to_string(parts.size()) +
                 " numbers. Give one, or three with commas between and no blanks");
  }
  std::array<float, 3> numbers = {};
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    numbers[i] = parse_number(option, parts[parts.size() == 1 ? 0 : i]);
  }
  return numbers;
}

void parse_size(const std::string& text, int* width, int* height) {
  const std::vector<std::string> parts = split(in_lower_case(text), 'x');
  const bool two = parts.size() == 2;
  const double across = two ? whole_number_text(parts[0]) : std::nan("");
  const double down = two ? whole_number_text(parts[1]) : std::nan("");
  const bool fits = across >= 1 && across <= 65535 && down >= 1 && down <= 65535 &&
                    across == std::floor(across) && down == std::floor(down);
  if (!fits) {
    refuse_usage("--size: \"" + text + "\" is no size. Write width x height, as in 640x384");
  }
  *width = static_cast<int>(across);
  *height = static_cast<int>(down);
}

// ---- Input --------------------------------------------------------------------------------------

void apply_input_format(const PackOptions& options, qv_host::InputDescription* input) {
  const Choices<QV_IPU_ELEMENT_FORMAT> formats = {{"nv12", QV_IPU_FORMAT_NV12},
                                                  {"argb8888", QV_IPU_FORMAT_ARGB8888},
                                                  {"abgr8888", QV_IPU_FORMAT_ABGR8888},
                                                  {"rgb", QV_IPU_FORMAT_U8},
                                                  {"bgr", QV_IPU_FORMAT_U8},
                                                  {"gray", QV_IPU_FORMAT_GRAY},
                                                  {"fp32", QV_IPU_FORMAT_FP32}};
  if (options.input_format) {
    input->format = choose("--input-format", *options.input_format, formats);
    const bool is_bgr = in_lower_case(*options.input_format) == "bgr";
    input->frame_order = is_bgr ? ColourOrder::kBgr : ColourOrder::kRgb;
  }
  if (options.frame_order) {
    if (input->format != QV_IPU_FORMAT_FP32) {
      refuse_usage(
          "--frame-order is for fp32 frames; the other formats say their order "
          "themselves: --input-format rgb or bgr");
    }
    input->frame_order =
        choose<ColourOrder>("--frame-order", *options.frame_order,
                            {{"rgb", ColourOrder::kRgb}, {"bgr", ColourOrder::kBgr}});
  }
}

void apply_input_options(const PackOptions& options, qv_host::InputDescription* input) {
  apply_input_format(options, input);
  if (options.input) {
    input->name = *options.input;
  }
  if (options.size) {
    parse_size(*options.size, &input->width, &input->height);
  }
  if (options.network_order) {
    input->network_order = choose<ColourOrder>(
        "--network-order", *options.network_order,
        {{"rgb", ColourOrder::kRgb}, {"bgr", ColourOrder::kBgr}, {"gray", ColourOrder::kGray}});
  }
  if (options.mean) {
    input->mean = parse_three("--mean", *options.mean);
  }
  if (options.scale) {
    input->scale = parse_three("--scale", *options.scale);
  }
}

std::string list_of(const std::vector<NetworkTensor>& tensors) {
  std::vector<std::string> texts;
  texts.reserve(tensors.size());
  for (const NetworkTensor& tensor : tensors) {
    texts.push_back(describe(tensor));
  }
  return join(texts, ", ");
}

const NetworkTensor& find_input(const std::string& name, const NetworkSignature& network) {
  if (name.empty() && network.inputs.size() == 1) {
    return network.inputs.front();
  }
  if (name.empty()) {
    throw ToolError(kModelError, "the network has several inputs: " + list_of(network.inputs) +
                                     ". Name the picture's with --input NAME");
  }
  for (const NetworkTensor& tensor : network.inputs) {
    if (tensor.name == name) {
      return tensor;
    }
  }
  throw ToolError(kModelError, "the network has no input \"" + name +
                                   "\". It has: " + list_of(network.inputs) + "." +
                                   did_you_mean(name, names_of(network.inputs)));
}

void fit_size(const NetworkTensor& tensor, qv_host::InputDescription* input) {
  const bool fixed = tensor.shape.size() == 4 && tensor.shape[2] > 0 && tensor.shape[3] > 0 &&
                     tensor.shape[2] <= 65535 && tensor.shape[3] <= 65535;
  if (!fixed && input->width == 0) {
    refuse_usage("the network leaves its input size open (" + describe(tensor) +
                 "). Give it with --size WIDTHxHEIGHT");
  }
  if (!fixed) {
    return;
  }
  const int width = static_cast<int>(tensor.shape[3]);
  const int height = static_cast<int>(tensor.shape[2]);
  if (input->width != 0 && (input->width != width || input->height != height)) {
    throw ToolError(kModelError, "the size " + std::to_string(input->width) + "x" +
                                     std::to_string(input->height) +
                                     " does not fit the network, whose input is " +
                                     describe(tensor) + ": width " + std::to_string(width) +
                                     ", height " + std::to_string(height));
  }
  input->width = width;
  input->height = height;
}

void fit_channels(const NetworkTensor& tensor, bool order_given, qv_host::InputDescription* input) {
  const std::int64_t channels = tensor.shape.size() == 4 ? tensor.shape[1] : 0;
  if (channels == 1 && !order_given) {
    input->network_order = ColourOrder::kGray;
  }
  const int described = input->network_order == ColourOrder::kGray ? 1 : 3;
  if (channels != 0 && channels != described) {
    throw ToolError(kModelError, "the network's input is " + describe(tensor) + ", with " +
                                     std::to_string(channels) + " planes, but --network-order " +
                                     "makes " + std::to_string(described) +
                                     ". Networks of 3 planes (rgb, bgr) or 1 (gray) can be packed");
  }
}

// ---- Outputs ------------------------------------------------------------------------------------

void check_output_name(const std::string& name, const NetworkSignature& network) {
  const std::vector<std::string> names = names_of(network.outputs);
  if (std::find(names.begin(), names.end(), name) == names.end()) {
    throw ToolError(kModelError, "the network has no output \"" + name + "\". It has: " +
                                     list_of(network.outputs) + "." + did_you_mean(name, names));
  }
}

void apply_raw_options(const PackOptions& options, Description* description) {
  for (std::size_t i = 0; i < options.raw.size() && i < description->raw.size(); ++i) {
    description->raw[i].name = options.raw[i];
  }
  for (std::size_t i = 0; i < description->raw.size(); ++i) {
    if (options.layout) {
      description->raw[i].nchw =
          choose<bool>("--layout", *options.layout, {{"nchw", true}, {"nhwc", false}});
    }
    if (options.raw_scale) {
      description->raw[i].scale = parse_three("--raw-scale", *options.raw_scale)[i];
    }
  }
}

void apply_keypoint_options(const PackOptions& options, const NetworkSignature& network,
                            qv_host::DecodedOutput* decoded) {
  if (options.keypoints) {
    decoded->keypoints = *options.keypoints;
    decoded->emit_classes = false;
    // The row length stands in the network unless it is left open there.
    for (const NetworkTensor& tensor : network.outputs) {
      if (tensor.name == decoded->keypoints && !tensor.shape.empty() && tensor.shape.back() > 0) {
        decoded->keypoint_values = static_cast<int>(
            std::min<std::int64_t>(tensor.shape.back(), 1000));  // far beyond what any layout takes
      }
    }
  }
  if (options.keypoint_values) {
    decoded->keypoint_values = *options.keypoint_values;
  }
}

void apply_decoded_options(const PackOptions& options, const NetworkSignature& network,
                           qv_host::DecodedOutput* decoded) {
  decoded->boxes = options.boxes.value_or(decoded->boxes);
  decoded->scores = options.scores.value_or(decoded->scores);
  if (decoded->boxes.empty() || decoded->scores.empty()) {
    refuse_usage("--boxes and --scores belong together; the network's outputs are: " +
                 list_of(network.outputs));
  }
  apply_keypoint_options(options, network, decoded);
  if (options.box_order) {
    decoded->box_order =
        choose<BoxOrder>("--box-order", *options.box_order,
                         {{"xyxy", BoxOrder::kCornerPairs}, {"cxcywh", BoxOrder::kCentreSize}});
  }
  if (options.box_unit) {
    decoded->box_fractions =
        choose<bool>("--box-unit", *options.box_unit, {{"fractions", true}, {"pixels", false}});
  }
  decoded->background = options.background.value_or(decoded->background);
  decoded->emit_classes = options.classes.value_or(decoded->emit_classes);
  decoded->max_boxes = options.max_boxes.value_or(decoded->max_boxes);
  decoded->min_score = options.min_score.value_or(decoded->min_score);
  if (options.box_scale) {
    decoded->box_scale = parse_number("--box-scale", *options.box_scale);
  }
  if (options.score_scale) {
    decoded->score_scale = parse_number("--score-scale", *options.score_scale);
  }
  if (options.keypoint_scale) {
    decoded->keypoint_scale = parse_number("--keypoint-scale", *options.keypoint_scale);
  }
}

// An option that would have no effect is a misunderstanding that the user should hear of.
void refuse_stray_options(const PackOptions& options, const Description& description) {
  const bool raw = description.kind == OutputKind::kRaw;
  const std::pair<bool, const char*> stray[] = {
      {!raw && options.layout, "--layout is for raw layers (--raw)"},
      {!raw && options.raw_scale, "--raw-scale is for raw layers (--raw)"},
      {raw && options.box_order, "--box-order is for --boxes and --scores"},
      {raw && options.box_unit, "--box-unit is for --boxes and --scores"},
      {raw && options.background, "--background is for --boxes and --scores"},
      {raw && options.classes, "--classes and --no-classes are for --boxes and --scores"},
      {raw && options.max_boxes, "--max-boxes is for --boxes and --scores"},
      {raw && options.min_score, "--min-score is for --boxes and --scores"},
      {raw && options.box_scale, "--box-scale is for --boxes and --scores"},
      {raw && options.score_scale, "--score-scale is for --boxes and --scores"},
      {options.keypoint_values && (raw || description.decoded.keypoints.empty()),
       "--keypoint-values is for --keypoints"},
      {options.keypoint_scale && (raw || description.decoded.keypoints.empty()),
       "--keypoint-scale is for --keypoints"},
      {description.output_format != QV_IPU_FORMAT_INT16 &&
           (options.raw_scale || options.box_scale || options.score_scale ||
            options.keypoint_scale),
       "--raw-scale, --box-scale, --score-scale and --keypoint-scale need --int16"},
      {description.output_format != QV_IPU_FORMAT_INT16 && options.calibration_pictures,
       "--calibrate chooses the scales of 16-bit outputs: add --int16"},
      {options.calibration_pictures && (options.raw_scale || options.box_scale ||
                                        options.score_scale || options.keypoint_scale),
       "--calibrate chooses the scales itself: leave out --raw-scale, --box-scale, --score-scale "
       "and --keypoint-scale"},
      {options.calibration_limit && !options.calibration_pictures,
       "--calibrate-limit is for --calibrate"},
  };
  for (const auto& entry : stray) {
    if (entry.first) {
      refuse_usage(entry.second);
    }
  }
}

void choose_kind(const PackOptions& options, const NetworkSignature& network,
                 Description* description) {
  const bool raw = !options.raw.empty();
  const bool decoded = options.boxes || options.scores || options.keypoints;
  if (raw && decoded) {
    refuse_usage(
        "--raw excludes --boxes, --scores and --keypoints: either the library decodes the "
        "network's raw layers, or the host accelerator its boxes and scores");
  }
  if (raw || decoded) {
    description->kind = raw ? OutputKind::kRaw : OutputKind::kDecoded;
  } else if (options.description_path.empty()) {
    refuse_usage(
        "say what the network's outputs are: --boxes NAME --scores NAME, or --raw OUT1 OUT2 "
        "OUT3. Its outputs: " +
        list_of(network.outputs));
  }
}

void apply_output_options(const PackOptions& options, const NetworkSignature& network,
                          Description* description) {
  choose_kind(options, network, description);
  if (options.int16) {
    description->output_format = QV_IPU_FORMAT_INT16;
  }
  std::vector<std::string> used;
  if (description->kind == OutputKind::kRaw) {
    apply_raw_options(options, description);
    for (const qv_host::RawOutput& layer : description->raw) {
      used.push_back(layer.name);
    }
  } else {
    apply_decoded_options(options, network, &description->decoded);
    used = {description->decoded.boxes, description->decoded.scores};
    if (!description->decoded.keypoints.empty()) {
      used.push_back(description->decoded.keypoints);
    }
  }
  for (const std::string& name : used) {
    check_output_name(name, network);
  }
  refuse_stray_options(options, *description);
}

// ---- The rest -----------------------------------------------------------------------------------

std::vector<std::string> read_class_names(const std::string& path) {
  const std::vector<char> bytes = read_whole_file("the class names", path);
  std::vector<std::string> names = split(std::string(bytes.begin(), bytes.end()), '\n');
  for (std::string& name : names) {
    if (!name.empty() && name.back() == '\r') {
      name.pop_back();
    }
  }
  while (!names.empty() && names.back().empty()) {
    names.pop_back();
  }
  if (names.empty()) {
    throw ToolError(kInputError, path + ": no class names in it. Write one on each line");
  }
  return names;
}

Description read_description(const std::string& path) {
  const std::vector<char> bytes = read_whole_file("the description", path);
  try {
    return qv_host::parse_description(std::string(bytes.begin(), bytes.end()));
  } catch (const qv_host::ImageError& error) {
    throw ToolError(kInputError, path + ": " + error.what());
  }
}

Pair parse_pair(const std::string& text) {
  const std::size_t equals = text.find('=');
  if (equals == std::string::npos) {
    refuse_usage("--pair: \"" + text + "\" has no '='. Write KEY=VALUE");
  }
  return {text.substr(0, equals), text.substr(equals + 1)};
}

void check_type_word(const std::string& word) {
  if (counts_of_word(word).known) {
    return;
  }
  refuse_usage("\"" + word + "\" is no model_out word of the library." +
               did_you_mean(word, type_words()) + " Its words:\n" + describe_type_words() +
               "Without a word the library goes by the number of channels");
}

void add_input_options(CLI::App* command, PackOptions* options) {
  const char group[] = "Input";
  command
      ->add_option("--input-format", options->input_format,
                   "What the camera delivers: nv12 (default), argb8888, abgr8888, rgb, bgr, "
                   "gray or fp32")
      ->type_name("WORD")
      ->group(group);
  command
      ->add_option("--frame-order", options->frame_order, "Colour order of fp32 frames: rgb, bgr")
      ->type_name("WORD")
      ->group(group);
  command
      ->add_option("--size", options->size,
                   "Frame and network input in pixels; found from the network when fixed there")
      ->type_name("WxH")
      ->group(group);
  command->add_option("--input", options->input, "The network's input; needed when it has several")
      ->type_name("NAME")
      ->group(group);
  command
      ->add_option("--network-order", options->network_order,
                   "Planes that the network wants: rgb (default), bgr or gray")
      ->type_name("WORD")
      ->group(group);
  command
      ->add_option("--mean", options->mean,
                   "Taken off each channel (0..255) first: one number, or three with commas, in "
                   "network order")
      ->type_name("NUMBER[,..]")
      ->group(group);
  command
      ->add_option("--scale", options->scale,
                   "Then multiplied with: like --mean; ratios such as 1/255 are numbers too")
      ->type_name("NUMBER[,..]")
      ->group(group);
}

void add_raw_options(CLI::App* command, PackOptions* options) {
  const char group[] = "Outputs that are raw layers, decoded by the library";
  command->add_option("--raw", options->raw, "The three layers, in order")
      ->type_name("OUT")
      ->expected(3)
      ->group(group);
  command->add_option("--layout", options->layout, "Layout in the network: nchw (default) or nhwc")
      ->type_name("WORD")
      ->group(group);
  command->add_option("--raw-scale", options->raw_scale, "With --int16: real value of 1")
      ->type_name("NUMBER[,..]")
      ->group(group);
}

void add_decoded_options(CLI::App* command, PackOptions* options) {
  const char group[] = "Outputs that are boxes and scores, selected by the host accelerator";
  command->add_option("--boxes", options->boxes, "Output of shape 1 x N x 4")
      ->type_name("NAME")
      ->group(group);
  command->add_option("--scores", options->scores, "Output of shape 1 x N x classes")
      ->type_name("NAME")
      ->group(group);
  command
      ->add_option("--keypoints", options->keypoints,
                   "Output of shape 1 x N x values; leaves out the classes")
      ->type_name("NAME")
      ->group(group);
  command
      ->add_option("--keypoint-values", options->keypoint_values,
                   "Values of a row: 8, 10 (pairs), 12, 15, 51, 63 (with scores); found from the "
                   "network when fixed there")
      ->type_name("N")
      ->group(group);
  command->add_option("--box-order", options->box_order, "xyxy (default) or cxcywh")
      ->type_name("WORD")
      ->group(group);
  command
      ->add_option("--box-unit", options->box_unit,
                   "fractions of the input (default) or pixels of it")
      ->type_name("WORD")
      ->group(group);
  command
      ->add_option("--background", options->background,
                   "Score column that is no class, from 0; later columns move down by one")
      ->type_name("N")
      ->group(group);
  command
      ->add_flag_function(
          "--classes,!--no-classes",
          [options](std::int64_t count) { options->classes = count > 0; },
          "Hand a class tensor to the library (default), or report everything as class 0")
      ->group(group);
  command->add_option("--max-boxes", options->max_boxes, "Candidates kept, 1..32767 (default 100)")
      ->type_name("N")
      ->group(group);
  command
      ->add_option("--min-score", options->min_score,
                   "Score that a candidate needs to be handed over (default 0.05)")
      ->type_name("NUMBER")
      ->group(group);
  command->add_option("--box-scale", options->box_scale, "With --int16: real value of 1 in boxes")
      ->type_name("NUMBER")
      ->group(group);
  command->add_option("--score-scale", options->score_scale, "The same in scores")
      ->type_name("NUMBER")
      ->group(group);
  command->add_option("--keypoint-scale", options->keypoint_scale, "The same in key points")
      ->type_name("NUMBER")
      ->group(group);
}

void add_element_options(CLI::App* command, PackOptions* options) {
  const char group[] = "Element type of the outputs";
  command->add_flag("--int16", options->int16, "Hand 16-bit integers to the library, not floats")
      ->group(group);
  command
      ->add_option("--calibrate", options->calibration_pictures,
                   "With --int16: choose the scales by the largest values that the network "
                   "computes on these pictures (a folder, a picture or a video)")
      ->type_name("PICTURES")
      ->group(group);
  command
      ->add_option("--calibrate-limit", options->calibration_limit,
                   "Frames to calibrate with at most, evenly spread (default " +
                       std::to_string(kUsualCalibrationFrames) + ")")
      ->type_name("N")
      ->check(CLI::Range(1L, kMostCalibrationFrames))
      ->group(group);
}

void add_header_options(CLI::App* command, PackOptions* options) {
  const char group[] = "Header";
  command
      ->add_option("--model-out", options->model_out,
                   "Output type that the library reads: classes and key points")
      ->type_name("WORD")
      ->group(group);
  command
      ->add_option("--lib-out", options->lib_out,
                   "Output type that the library is to present: selects the class mapping")
      ->type_name("WORD")
      ->group(group);
  command->add_option("--pair", options->pairs, "Any other header entry; may be given again")
      ->type_name("KEY=VALUE")
      ->expected(1)
      ->take_all()
      ->group(group);
  command
      ->add_flag("--pairs-in-name", options->pairs_in_name,
                 "Carry the entries in the first output's name too, for loading from memory")
      ->group(group);
  command->add_option("--title", options->title, "A name for people")
      ->type_name("TEXT")
      ->group(group);
  command
      ->add_option("--class-names", options->class_names_path,
                   "Names for people, one on each line, by class id")
      ->type_name("FILE")
      ->group(group);
}

}  // namespace

void add_pack_options(CLI::App* command, PackOptions* options) {
  command->add_option("network", options->network_path, "The network, an ONNX file")
      ->type_name("NETWORK.onnx")
      ->required();
  command->add_option("-o,--output", options->image_path, "The model file to write")
      ->type_name("IMAGE");
  command
      ->add_option("--description", options->description_path,
                   "Begin with this description (JSON); the other options change it")
      ->type_name("FILE");
  command->add_flag("--print-description", options->print_description,
                    "Print the description as JSON and write nothing");
  command
      ->add_option("--picture", options->picture_path,
                   "Picture for the test run (default: a generated gradient)")
      ->type_name("FILE");
  add_input_options(command, options);
  add_raw_options(command, options);
  add_decoded_options(command, options);
  add_element_options(command, options);
  add_header_options(command, options);
}

Pairs header_pairs(const PackOptions& options) {
  Pairs pairs;
  if (options.model_out) {
    pairs.emplace_back(kModelOutKey, *options.model_out);
  }
  if (options.lib_out) {
    pairs.emplace_back(kLibOutKey, *options.lib_out);
  }
  for (const std::string& text : options.pairs) {
    pairs.push_back(parse_pair(text));
  }
  check_pairs(pairs);
  for (const Pair& pair : pairs) {
    if (pair.first == kModelOutKey) {
      check_type_word(pair.second);
    }
  }
  return pairs;
}

qv_host::Description describe_model(const PackOptions& options, const NetworkSignature& network) {
  Description description;
  if (!options.description_path.empty()) {
    description = read_description(options.description_path);
  }
  description.title = options.title.value_or(description.title);
  apply_input_options(options, &description.input);
  const NetworkTensor& tensor = find_input(description.input.name, network);
  description.input.name = tensor.name;
  fit_size(tensor, &description.input);
  fit_channels(tensor, options.network_order || !options.description_path.empty(),
               &description.input);
  apply_output_options(options, network, &description);
  if (!options.class_names_path.empty()) {
    description.class_names = read_class_names(options.class_names_path);
  }
  if (options.pairs_in_name) {
    description.name_pairs = header_pairs(options);
  }
  try {
    qv_host::check_description(description);
  } catch (const qv_host::ImageError& error) {
    throw ToolError(kUsageError, error.what());
  }
  return description;
}

}  // namespace olvex_tools
