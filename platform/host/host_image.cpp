// host_image.cpp - reads, checks and writes offline models of the host accelerator. The format's
// manual is docs/model-images.md; host_accelerator.cpp opens channels on what is read here.
#include "platform/host/host_image.h"

#include <sys/stat.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <fstream>
#include <limits>
#include <set>

#include <nlohmann/json.hpp>

namespace qv_host {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::string_view kStartPattern = QV_IPU_OFFLINE_MODEL_START;
constexpr int kMaxSide = 8192;   // pixels; keeps every frame size within 31 bits
constexpr int kMaxRows = 32767;  // an index must fit an INT16 tensor
constexpr std::size_t kMaxName = QV_IPU_TENSOR_NAME_SIZE - 1;  // bytes, with room for the end mark
constexpr std::size_t kMaxPairText = 127;  // bytes of a key or a value that the library keeps
constexpr std::uint64_t kMaxTextHeader = 1u << 20;  // bytes of key/value text before the pattern
constexpr int kMaxNesting = 16;                     // of JSON values; a description needs 4

template <typename Value>
struct Choice {
  const char* word;
  Value value;
};

constexpr Choice<QV_IPU_ELEMENT_FORMAT> kFrameFormats[] = {
    {"NV12", QV_IPU_FORMAT_NV12},         {"ARGB8888", QV_IPU_FORMAT_ARGB8888},
    {"ABGR8888", QV_IPU_FORMAT_ABGR8888}, {"U8", QV_IPU_FORMAT_U8},
    {"GRAY", QV_IPU_FORMAT_GRAY},         {"FP32", QV_IPU_FORMAT_FP32}};
constexpr Choice<ColourOrder> kFrameOrders[] = {{"rgb", ColourOrder::kRgb},
                                                {"bgr", ColourOrder::kBgr}};
constexpr Choice<ColourOrder> kNetworkOrders[] = {
    {"rgb", ColourOrder::kRgb}, {"bgr", ColourOrder::kBgr}, {"gray", ColourOrder::kGray}};
constexpr Choice<OutputKind> kKinds[] = {{"raw", OutputKind::kRaw},
                                         {"decoded", OutputKind::kDecoded}};
constexpr Choice<QV_IPU_ELEMENT_FORMAT> kOutputFormats[] = {{"FP32", QV_IPU_FORMAT_FP32},
                                                            {"INT16", QV_IPU_FORMAT_INT16}};
constexpr Choice<bool> kLayouts[] = {{"NCHW", true}, {"NHWC", false}};
constexpr Choice<BoxOrder> kBoxOrders[] = {{"xyxy", BoxOrder::kCornerPairs},
                                           {"cxcywh", BoxOrder::kCentreSize}};
constexpr Choice<bool> kBoxUnits[] = {{"fractions", true}, {"pixels", false}};

template <typename Value, std::size_t kCount>
std::string words_of(const Choice<Value> (&choices)[kCount]) {
  std::string words;
  for (const Choice<Value>& choice : choices) {
    words += words.empty() ? "\"" : ", \"";
    words += choice.word;
    words += '"';
  }
  return words;
}

template <typename Value, std::size_t kCount>
const char* find_word(const Choice<Value> (&choices)[kCount], Value value) {
  for (const Choice<Value>& choice : choices) {
    if (choice.value == value) {
      return choice.word;
    }
  }
  return nullptr;
}

// A field's name may come from the description; what would break or steer the line that a terminal
// shows is shown as a question mark.
std::string one_line(std::string text) {
  std::replace_if(
      text.begin(), text.end(),
      [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }, '?');
  return text;
}

[[noreturn]] void refuse(const std::string& field, const std::string& found,
                         const std::string& expected) {
  throw ImageError("description field \"" + one_line(field) + "\": found " + found + ", expected " +
                   expected);
}

// ---- checks on the description's values -------------------------------------------------------

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

// ---- description to JSON ----------------------------------------------------------------------

bool fits_float(double value) {
  // Written so that a value that is not a number fails too.
  return std::fabs(value) <= static_cast<double>(std::numeric_limits<float>::max());
}

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

// ---- JSON to description ----------------------------------------------------------------------

enum class Presence { kRequired, kOptional };

// Reads the fields of one JSON object and remembers which it was asked for, so that finish() can
// refuse the rest. An optional field that is absent leaves the destination, which holds the
// default.
class ObjectReader {
 public:
  // Requires: the value outlives the reader.
  ObjectReader(const Json& value, const std::string& path) : value_(value), path_(path) {
    if (!value.is_object()) {
      refuse(path.empty() ? "(whole)" : path, found(value), "an object");
    }
  }

