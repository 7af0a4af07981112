// SPDX-License-Identifier: Apache-2.0
// preprocessing.cpp - mean, scale, colours and resize of a network: what its metadata says, or else what is
// usual for the head's family. Declared in head_evidence.h.
#include "tools/heads/head_evidence.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <initializer_list>
#include <optional>

#include "tools/common/text.h"

namespace olvex_tools {

namespace {

using qv_host::ColourOrder;
using qv_host::Resize;

// One number, or three, however they are separated.
std::optional<std::array<float, 3>> three_numbers(const std::string& text) {
  std::vector<float> numbers;
  const char* place = text.c_str();
  while (*place != '\0' && numbers.size() < 4) {
    char* end = nullptr;
    const float value = std::strtof(place, &end);
    if (end == place) {
      ++place;
      continue;
    }
    place = end;
    float divisor = 1.f;
    if (*end == '/') {
      char* behind = nullptr;
      divisor = std::strtof(end + 1, &behind);
      place = behind;
    }
    numbers.push_back(value / divisor);
  }
  if (numbers.size() == 1) {
    numbers.resize(3, numbers.front());
  }
  const bool finite =
      std::all_of(numbers.begin(), numbers.end(), [](float value) { return std::isfinite(value); });
  return numbers.size() == 3 && finite
             ? std::make_optional(std::array<float, 3>{{numbers[0], numbers[1], numbers[2]}})
             : std::nullopt;
}

// As it is written best: 1/255, or the shortest decimal number that reads back as the same.
std::string number_text(float value) {
  const auto reads_back = [&](const std::string& text) {
    return std::strtof(text.c_str(), nullptr) == value;
  };
  const double reciprocal = 1 / static_cast<double>(value);
  const std::string divisor = format("%.6g", reciprocal);
  if (std::fabs(value) < .5f && value != 0.f &&
      static_cast<float>(1 / std::strtod(divisor.c_str(), nullptr)) == value) {
    return "1/" + divisor;
  }
  const std::string plain = format("%.7g", static_cast<double>(value));
  return reads_back(plain) ? plain : format("%.9g", static_cast<double>(value));
}

std::string three_text(const std::array<float, 3>& numbers) {
  const bool same = numbers[0] == numbers[1] && numbers[1] == numbers[2];
  return same ? number_text(numbers[0])
              : number_text(numbers[0]) + "," + number_text(numbers[1]) + "," +
                    number_text(numbers[2]);
}

// ---- What is usual ------------------------------------------------------------------------------

struct Usual {
  ColourOrder order;
  std::array<float, 3> mean;
  std::array<float, 3> deviation;  // the scale is 1 / deviation
  Resize resize;
};

constexpr std::array<float, 3> kZero = {{0.f, 0.f, 0.f}};
constexpr std::array<float, 3> kOne = {{1.f, 1.f, 1.f}};
constexpr std::array<float, 3> k255 = {{255.f, 255.f, 255.f}};

Usual usual_of(const HeadReading& reading) {
  const Head& head = reading.head;
  const bool points = head.keypoints.present();
  // Scores with a column for the background are those of a single-shot detector, decoded or not.
  const bool single_shot =
      head.family == "priors" || (head.family == kDecodedTables && head.background >= 0);
  if (head.family == "objectness-offsets" || head.family == "class-objectness-box") {
    return {ColourOrder::kBgr, kZero, kOne, points ? Resize::kStretch : Resize::kLetterbox};
  }
  if (head.family == "distance-bins") {
    return {ColourOrder::kBgr,
            {{103.53f, 116.28f, 123.675f}},
            {{57.375f, 57.12f, 58.395f}},
            Resize::kStretch};
  }
  if (single_shot && points) {
    return {ColourOrder::kBgr, {{104.f, 117.f, 123.f}}, kOne, Resize::kStretch};
  }
  if (single_shot) {
    return {ColourOrder::kRgb, {{127.f, 127.f, 127.f}}, {{128.f, 128.f, 128.f}}, Resize::kStretch};
  }
  if (head.family == "score-distance") {
    return {
        ColourOrder::kRgb, {{127.5f, 127.5f, 127.5f}}, {{128.f, 128.f, 128.f}}, Resize::kLetterbox};
  }
  if (head.family == "own-formula") {
    return {ColourOrder::kBgr, kZero, k255, Resize::kStretch};
  }
  if (head.family == kDecodedTables || head.family == "raw") {
    return {ColourOrder::kRgb, kZero, k255, Resize::kStretch};
  }
  return {ColourOrder::kRgb, kZero, k255, Resize::kLetterboxCentred};
}

// Whether the network itself takes a mean off its input or scales it.
bool scales_its_input(const HeadQuestion& question) {
  for (const onnx::NodeProto* node : question.network.users_of(question.input)) {
    for (const char* operation : {"Sub", "Mul", "Div", "BatchNormalization"}) {
      if (node->op_type() == operation) {
        return true;
      }
    }
  }
  return false;
}

std::string resize_word(Resize resize) {
  switch (resize) {
    case Resize::kLetterbox:
      return "letterbox";
    case Resize::kLetterboxCentred:
      return "letterbox-centred";
    case Resize::kStretch:
      break;
  }
  return "stretch";
}

std::string order_word(ColourOrder order) {
  switch (order) {
    case ColourOrder::kGray:
      return "gray";
    case ColourOrder::kBgr:
      return "bgr";
    case ColourOrder::kRgb:
      break;
  }
  return "rgb";
}

bool has_word(const std::string& text, const std::string& word) {
  return in_lower_case(text).find(word) != std::string::npos;
}

bool are_positive(const std::array<float, 3>& numbers) {
  return std::all_of(numbers.begin(), numbers.end(), [](float value) { return value > 0.f; });
}

// Numbers up to 1 are fractions of the brightest value.
bool are_fractions(const std::array<float, 3>& numbers) {
  return std::all_of(numbers.begin(), numbers.end(),
                     [](float value) { return value > 0.f && value <= 1.f; });
}

// The preprocessing, step by step from what is usual to what is given, and where each part is from.
class Source {
 public:
  Source(const HeadQuestion& question, const HeadReading& reading)
      : question_(question), network_(question.network), reading_(reading) {}

