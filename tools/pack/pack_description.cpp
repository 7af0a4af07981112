// SPDX-License-Identifier: Apache-2.0
// pack_description.cpp - the description of the model, from the options and the network.
// Declared in pack.h.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "tools/common/class_names.h"
#include "tools/common/text.h"
#include "tools/common/whole_file.h"
#include "tools/pack/pack.h"

namespace olvex_tools {

namespace {

using qv_host::ColourOrder;
using qv_host::Description;
using qv_host::OutputKind;

constexpr int kUsualBoxes = 1000;

// ---- Input --------------------------------------------------------------------------------------

void apply_input_options(const PackOptions& options, qv_host::InputDescription* input) {
  if (options.input_format) {
    input->format = options.input_format->format;
    input->frame_order = options.input_format->order;
  }
  if (options.frame_order && input->format != QV_IPU_FORMAT_FP32) {
    refuse_usage(
        "--frame-order is for fp32 frames; the order of the other formats is in "
        "their names: --input-format rgb or bgr");
  }
  input->frame_order = options.frame_order.value_or(input->frame_order);
  input->name = options.input.value_or(input->name);
  input->network_order = options.network_order.value_or(input->network_order);
  input->resize = options.resize.value_or(input->resize);
  input->mean = options.mean.value_or(input->mean);
  input->scale = options.scale.value_or(input->scale);
}

std::string list_of(const std::vector<NetworkTensor>& tensors) {
  return join(tensors, ", ", [](const NetworkTensor& tensor) { return describe(tensor); });
}

NetworkTensor find_input(const std::string& name, const NetworkGraph& network) {
  const std::vector<NetworkTensor> inputs = network.inputs();
  if (name.empty() && inputs.size() == 1) {
    return inputs.front();
  }
  if (name.empty()) {
    throw ToolError(kModelError, "the network has several inputs: " + list_of(inputs) +
                                     ". Name the picture's with --input NAME");
  }
  for (const NetworkTensor& tensor : inputs) {
    if (tensor.name == name) {
      return tensor;
    }
  }
  throw ToolError(kModelError, "the network has no input \"" + name + "\". It has: " +
                                   list_of(inputs) + did_you_mean(name, names_of(inputs)));
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
    throw ToolError(kModelError, "the size " + size_text(input->width, input->height) +
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
                                     counted(channels, "plane", "planes") +
                                     ", but --network-order " + "makes " +
                                     std::to_string(described) +
                                     ". Networks of 3 planes (rgb, bgr) or 1 (gray) can be packed");
  }
}

// ---- Outputs ------------------------------------------------------------------------------------

void check_output_name(const std::string& name, const NetworkGraph& network) {
  const std::vector<std::string> names = names_of(network.outputs());
  if (std::find(names.begin(), names.end(), name) == names.end()) {
    throw ToolError(kModelError, "the network has no output \"" + name + "\". It has: " +
                                     list_of(network.outputs()) + did_you_mean(name, names));
  }
}

void apply_raw_options(const PackOptions& options, Description* description) {
  for (std::size_t i = 0; i < description->raw.size(); ++i) {
    qv_host::RawOutput& layer = description->raw[i];
    layer.name = i < options.raw.size() ? options.raw[i] : layer.name;
    layer.nchw = options.nchw.value_or(layer.nchw);
    layer.scale = options.raw_scale ? (*options.raw_scale)[i] : layer.scale;
  }
}

void apply_keypoint_options(const PackOptions& options, const NetworkGraph& network,
                            qv_host::DecodedOutput* decoded) {
  if (options.keypoints) {
    decoded->keypoints = *options.keypoints;
    decoded->emit_classes = false;
    // The row length stands in the network unless it is left open there.
    for (const NetworkTensor& tensor : network.outputs()) {
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

void apply_decoded_options(const PackOptions& options, const NetworkGraph& network,
                           qv_host::DecodedOutput* decoded) {
  decoded->boxes = options.boxes.value_or(decoded->boxes);
  decoded->scores = options.scores.value_or(decoded->scores);
  if (decoded->boxes.empty() || decoded->scores.empty()) {
    refuse_usage("--boxes and --scores belong together; the network's outputs are: " +
                 list_of(network.outputs()));
  }
  apply_keypoint_options(options, network, decoded);
  decoded->box_order = options.box_order.value_or(decoded->box_order);
  decoded->box_fractions = options.box_fractions.value_or(decoded->box_fractions);
  decoded->background = options.background.value_or(decoded->background);
  decoded->emit_classes = options.classes.value_or(decoded->emit_classes);
  const int usual_boxes = options.description_path.empty() ? kUsualBoxes : decoded->max_boxes;
  decoded->max_boxes = options.max_boxes.value_or(usual_boxes);
  decoded->min_score = options.min_score.value_or(decoded->min_score);
  decoded->box_scale = options.box_scale.value_or(decoded->box_scale);
  decoded->score_scale = options.score_scale.value_or(decoded->score_scale);
  decoded->keypoint_scale = options.keypoint_scale.value_or(decoded->keypoint_scale);
}

// An option that would have no effect is a misunderstanding that must be reported.
void refuse_stray_options(const PackOptions& options, const Description& description) {
  const bool raw = description.kind == OutputKind::kRaw;
  const std::pair<bool, const char*> stray[] = {
      {!raw && options.nchw, "--layout is for raw layers (--raw)"},
      {!raw && options.raw_scale, "--raw-scale is for raw layers (--raw)"},
      {raw && options.box_order, "--box-order is for --boxes and --scores"},
      {raw && options.box_fractions, "--box-unit is for --boxes and --scores"},
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

void choose_kind(const PackOptions& options, const NetworkGraph& network,
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
        list_of(network.outputs()));
  }
}

void apply_output_options(const PackOptions& options, const NetworkGraph& network,
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

Description read_description(const std::string& path) {
  const std::vector<char> bytes = read_whole_file("the description", path);
  try {
    return qv_host::parse_description(std::string(bytes.begin(), bytes.end()));
  } catch (const qv_host::ImageError& error) {
    refuse_input(path, error.what());
  }
}

}  // namespace

qv_host::Description start_description(const PackOptions& options) {
  Description description;
  if (!options.description_path.empty()) {
    description = read_description(options.description_path);
  }
  if (options.size) {
    description.input.width = options.size->width;
    description.input.height = options.size->height;
  }
  return description;
}

qv_host::Description describe_model(const PackOptions& options, const Description& start,
                                    const NetworkGraph& network) {
  Description description = start;
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
  } else if (!options.class_names.empty()) {
    description.class_names = options.class_names;
  }
  if (options.pairs_in_name) {
    description.name_pairs = options.pairs;
  }
  try {
    qv_host::check_description(description);
  } catch (const qv_host::ImageError& error) {
    refuse_usage(error.what());
  }
  return description;
}

}  // namespace olvex_tools