  const Json* field(const char* key, Presence presence, const std::string& expected) {
    asked_.insert(key);
    const auto position = value_.find(key);
    if (position != value_.end()) {
      return &*position;
    }
    if (presence == Presence::kRequired) {
      refuse(path_of(key), "nothing", expected);
    }
    return nullptr;
  }

  void read(const char* key, Presence presence, std::string* text) {
    if (const Json* json = field(key, presence, "a text")) {
      read_text(path_of(key), *json, text);
    }
  }

  void read(const char* key, Presence presence, float* number) {
    if (const Json* json = field(key, presence, "a number")) {
      read_number(path_of(key), *json, number);
    }
  }

  void read(const char* key, Presence presence, int* integer) {
    const Json* json = field(key, presence, "a whole number");
    if (json == nullptr) {
      return;
    }
    // An unsigned number above the signed range would wrap around in a signed reading.
    const bool fits = json->is_number_unsigned()
                          ? json->get<std::uint64_t>() <= std::numeric_limits<int>::max()
                          : json->is_number_integer() &&
                                json->get<std::int64_t>() >= std::numeric_limits<int>::min();
    if (!fits) {
      refuse(path_of(key), found(*json), "a whole number");
    }
    *integer = json->get<int>();
  }

  void read(const char* key, Presence presence, bool* flag) {
    if (const Json* json = field(key, presence, "true or false")) {
      if (!json->is_boolean()) {
        refuse(path_of(key), found(*json), "true or false");
      }
      *flag = json->get<bool>();
    }
  }

  template <typename Value, std::size_t kCount>
  void read(const char* key, Presence presence, const Choice<Value> (&choices)[kCount],
            Value* value) {
    const std::string expected = "one of " + words_of(choices);
    const Json* json = field(key, presence, expected);
    if (json == nullptr) {
      return;
    }
    for (const Choice<Value>& choice : choices) {
      if (*json == choice.word) {
        *value = choice.value;
        return;
      }
    }
    refuse(path_of(key), found(*json), expected);
  }

  // Calls read_element(path, element) for each element of an array of lowest to highest elements.
  template <typename ReadElement>
  void read_array(const char* key, Presence presence, std::size_t lowest, std::size_t highest,
                  const std::string& expected, const ReadElement& read_element) {
    const Json* json = field(key, presence, expected);
    if (json == nullptr) {
      return;
    }
    if (!json->is_array() || json->size() < lowest || json->size() > highest) {
      refuse(path_of(key), found(*json), expected);
    }
    for (std::size_t i = 0; i < json->size(); ++i) {
      read_element(path_of(key) + "[" + std::to_string(i) + "]", (*json)[i], i);
    }
  }

  void read(const char* key, Presence presence, std::array<float, 3>* numbers) {
    read_array(key, presence, 3, 3, "an array of 3 numbers",
               [numbers](const std::string& path, const Json& json, std::size_t i) {
                 read_number(path, json, &(*numbers)[i]);
               });
  }

  // Refuses fields that nobody asked for.
  void finish() const {
    for (const auto& item : value_.items()) {
      if (asked_.count(item.key()) == 0) {
        std::string known;
        for (const std::string& key : asked_) {
          known += (known.empty() ? "" : ", ") + key;
        }
        refuse(path_of(item.key()), "an unknown field", "only these here: " + known);
      }
    }
  }