  Preprocessing conclude() {
    take_usual();
    take_mean();
    take_scale();
    take_order();
    take_resize();
    take_given();
    return result_;
  }

  std::string mean = "as usual for this family";
  std::string scale = mean;
  std::string order = mean;
  std::string resize = mean;

 private:
  void take_usual() {
    Usual usual = usual_of(reading_);
    // An objectness without anchors is decoded from offsets.
    if (reading_.head.family == "objectness" && reading_.rows_of_cell == 1 &&
        network_.metadata().empty()) {
      usual = {ColourOrder::kBgr, kZero, kOne, Resize::kLetterbox};
    }
    // What selects its best boxes without suppression was trained end to end, on pictures of their own aspect;
    // exporters of such networks and of those with suppression note the stride.
    if (reading_.head.family == kDecodedTables && reading_.head.background < 0 &&
        (question_.selection == Selection::kBest || network_.metadata().count("stride") > 0)) {
      usual.resize = Resize::kLetterboxCentred;
    }
    if (scales_its_input(question_)) {
      usual.mean = kZero;
      usual.deviation = kOne;
      mean = scale = "the network scales its input itself";
    }
    result_.order = usual.order;
    result_.mean = usual.mean;
    result_.resize = usual.resize;
    set_deviation(usual.deviation, 1.f);
  }

  void set_deviation(const std::array<float, 3>& deviation, float factor) {
    for (std::size_t i = 0; i < deviation.size(); ++i) {
      result_.scale[i] = 1.f / (deviation[i] * factor);
    }
  }

  // The value of the first of these keys, and in *source where it is from.
  std::optional<std::string> find(std::initializer_list<const char*> keys, std::string* source) {
    std::string used;
    const std::optional<std::string> text = metadata_entry(network_, keys, &used);
    if (text) {
      *source = "the metadata's \"" + used + "\"";
    }
    return text;
  }

