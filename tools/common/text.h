// SPDX-License-Identifier: Apache-2.0
// text.h - texts for messages and reports: numbers, counts, lists, and names from files made safe to show.
// And what a misspelt word was probably meant to be.
#ifndef TOOLS_COMMON_TEXT_H
#define TOOLS_COMMON_TEXT_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace olvex_tools {

// As printf, with a result of any length.
std::string format(const char* pattern, ...) __attribute__((format(printf, 1, 2)));

// "1 box", "2 boxes".
template <typename Count>
std::string counted(Count count, const std::string& one, const std::string& many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

std::string join(const std::vector<std::string>& words, const std::string& separator);

// The texts that describe returns for the items.
template <typename Items, typename Describe>
std::string join(const Items& items, const std::string& separator, const Describe& describe) {
  std::vector<std::string> words;
  for (const auto& item : items) {
    words.push_back(describe(item));
  }
  return join(words, separator);
}

// "640x384".
std::string size_text(int width, int height);

// Tables from other systems may begin with a mark that says they are UTF-8.
std::string_view without_byte_order_mark(std::string_view text);

std::vector<std::string> split(const std::string& text, char separator);
std::string in_lower_case(std::string text);

// Names come from files and may hold any bytes. Control characters, which could control the terminal,
// become question marks: all but line ends, or in one_line all.
std::string printable(const std::string& text);
std::string one_line(const std::string& text);

// The first letters of a text in UTF-8, with ending appended when that is not all.
std::string shortened(std::string_view text, std::size_t letters, const std::string& ending);

// Letters on the screen: bytes that continue a UTF-8 letter have no width.
std::size_t width_of(const std::string& text);

// The nearest of names by edits (a letter added, left out, replaced, or two neighbours swapped);
// empty when none is near enough to be meant.
std::string closest_name(const std::string& word, const std::vector<std::string>& names);

// ". Did you mean NAME?" for the closest name, or nothing.
std::string did_you_mean(const std::string& word, const std::vector<std::string>& names);

// The word as a shell reads it: in quotes where it needs them.
std::string shell_word(const std::string& word);

}  // namespace olvex_tools

#endif  // TOOLS_COMMON_TEXT_H
