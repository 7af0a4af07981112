// SPDX-License-Identifier: Apache-2.0
// description_checks.cpp - the checks of a description, and the tensor names that follow from it.
// Declared in host_image.h.
#include <algorithm>
#include <cmath>
#include <string_view>

#include "platform/host/description_words.h"
#include "platform/host/host_image.h"

namespace qv_host {
namespace {

constexpr int kMaxSide = 8192;             // pixels; keeps every frame size within 31 bits
constexpr int kMaxRows = 32767;            // an index must fit an INT16 tensor
constexpr std::size_t kMaxPairText = 127;  // bytes of a key or a value that the library keeps
constexpr std::string_view kStartPattern = OLVEX_OFFLINE_MODEL_START;

std::string one_line(std::string text) {
  std::replace_if(
      text.begin(), text.end(),
      [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }, '?');
  return text;
}

void check_range(const std::string& field, int value, int lowest, int highest) {
  if (value < lowest || value > highest) {
    refuse(field, std::to_string(value),
           "a number from " + std::to_string(lowest) + " to " + std::to_string(highest));
  }
}

void check_finite(const std::string& field, float value) {
  if (!std::isfinite(value)) {
    refuse(field, std::to_string(value), "a finite number");
  }
}

void check_output_scale(const std::string& field, float value) {
  check_finite(field, value);
  if (value <= 0.f) {
    refuse(field, std::to_string(value), "a number above 0");
  }
}

// A text that is printed and handed to the library: one line, no byte that would end it early.
void check_text(const std::string& field, const std::string& text, std::size_t longest) {
  if (text.size() > longest) {
    refuse(field, std::to_string(text.size()) + " bytes", "at most " + std::to_string(longest));
  }
  if (std::any_of(text.begin(), text.end(),
                  [](char c) { return static_cast<unsigned char>(c) < 0x20; })) {
    refuse(field, "a control character", "one line of plain text");
  }
}

void check_network_name(const std::string& field, const std::string& name) {
  check_text(field, name, kMaxName);
  if (name.empty()) {
    refuse(field, "no name", "the name of one of the network's outputs");
  }
}

template <typename Value, std::size_t kCount>
void check_choice(const std::string& field, const Choice<Value> (&choices)[kCount], Value value) {
  if (find_word(choices, value) == nullptr) {
    refuse(field, "another value", "one of " + words_of(choices));
  }
}

void check_input(const InputDescription& input) {
  check_text("input.name", input.name, kMaxName);
  check_range("input.width", input.width, 1, kMaxSide);
  check_range("input.height", input.height, 1, kMaxSide);
  check_choice("input.format", kFrameFormats, input.format);
  check_choice("input.frame_order", kFrameOrders, input.frame_order);
  check_choice("input.network_order", kNetworkOrders, input.network_order);
  check_choice("input.resize", kResizes, input.resize);
  if (input.format == QV_IPU_FORMAT_NV12) {
    if (input.width % 2 != 0) {
      refuse("input.width", std::to_string(input.width), "an even number for NV12");
    }
    if (input.height % 2 != 0) {
      refuse("input.height", std::to_string(input.height), "an even number for NV12");
    }
  }
  for (std::size_t i = 0; i < 3; ++i) {
    check_finite("input.mean[" + std::to_string(i) + "]", input.mean[i]);
    check_finite("input.scale[" + std::to_string(i) + "]", input.scale[i]);
  }
}

void check_raw(const std::array<RawOutput, 3>& layers) {
  for (std::size_t i = 0; i < layers.size(); ++i) {
    const std::string path = "outputs.layers[" + std::to_string(i) + "]";
    check_network_name(path + ".name", layers[i].name);
    check_output_scale(path + ".scale", layers[i].scale);
    for (std::size_t earlier = 0; earlier < i; ++earlier) {
      if (layers[earlier].name == layers[i].name) {
        refuse(path + ".name", "\"" + layers[i].name + "\" a second time",
               "three different outputs");
      }
    }
  }
}

void check_keypoints(const DecodedOutput& output) {
  if (output.keypoints.empty()) {
    return;
  }
  check_network_name("outputs.keypoints.name", output.keypoints);
  const int counts[] = {8, 10, 12, 15, 51, 63};
  if (std::find(std::begin(counts), std::end(counts), output.keypoint_values) == std::end(counts)) {
    refuse("outputs.keypoints.values", std::to_string(output.keypoint_values),
           "8 or 10 (pairs), 12, 15, 51 or 63 (with scores)");
  }
  check_output_scale("outputs.keypoints.scale", output.keypoint_scale);
  if (output.emit_classes) {
    refuse("outputs.classes", "true together with key points",
           "false: the library knows no layout with both");
  }
}

void check_decoded(const DecodedOutput& output) {
  check_network_name("outputs.boxes.name", output.boxes);
  check_output_scale("outputs.boxes.scale", output.box_scale);
  check_network_name("outputs.scores.name", output.scores);
  check_output_scale("outputs.scores.scale", output.score_scale);
  if (output.background != -1) {
    check_range("outputs.scores.background", output.background, 0, kMaxRows);
  }
  check_keypoints(output);
  check_range("outputs.max_boxes", output.max_boxes, 1, kMaxRows);
  check_finite("outputs.min_score", output.min_score);
}

void check_name_pair(const std::string& path, const std::pair<std::string, std::string>& pair) {
  check_text(path + "[0]", pair.first, kMaxPairText);
  check_text(path + "[1]", pair.second, kMaxPairText);
  if (pair.first.empty() || pair.second.empty()) {
    refuse(path, "an empty text", "a key and a value");
  }
  if ((pair.first + pair.second).find(';') != std::string::npos ||
      pair.second.find(':') != std::string::npos) {
    refuse(path, "\"" + pair.first + "\", \"" + pair.second + "\"",
           "no ';' in either and no ':' in the value, they separate pairs");
  }
}

void check_name_pairs(const Description& description) {
  for (std::size_t i = 0; i < description.name_pairs.size(); ++i) {
    check_name_pair("name_pairs[" + std::to_string(i) + "]", description.name_pairs[i]);
  }
  const std::string name = output_tensor_names(description)[0];
  if (name.size() > kMaxName) {
    refuse("name_pairs",
           std::to_string(name.size()) + " bytes together with the first output's name",
           "at most " + std::to_string(kMaxName) + "; shorten the pairs or that name");
  }
  const auto pattern =
      std::search(name.begin(), name.end(), kStartPattern.begin(), kStartPattern.end());
  if (!description.name_pairs.empty() && pattern != name.end()) {
    refuse("name_pairs", "\"QTNX\" in them or in the first output's name",
           "none: the library reads pairs up to there only");
  }
}

}  // namespace

void refuse(const std::string& field, const std::string& found, const std::string& expected) {
  throw ImageError("description field \"" + one_line(field) + "\": found " + found + ", expected " +
                   expected);
}

void check_description(const Description& description) {
  check_text("title", description.title, kMaxDescriptionSize);
  check_input(description.input);
  check_choice("outputs.kind", kKinds, description.kind);
  check_choice("outputs.format", kOutputFormats, description.output_format);
  if (description.kind == OutputKind::kRaw) {
    check_raw(description.raw);
  } else {
    check_decoded(description.decoded);
  }
  check_name_pairs(description);
  for (std::size_t i = 0; i < description.class_names.size(); ++i) {
    check_text("class_names[" + std::to_string(i) + "]", description.class_names[i],
               kMaxDescriptionSize);
  }
}

std::vector<std::string> output_tensor_names(const Description& description) {
  const DecodedOutput& decoded = description.decoded;
  std::vector<std::string> names;
  if (description.kind == OutputKind::kRaw) {
    for (const RawOutput& layer : description.raw) {
      names.push_back(layer.name);
    }
  } else {
    names.push_back(decoded.boxes);
    if (decoded.emit_classes) {
      names.push_back("classes");
    }
    names.push_back(decoded.scores);
    if (!decoded.keypoints.empty()) {
      names.push_back(decoded.keypoints);
    }
    names.insert(names.end(), {"indices", "count"});
  }
  for (std::string& name : names) {
    std::replace_if(
        name.begin(), name.end(), [](char c) { return c == ':' || c == ';' || c == '\n'; }, '_');
  }
  std::string pairs;
  for (const auto& pair : description.name_pairs) {
    pairs += pair.first + ":" + pair.second + ";";
  }
  names[0] += pairs.empty() ? "" : ";" + pairs;
  return names;
}

}  // namespace qv_host