  std::string path_of(const std::string& key) const {
    return path_.empty() ? key : path_ + "." + key;
  }

  static void read_text(const std::string& path, const Json& json, std::string* text) {
    if (!json.is_string()) {
      refuse(path, found(json), "a text");
    }
    *text = json.get<std::string>();
  }

 private:
  static std::string found(const Json& json) {
    constexpr std::size_t kLongest = 60;
    const std::string text = json.dump(-1, ' ', true);
    return text.size() <= kLongest ? text : text.substr(0, kLongest) + "...";
  }

  static void read_number(const std::string& path, const Json& json, float* number) {
    if (!json.is_number()) {
      refuse(path, found(json), "a number");
    }
    const double wide = json.get<double>();
    if (!fits_float(wide)) {
      refuse(path, found(json), "a number that a 32-bit float can hold");
    }
    *number = static_cast<float>(wide);
  }

  const Json& value_;
  std::string path_;
  std::set<std::string> asked_;
};

InputDescription read_input(const Json& json) {
  InputDescription input;
  ObjectReader reader(json, "input");
  reader.read("name", Presence::kOptional, &input.name);
  reader.read("width", Presence::kRequired, &input.width);
  reader.read("height", Presence::kRequired, &input.height);
  reader.read("format", Presence::kRequired, kFrameFormats, &input.format);
  reader.read("frame_order", Presence::kOptional, kFrameOrders, &input.frame_order);
  reader.read("network_order", Presence::kOptional, kNetworkOrders, &input.network_order);
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

// ---- bytes ------------------------------------------------------------------------------------

template <typename Unsigned>
Unsigned read_little_endian(const char* bytes) {
  Unsigned value = 0;
  for (std::size_t i = sizeof value; i-- > 0;) {
    value = static_cast<Unsigned>((value << 8) | static_cast<unsigned char>(bytes[i]));
  }
  return value;
}

template <typename Unsigned>
void append_little_endian(Unsigned value, std::vector<char>* bytes) {
  for (std::size_t i = 0; i < sizeof value; ++i) {
    bytes->push_back(static_cast<char>(value >> (8 * i) & 0xff));
  }
}

std::uint32_t add_to_crc(std::uint32_t crc, const char* bytes, std::size_t size) {
  return static_cast<std::uint32_t>(
      crc32(crc, reinterpret_cast<const Bytef*>(bytes), static_cast<uInt>(size)));
}

void check_sizes(std::uint64_t description_size, std::uint64_t network_size) {
  if (description_size == 0 || description_size > kMaxDescriptionSize) {
    throw ImageError("length of the description: found " + std::to_string(description_size) +
                     " bytes, expected 1 to " + std::to_string(kMaxDescriptionSize) +
                     "; the image is damaged or not from this project's packer");
  }
  if (network_size == 0 || network_size > kMaxNetworkSize) {
    throw ImageError("length of the network: found " + std::to_string(network_size) +
                     " bytes, expected 1 to " + std::to_string(kMaxNetworkSize) +
                     "; the image is damaged or not from this project's packer");
  }
}

std::vector<char> read_file(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    throw ImageReadError(path + ": cannot be read: " + std::strerror(errno));
  }
  if (!S_ISREG(status.st_mode)) {
    throw ImageReadError(path + ": is not a regular file");
  }
  const std::uint64_t size = static_cast<std::uint64_t>(status.st_size);
  if (size > kMaxTextHeader + kImageHeaderSize + kMaxDescriptionSize + kMaxNetworkSize) {
    throw ImageError(path + ": has " + std::to_string(size) + " bytes, too many for a model file");
  }
  std::vector<char> bytes(size);
  std::ifstream file(path, std::ios::binary);
  if (!file.read(bytes.data(), static_cast<std::streamsize>(size))) {
    throw ImageReadError(path + ": cannot be read: " + std::strerror(errno));
  }
  return bytes;
}

// Position of the start pattern; what precedes it is key/value text.
std::size_t find_start_pattern(const std::vector<char>& bytes) {
  const auto start =
      std::search(bytes.begin(), bytes.end(), kStartPattern.begin(), kStartPattern.end());
  if (start == bytes.end()) {
    throw ImageError("no start pattern \"QTNX\" in it; make a model file with the packer");
  }
  // The library's own scan for the pattern ends at a zero byte.
  if (std::find(bytes.begin(), start, '\0') != start) {
    throw ImageError(
        "a zero byte in the key/value text before \"QTNX\"; the library would stop there");
  }
  return static_cast<std::size_t>(start - bytes.begin());
}

}  // namespace

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

