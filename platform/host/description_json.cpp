// SPDX-License-Identifier: Apache-2.0
// description_json.cpp - a description as JSON text, and back. docs/model-images.md has the fields.
#include <charconv>
#include <set>

#include "platform/host/description_words.h"
#include "platform/host/host_image.h"
#include "platform/host/object_reader.h"

namespace qv_host {
namespace {

constexpr int kMaxNesting = 16;  // of JSON values; a description needs 4

// The shortest decimal number that reads back as the same float.
double printable(float value) {
  char text[64];
  const std::to_chars_result printed = std::to_chars(text, text + sizeof text, value);
  double shortest = 0.0;
  std::from_chars(text, printed.ptr, shortest);
  const bool exact = fits_float(shortest) && static_cast<float>(shortest) == value;
  return exact ? shortest : static_cast<double>(value);
}

Json input_to_json(const InputDescription& input) {
  Json json = Json::object();
  if (!input.name.empty()) {
    json["name"] = input.name;
  }
  json["width"] = input.width;
  json["height"] = input.height;
  json["format"] = find_word(kFrameFormats, input.format);
  json["frame_order"] = find_word(kFrameOrders, input.frame_order);
  json["network_order"] = find_word(kNetworkOrders, input.network_order);
  json["resize"] = find_word(kResizes, input.resize);
  for (std::size_t i = 0; i < 3; ++i) {
    json["mean"].push_back(printable(input.mean[i]));
    json["scale"].push_back(printable(input.scale[i]));
  }
  return json;
}

void raw_to_json(const std::array<RawOutput, 3>& layers, Json* json) {
  for (const RawOutput& layer : layers) {
    (*json)["layers"].push_back({{"name", layer.name},
                                 {"layout", find_word(kLayouts, layer.nchw)},
                                 {"scale", printable(layer.scale)}});
  }
}

void decoded_to_json(const DecodedOutput& output, Json* json) {
  (*json)["boxes"] = {{"name", output.boxes},
                      {"order", find_word(kBoxOrders, output.box_order)},
                      {"unit", find_word(kBoxUnits, output.box_fractions)},
                      {"scale", printable(output.box_scale)}};
  (*json)["scores"] = {{"name", output.scores}, {"scale", printable(output.score_scale)}};
  if (output.background >= 0) {
    (*json)["scores"]["background"] = output.background;
  }
  (*json)["classes"] = output.emit_classes;
  if (!output.keypoints.empty()) {
    (*json)["keypoints"] = {{"name", output.keypoints},
                            {"values", output.keypoint_values},
                            {"scale", printable(output.keypoint_scale)}};
  }
  (*json)["max_boxes"] = output.max_boxes;
  (*json)["min_score"] = printable(output.min_score);
}

InputDescription read_input(const Json& json) {
  InputDescription input;
  ObjectReader reader(json, "input");
  reader.read("name", Presence::kOptional, &input.name);
  reader.read("width", Presence::kRequired, &input.width);
  reader.read("height", Presence::kRequired, &input.height);
  reader.read("format", Presence::kRequired, kFrameFormats, &input.format);
  reader.read("frame_order", Presence::kOptional, kFrameOrders, &input.frame_order);
  reader.read("network_order", Presence::kOptional, kNetworkOrders, &input.network_order);
  reader.read("resize", Presence::kOptional, kResizes, &input.resize);
  reader.read("mean", Presence::kOptional, &input.mean);
  reader.read("scale", Presence::kOptional, &input.scale);
  reader.finish();
  return input;
}

void read_raw(ObjectReader* outputs, std::array<RawOutput, 3>* layers) {
  outputs->read_array("layers", Presence::kRequired, 3, 3, "an array of 3 layers",
                      [layers](const std::string& path, const Json& json, std::size_t i) {
                        ObjectReader reader(json, path);
                        reader.read("name", Presence::kRequired, &(*layers)[i].name);
                        reader.read("layout", Presence::kOptional, kLayouts, &(*layers)[i].nchw);
                        reader.read("scale", Presence::kOptional, &(*layers)[i].scale);
                        reader.finish();
                      });
}

void read_decoded(ObjectReader* outputs, DecodedOutput* decoded) {
  ObjectReader boxes(*outputs->field("boxes", Presence::kRequired, "an object"), "outputs.boxes");
  boxes.read("name", Presence::kRequired, &decoded->boxes);
  boxes.read("order", Presence::kOptional, kBoxOrders, &decoded->box_order);
  boxes.read("unit", Presence::kOptional, kBoxUnits, &decoded->box_fractions);
  boxes.read("scale", Presence::kOptional, &decoded->box_scale);
  boxes.finish();

  ObjectReader scores(*outputs->field("scores", Presence::kRequired, "an object"),
                      "outputs.scores");
  scores.read("name", Presence::kRequired, &decoded->scores);
  scores.read("background", Presence::kOptional, &decoded->background);
  scores.read("scale", Presence::kOptional, &decoded->score_scale);
  scores.finish();

  if (const Json* json = outputs->field("keypoints", Presence::kOptional, "an object")) {
    ObjectReader keypoints(*json, "outputs.keypoints");
    keypoints.read("name", Presence::kRequired, &decoded->keypoints);
    keypoints.read("values", Presence::kRequired, &decoded->keypoint_values);
    keypoints.read("scale", Presence::kOptional, &decoded->keypoint_scale);
    keypoints.finish();
    if (decoded->keypoints.empty()) {
      refuse("outputs.keypoints.name", "no name", "the name of one of the network's outputs");
    }
    decoded->emit_classes = false;
  }
  outputs->read("classes", Presence::kOptional, &decoded->emit_classes);
  outputs->read("max_boxes", Presence::kOptional, &decoded->max_boxes);
  outputs->read("min_score", Presence::kOptional, &decoded->min_score);
}

void read_outputs(const Json& json, Description* description) {
  ObjectReader reader(json, "outputs");
  reader.read("kind", Presence::kRequired, kKinds, &description->kind);
  reader.read("format", Presence::kOptional, kOutputFormats, &description->output_format);
  if (description->kind == OutputKind::kRaw) {
    read_raw(&reader, &description->raw);
  } else {
    read_decoded(&reader, &description->decoded);
  }
  reader.finish();
}

// JSON itself lets a name appear twice and a reader would silently use one of the two. It also lets
// values lie within each other as deep as the bytes reach, and printing one takes stack at each
// level.
Json parse_plain_json(const std::string& text) {
  std::vector<std::set<std::string>> seen;
  const auto check = [&seen](int depth, Json::parse_event_t event, Json& value) {
    if (depth > kMaxNesting) {
      throw ImageError("the description nests its values more than " + std::to_string(kMaxNesting) +
                       " deep; a right one needs 4 levels");
    }
    if (event == Json::parse_event_t::object_start) {
      seen.emplace_back();
    } else if (event == Json::parse_event_t::object_end) {
      seen.pop_back();
    } else if (event == Json::parse_event_t::key) {
      const std::string key = value.get<std::string>();
      if (!seen.back().insert(key).second) {
        refuse(key, "the field twice", "each field once");
      }
    }
    return true;
  };
  // The parser takes a zero byte for the end of the text.
  if (text.find('\0') != std::string::npos) {
    throw ImageError("the description is not JSON: it holds a zero byte");
  }
  try {
    return Json::parse(text, check);
  } catch (const Json::exception& error) {
    throw ImageError(std::string("the description is not JSON: ") + error.what());
  }
}

}  // namespace

std::string description_to_json(const Description& description) {
  check_description(description);
  Json json = Json::object();
  if (!description.title.empty()) {
    json["title"] = description.title;
  }
  json["input"] = input_to_json(description.input);
  Json& outputs = json["outputs"];
  outputs["kind"] = find_word(kKinds, description.kind);
  outputs["format"] = find_word(kOutputFormats, description.output_format);
  if (description.kind == OutputKind::kRaw) {
    raw_to_json(description.raw, &outputs);
  } else {
    decoded_to_json(description.decoded, &outputs);
  }
  if (!description.fusion) {
    json["fusion"] = false;
  }
  if (description.proof != Proof::kNone) {
    json["proof"] = find_word(kProofs, description.proof);
  }
  for (const auto& pair : description.name_pairs) {
    json["name_pairs"].push_back(Json::array({pair.first, pair.second}));
  }
  if (!description.class_names.empty()) {
    json["class_names"] = description.class_names;
  }
  try {
    return json.dump(2);
  } catch (const Json::exception& error) {
    throw ImageError(std::string("the description holds a text that is not UTF-8: ") +
                     error.what());
  }
}

Description parse_description(const std::string& json) {
  const Json root = parse_plain_json(json);
  Description description;
  ObjectReader reader(root, "");
  reader.read("title", Presence::kOptional, &description.title);
  description.input = read_input(*reader.field("input", Presence::kRequired, "an object"));
  read_outputs(*reader.field("outputs", Presence::kRequired, "an object"), &description);
  reader.read("fusion", Presence::kOptional, &description.fusion);
  reader.read("proof", Presence::kOptional, kProofs, &description.proof);
  reader.read_array(
      "name_pairs", Presence::kOptional, 0, kMaxName, "an array of pairs",
      [&](const std::string& path, const Json& pair, std::size_t) {
        if (!pair.is_array() || pair.size() != 2) {
          refuse(path, "something else", "an array of a key and a value");
        }
        description.name_pairs.emplace_back();
        ObjectReader::read_text(path + "[0]", pair[0], &description.name_pairs.back().first);
        ObjectReader::read_text(path + "[1]", pair[1], &description.name_pairs.back().second);
      });
  reader.read_array("class_names", Presence::kOptional, 0, kMaxDescriptionSize, "an array of texts",
                    [&](const std::string& path, const Json& name, std::size_t) {
                      description.class_names.emplace_back();
                      ObjectReader::read_text(path, name, &description.class_names.back());
                    });
  reader.finish();
  check_description(description);
  return description;
}

}  // namespace qv_host
