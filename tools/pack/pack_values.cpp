// SPDX-License-Identifier: Apache-2.0
// pack_values.cpp - numbers, sizes and header entries from the texts of options.
#include "tools/pack/pack.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "tools/common/command.h"
#include "tools/common/text.h"

namespace olvex_tools {

namespace {

// The number that takes up the whole text; NaN when there is none.
double whole_number_text(const std::string& text) {
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  return text.empty() || *end != '\0' ? std::nan("") : value;
}

void check_type_word(const std::string& word) {
  if (counts_of_word(word).known) {
    return;
  }
  const std::string hint = did_you_mean(word, type_words());
  refuse_usage("\"" + word + "\" is no model_out word of the library" +
               (hint.empty() ? "." : hint) + " Its words:\n" + describe_type_words() +
               "Without a word the library goes by the number of channels");
}

}  // namespace

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

ThreeNumbers parse_three(const std::string& option, const std::string& text) {
  const std::vector<std::string> parts = split(text, ',');
  if (parts.size() != 1 && parts.size() != 3) {
    refuse_usage(option + ": \"" + text + "\" holds " + std::to_string(parts.size()) +
                 " numbers. Give one, or three with commas between and no blanks");
  }
  ThreeNumbers numbers = {};
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    numbers[i] = parse_number(option, parts[parts.size() == 1 ? 0 : i]);
  }
  return numbers;
}

FrameSize parse_size(const std::string& text) {
  const std::vector<std::string> parts = split(in_lower_case(text), 'x');
  const bool two = parts.size() == 2;
  const double across = two ? whole_number_text(parts[0]) : std::nan("");
  const double down = two ? whole_number_text(parts[1]) : std::nan("");
  const bool fits = across >= 1 && across <= 65535 && down >= 1 && down <= 65535 &&
                    across == std::floor(across) && down == std::floor(down);
  if (!fits) {
    refuse_usage("--size: \"" + text + "\" is no size. Write width x height, as in 640x384");
  }
  return {static_cast<int>(across), static_cast<int>(down)};
}

int parse_count(const std::string& option, const std::string& text) {
  const double value = whole_number_text(text);
  if (!(value >= 1 && value <= 1e6 && value == std::floor(value))) {
    refuse_usage(option + ": \"" + text + "\" is no whole number of 1 or more");
  }
  return static_cast<int>(value);
}

int parse_background(const std::string& option, const std::string& text) {
  constexpr double kMost = 32767;
  const double value = in_lower_case(text) == "none" ? -1 : whole_number_text(text);
  if (!(value >= -1 && value <= kMost && value == std::floor(value))) {
    refuse_usage(option + ": \"" + text + "\" is no column. Write its number, from 0, or none");
  }
  return static_cast<int>(value);
}

std::vector<int> parse_integers(const std::string& option, const std::string& text) {
  std::vector<int> numbers;
  for (const std::string& part : split(text, ',')) {
    numbers.push_back(parse_count(option, part));
  }
  return numbers;
}

SizesOfLayers parse_sizes(const std::string& option, const std::string& text) {
  SizesOfLayers sizes;
  for (const std::string& layer : split(text, '/')) {
    sizes.emplace_back();
    for (const std::string& box : split(layer, ',')) {
      const std::vector<std::string> sides = split(in_lower_case(box), 'x');
      const double width = whole_number_text(sides.front());
      const double height = whole_number_text(sides.back());
      if (sides.size() > 2 || !(width > 0 && width < 1e5 && height > 0 && height < 1e5)) {
        refuse_usage(option + ": \"" + box + "\" is no size. Write 10x13,16x30/30x61,62x45");
      }
      sizes.back().push_back({width, height});
    }
  }
  return sizes;
}

std::array<double, 2> parse_two_numbers(const std::string& option, const std::string& text) {
  const std::vector<std::string> parts = split(text, ',');
  const double first = whole_number_text(parts.front());
  const double second = whole_number_text(parts.back());
  if (parts.size() != 2 || !(first > 0 && first < 1e3 && second > 0 && second < 1e3)) {
    refuse_usage(option + ": \"" + text + "\" are not two numbers above 0. Write 0.1,0.2");
  }
  return {{first, second}};
}

double parse_place(const std::string& option, const std::string& text) {
  const double place = whole_number_text(text);
  if (!(place >= 0 && place <= 1)) {
    refuse_usage(option + ": \"" + text + "\" is no place in a cell. Write 0 or 0.5");
  }
  return place;
}

std::string parse_family(const std::string& option, const std::string& text) {
  std::vector<std::string> names;
  for (const HeadFamily& family : head_families()) {
    names.push_back(family.name);
  }
  const std::string word = in_lower_case(text);
  if (std::find(names.begin(), names.end(), word) == names.end()) {
    refuse_usage(option + ": \"" + text + "\" is none of " + join(names, ", ") +
                 did_you_mean(word, names));
  }
  return word;
}

Pair parse_pair(const std::string& text) {
  const std::size_t equals = text.find('=');
  if (equals == std::string::npos) {
    refuse_usage("--pair: \"" + text + "\" has no '='. Write KEY=VALUE");
  }
  return {text.substr(0, equals), text.substr(equals + 1)};
}

void check_header(const Pairs& pairs) {
  check_pairs(pairs);
  for (const Pair& pair : pairs) {
    if (pair.first == kModelOutKey) {
      check_type_word(pair.second);
    }
  }
}

}  // namespace olvex_tools