std::vector<char> build_image(const Description& description, const std::vector<char>& network) {
  const std::string json = description_to_json(description);
  check_sizes(json.size(), network.size());
  std::uint32_t crc = add_to_crc(0, json.data(), json.size());
  crc = add_to_crc(crc, network.data(), network.size());

  std::vector<char> image(kStartPattern.begin(), kStartPattern.end());
  append_little_endian(kImageVersion, &image);
  append_little_endian(static_cast<std::uint32_t>(json.size()), &image);
  append_little_endian(crc, &image);
  append_little_endian(static_cast<std::uint64_t>(network.size()), &image);
  image.insert(image.end(), json.begin(), json.end());
  image.insert(image.end(), network.begin(), network.end());
  return image;
}

std::uint64_t image_size(const ImageHeader& header) {
  return kImageHeaderSize + header.description_size + header.network_size;
}

ImageHeader parse_image_header(const char (&bytes)[kImageHeaderSize]) {
  if (!std::equal(kStartPattern.begin(), kStartPattern.end(), bytes)) {
    throw ImageError("does not begin with \"QTNX\"; make a model file with the packer");
  }
  ImageHeader header;
  header.version = read_little_endian<std::uint32_t>(bytes + 4);
  header.description_size = read_little_endian<std::uint32_t>(bytes + 8);
  header.crc = read_little_endian<std::uint32_t>(bytes + 12);
  header.network_size = read_little_endian<std::uint64_t>(bytes + 16);
  if (header.version != kImageVersion) {
    throw ImageError("version: found " + std::to_string(header.version) + ", expected " +
                     std::to_string(kImageVersion) +
                     "; pack the network again for this host accelerator");
  }
  check_sizes(header.description_size, header.network_size);
  return header;
}

Image parse_image(const char* bytes, std::size_t size) {
  if (size < kImageHeaderSize) {
    throw ImageError("truncated: " + std::to_string(size) + " bytes, the fixed part alone has " +
                     std::to_string(kImageHeaderSize));
  }
  char fixed[kImageHeaderSize];
  std::copy_n(bytes, kImageHeaderSize, fixed);
  Image image;
  image.header = parse_image_header(fixed);
  if (size != image_size(image.header)) {
    throw ImageError(std::string(size < image_size(image.header) ? "truncated" : "too long") +
                     ": found " + std::to_string(size) + " bytes, the lengths in it announce " +
                     std::to_string(image_size(image.header)));
  }
  const char* description = bytes + kImageHeaderSize;
  const char* network = description + image.header.description_size;
  std::uint32_t crc = add_to_crc(0, description, image.header.description_size);
  crc = add_to_crc(crc, network, static_cast<std::size_t>(image.header.network_size));
  if (crc != image.header.crc) {
    throw ImageError(
        "CRC-32: the bytes do not match the checksum; the image is damaged, copy or "
        "pack it again");
  }
  image.description = parse_description(std::string(description, image.header.description_size));
  image.network.assign(network, bytes + size);
  return image;
}

Image read_image_file(const std::string& path, std::string* text_header) {
  const std::vector<char> bytes = read_file(path);
  try {
    const std::size_t start = find_start_pattern(bytes);
    Image image = parse_image(bytes.data() + start, bytes.size() - start);
    if (text_header != nullptr) {
      text_header->assign(bytes.data(), start);
    }
    return image;
  } catch (const ImageError& error) {
    throw ImageError(path + ": " + error.what());
  }
}

}  // namespace qv_host