  std::optional<std::array<float, 3>> find_numbers(std::initializer_list<const char*> keys,
                                                   std::string* source) {
    std::string found;
    const std::optional<std::string> text = find(keys, &found);
    const auto numbers = text ? three_numbers(*text) : std::nullopt;
    *source = numbers ? found : *source;
    return numbers;
  }

  void take_mean() {
    const auto numbers =
        find_numbers({"mean", "means", "image_mean", "pixel_mean", "mean_values"}, &mean);
    if (!numbers) {
      return;
    }
    result_.mean = *numbers;
    mean_goes_to_255_ =
        std::any_of(numbers->begin(), numbers->end(), [](float value) { return value > 1.f; });
    if (are_fractions(*numbers)) {
      for (float& value : result_.mean) {
        value *= 255.f;
      }
    }
  }

  void take_scale() {
    std::string from;
    const auto deviation =
        find_numbers({"std", "stds", "stddev", "image_std", "pixel_std", "std_values"}, &from);
    if (deviation && are_positive(*deviation)) {
      set_deviation(*deviation, are_fractions(*deviation) && !mean_goes_to_255_ ? 255.f : 1.f);
      scale = from;
      return;
    }
    const auto factor =
        find_numbers({"scale", "scales", "norm", "scale_values", "image_scale"}, &from);
    if (factor && are_positive(*factor)) {
      for (std::size_t i = 0; i < 3; ++i) {
        // A number to divide by.
        result_.scale[i] = (*factor)[i] > 2.f ? 1.f / (*factor)[i] : (*factor)[i];
      }
      scale = from;
    }
  }

  void take_order() {
    std::string from;
    const auto text =
        find({"color_order", "colour_order", "channel_order", "color_format", "colour_format",
              "image_format", "input_format", "color_space", "color", "colour"},
             &from);
    if (text && (has_word(*text, "bgr") || has_word(*text, "rgb"))) {
      result_.order = has_word(*text, "bgr") ? ColourOrder::kBgr : ColourOrder::kRgb;
      order = from;
    }
    const std::optional<Shape> input = network_.shape_of(question_.input);
    if (input && input->size() == 4 && (*input)[1] == 1) {
      result_.order = ColourOrder::kGray;
      order = "the network's input has one plane";
    }
  }

  void take_resize() {
    std::string from;
    const auto text = find({"resize", "resize_mode", "letterbox", "keep_ratio"}, &from);
    if (!text) {
      return;
    }
    const bool stretch = has_word(*text, "false") || has_word(*text, "stretch") || *text == "0";
    const bool centred = has_word(*text, "centr") || has_word(*text, "center");
    result_.resize = stretch   ? Resize::kStretch
                     : centred ? Resize::kLetterboxCentred
                               : Resize::kLetterbox;
    resize = from;
  }

  void take_given() {
    const HeadOptions& options = question_.options;
    result_.mean = options.mean.value_or(result_.mean);
    mean = options.mean ? "as given" : mean;
    result_.scale = options.scale.value_or(result_.scale);
    scale = options.scale ? "as given" : scale;
    result_.order = options.order.value_or(result_.order);
    order = options.order ? "as given" : order;
    result_.resize = options.resize.value_or(result_.resize);
    resize = options.resize ? "as given" : resize;
  }

  const HeadQuestion& question_;
  const NetworkGraph& network_;
  const HeadReading& reading_;
  Preprocessing result_;
  bool mean_goes_to_255_ = false;  // the metadata's; its deviation is in the same unit
};

}  // namespace

void conclude_preprocessing(const HeadQuestion& question, HeadReading* reading) {
  Source source(question, *reading);
  reading->preprocessing = source.conclude();
  const Preprocessing& result = reading->preprocessing;
  add_fact(reading, "colours " + order_word(result.order) + ": " + source.order,
           "--network-order " + order_word(result.order));
  add_fact(reading, "mean " + three_text(result.mean) + ": " + source.mean,
           "--mean " + three_text(result.mean));
  add_fact(reading, "scale " + three_text(result.scale) + ": " + source.scale,
           "--scale " + three_text(result.scale));
  add_fact(reading, "pictures are fitted by " + resize_word(result.resize) + ": " + source.resize,
           "--resize " + resize_word(result.resize));
}

}  // namespace olvex_tools
