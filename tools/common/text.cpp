// SPDX-License-Identifier: Apache-2.0
// text.cpp - plain routines over strings.
#include "tools/common/text.h"

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>

namespace olvex_tools {

namespace {

bool is_control(char character) {
  const auto code = static_cast<unsigned char>(character);
  return code < 0x20 || code == 0x7f;
}

// U+0080 to U+009F, which some terminals interpret, too.
bool is_wide_control(const std::string& text, std::size_t position) {
  return position + 1 < text.size() && text[position] == '\xc2' &&
         (static_cast<unsigned char>(text[position + 1]) & 0xe0) == 0x80;
}

std::string without_controls(const std::string& text, bool keep_line_ends) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool wide = is_wide_control(text, i);
    const bool kept = keep_line_ends && text[i] == '\n';
    result += wide || (is_control(text[i]) && !kept) ? '?' : text[i];
    i += wide ? 1 : 0;
  }
  return result;
}

bool begins_letter(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0) != 0x80;
}

// With transpositions (restricted Damerau-Levenshtein).
std::size_t edit_distance(const std::string& a, const std::string& b) {
  std::vector<std::vector<std::size_t>> distance(a.size() + 1,
                                                 std::vector<std::size_t>(b.size() + 1));
  for (std::size_t i = 0; i <= a.size(); ++i) {
    for (std::size_t j = 0; j <= b.size(); ++j) {
      if (i == 0 || j == 0) {
        distance[i][j] = i + j;
        continue;
      }
      const std::size_t replaced = distance[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      distance[i][j] = std::min({distance[i - 1][j] + 1, distance[i][j - 1] + 1, replaced});
      const bool swapped = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
      if (swapped) {
        distance[i][j] = std::min(distance[i][j], distance[i - 2][j - 2] + 1);
      }
    }
  }
  return distance[a.size()][b.size()];
}

// All options begin with the same dashes, which make no two of them alike.
std::string without_dashes(const std::string& word) {
  return word.substr(std::min(word.find_first_not_of('-'), word.size()));
}

}  // namespace

std::string format(const char* pattern, ...) {
  va_list values;
  va_start(values, pattern);
  va_list values_again;
  va_copy(values_again, values);
  const int size = std::vsnprintf(nullptr, 0, pattern, values);
  va_end(values);
  std::string text(static_cast<std::size_t>(std::max(size, 0)) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), pattern, values_again);
  va_end(values_again);
  text.pop_back();
  return text;
}

std::string join(const std::vector<std::string>& words, const std::string& separator) {
  std::string text;
  for (const std::string& word : words) {
    text += (text.empty() ? "" : separator) + word;
  }
  return text;
}

std::string size_text(int width, int height) {
  return std::to_string(width) + "x" + std::to_string(height);
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

std::string_view without_byte_order_mark(std::string_view text) {
  constexpr std::string_view kMark = "\xEF\xBB\xBF";
  return text.substr(0, kMark.size()) == kMark ? text.substr(kMark.size()) : text;
}

std::string in_lower_case(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::string printable(const std::string& text) {
  return without_controls(text, true);
}

std::string one_line(const std::string& text) {
  return without_controls(text, false);
}

std::string shortened(std::string_view text, std::size_t letters, const std::string& ending) {
  std::size_t end = 0;
  for (std::size_t seen = 0; end < text.size(); ++end) {
    if (begins_letter(text[end]) && seen++ == letters) {
      return std::string(text.substr(0, end)) + ending;
    }
  }
  return std::string(text);
}

std::size_t width_of(const std::string& text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), begins_letter));
}

std::string closest_name(const std::string& word, const std::vector<std::string>& names) {
  std::string closest;
  // A third of the letters may be wrong, and one of three; more than that is another word.
  const std::string letters = without_dashes(word);
  std::size_t limit = letters.size() / 3;
  for (const std::string& name : names) {
    const std::size_t distance = edit_distance(letters, without_dashes(name));
    if (distance < limit || (distance == limit && closest.empty() && limit > 0)) {
      limit = distance;
      closest = name;
    }
  }
  return closest;
}

std::string did_you_mean(const std::string& word, const std::vector<std::string>& names) {
  const std::string name = closest_name(word, names);
  return name.empty() ? name : ". Did you mean " + name + "?";
}

std::string shell_word(const std::string& word) {
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

}  // namespace olvex_tools
