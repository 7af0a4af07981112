// SPDX-License-Identifier: Apache-2.0
// network_metadata.cpp - the entries of metadata_props by the keys that exporters use, and the words in the
// names of outputs, the most telling first.
#include "tools/heads/head_evidence.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <initializer_list>
#include <map>
#include <optional>

#include "tools/common/text.h"

namespace olvex_tools {

namespace {

constexpr std::size_t kMostNames = 10000;

bool is_number(const std::string& text) {
  constexpr std::size_t kMostDigits = 6;
  return !text.empty() && text.size() <= kMostDigits &&
         text.find_first_not_of("0123456789") == std::string::npos;
}

// The texts between quotes, with the number in front of each where there is one.
std::map<std::size_t, std::string> quoted_texts(const std::string& text) {
  std::map<std::size_t, std::string> found;
  std::size_t next = 0;
  std::string digits;
  for (std::size_t i = 0; i < text.size() && found.size() < kMostNames; ++i) {
    const char letter = text[i];
    if (letter >= '0' && letter <= '9') {
      digits += letter;
    } else if (letter == '\'' || letter == '"') {
      const std::size_t end = text.find(letter, i + 1);
      if (end == std::string::npos) {
        break;
      }
      next = is_number(digits) ? static_cast<std::size_t>(std::stoul(digits)) : next;
      const std::string name = text.substr(i + 1, end - i - 1);
      const bool is_key = text.find_first_not_of(' ', end + 1) < text.size() &&
                          text[text.find_first_not_of(' ', end + 1)] == ':';
      if (is_key) {  // JSON writes numbers as texts, too
        digits = name;
      } else {
        found[next++] = name;
        digits.clear();
      }
      i = end;
    }
  }
  return found;
}

}  // namespace

std::optional<std::string> metadata_entry(const NetworkGraph& network,
                                          std::initializer_list<const char*> keys,
                                          std::string* used) {
  const std::map<std::string, std::string> entries = network.metadata();
  for (const auto& [name, value] : entries) {
    const std::string key = in_lower_case(name);
    if (std::find(keys.begin(), keys.end(), key) != keys.end() && !value.empty()) {
      *used = name;
      return value;
    }
  }
  return std::nullopt;
}

std::vector<std::string> class_names_in_metadata(const NetworkGraph& network) {
  std::string used;
  const auto text = metadata_entry(network, {"names", "classes", "class_names", "labels"}, &used);
  std::vector<std::string> names;
  if (!text) {
    return names;
  }
  if (is_number(*text)) {
    return names;  // how many there are
  }
  // A dictionary or a list, with or without brackets; in other texts a quote is a letter of a name.
  const std::size_t first = text->find_first_not_of(" \t\n");
  const bool quoted = first != std::string::npos &&
                      std::string("{[(\"'0123456789").find((*text)[first]) != std::string::npos;
  const std::map<std::size_t, std::string> found =
      quoted ? quoted_texts(*text) : std::map<std::size_t, std::string>();
  for (const auto& [number, name] : found) {
    if (number != names.size()) {
      return {};  // not every class has a name
    }
    names.push_back(name);
  }
  if (names.empty()) {
    for (const std::string& name :
         split(*text, text->find('\n') == std::string::npos ? ',' : '\n')) {
      names.push_back(name);
    }
  }
  return names;
}

// ---- The names of outputs -----------------------------------------------------------------------

namespace {

struct Word {
  const char* word;
  bool begins;  // only at the beginning of a word, as it is part of others
  NamedContents contents;
};

const Word kWords[] = {{"landm", false, NamedContents::kPoints},
                       {"keypoint", false, NamedContents::kPoints},
                       {"kps", true, NamedContents::kPoints},
                       {"kpt", true, NamedContents::kPoints},
                       {"centerness", false, NamedContents::kCentreness},
                       {"centreness", false, NamedContents::kCentreness},
                       {"ctr", true, NamedContents::kCentreness},
                       {"score", false, NamedContents::kScores},
                       {"class", false, NamedContents::kScores},
                       {"conf", true, NamedContents::kScores},
                       {"cls", true, NamedContents::kScores},
                       {"prob", true, NamedContents::kScores},
                       {"logit", true, NamedContents::kScores},
                       {"label", true, NamedContents::kScores},
                       {"box", false, NamedContents::kBoxes},
                       {"loc", true, NamedContents::kBoxes},
                       {"reg", true, NamedContents::kBoxes},
                       {"coord", true, NamedContents::kBoxes},
                       {"ltrb", true, NamedContents::kBoxes},
                       {"offset", true, NamedContents::kBoxes},
                       {"delta", true, NamedContents::kBoxes}};

bool holds(const std::string& name, const Word& word) {
  const std::string text = word.word;
  for (std::size_t at = name.find(text); at != std::string::npos; at = name.find(text, at + 1)) {
    if (!word.begins || at == 0 || std::isalpha(static_cast<unsigned char>(name[at - 1])) == 0) {
      return true;
    }
  }
  return false;
}

}  // namespace

NamedContents contents_by_name(const std::string& output) {
  const std::string name = in_lower_case(output);
  for (const Word& word : kWords) {
    if (holds(name, word)) {
      return word.contents;
    }
  }
  return NamedContents::kUnknown;
}

}  // namespace olvex_tools
