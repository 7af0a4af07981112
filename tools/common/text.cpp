// text.cpp - plain routines over strings. Read text.h first.
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

// U+0080 to U+009F, which some terminals obey, too.
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

}  // namespace olvex_tools
