// SPDX-License-Identifier: Apache-2.0
// model_pairs.cpp - header pairs and type words. The library decides what a word or a channel
// count means.
#include "tools/inside/model_facts.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>

#include "base/sdet/start_pattern.h"
#include "tools/common/command.h"
#include "tools/common/text.h"

namespace olvex_tools {

namespace {

constexpr std::size_t kLongestText = 127;  // bytes of a key or value that the library keeps

// Why the library would not read the text back as it is; empty when it would.
std::string fault_of(const std::string& text) {
  if (text.empty()) {
    return "is empty, and the library skips such an entry";
  }
  if (text.size() > kLongestText) {
    return "has " + std::to_string(text.size()) + " bytes, and the library keeps " +
           std::to_string(kLongestText);
  }
  const std::pair<char, const char*> breaks[] = {
      {':', "a ':', which divides key from value"},
      {';', "a ';', which ends the entry"},
      {'\n', "a newline, which ends the entry"},
      {'\0', "a zero byte, which ends the header"},
  };
  for (const auto& entry : breaks) {
    if (text.find(entry.first) != std::string::npos) {
      return std::string("contains ") + entry.second;
    }
  }
  if (text.find(kStartPattern) != std::string::npos) {
    return "contains \"QTNX\", which starts the offline model";
  }
  return "";
}

void check_text(const std::string& kind, const std::string& text) {
  const std::string fault = fault_of(text);
  if (!fault.empty()) {
    refuse_usage(kind + " \"" + text.substr(0, 40) + (text.size() > 40 ? "..." : "") + "\" " +
                 fault +
                 ". Choose another text: 1 to 127 bytes without ':', ';', "
                 "newline and \"QTNX\"");
  }
}

ModelKeyValue_t model_out_entry(const std::string& word) {
  ModelKeyValue_t entry = {};
  std::snprintf(entry.key, sizeof entry.key, "%s", kModelOutKey);
  std::snprintf(entry.value, sizeof entry.value, "%s", word.c_str());
  return entry;
}

}  // namespace

Pairs to_pairs(olvex::vector<ModelKeyValue_t>& entries) {
  Pairs pairs;
  for (unsigned i = 0; i < entries.size(); ++i) {
    pairs.emplace_back(entries[i].key, entries[i].value);
  }
  return pairs;
}

void check_pairs(const Pairs& pairs) {
  for (const Pair& pair : pairs) {
    check_text("the key", pair.first);
    check_text("the value of \"" + pair.first + "\",", pair.second);
  }
}

std::string file_header(const Pairs& pairs) {
  std::string text;
  for (const Pair& pair : pairs) {
    text += pair.first + ":" + pair.second + "\n";
  }
  return text;
}

Pairs read_pairs(const std::string& text) {
  // The scan looks three bytes past its length for the start pattern.
  std::string buffer = text + std::string(1 + sizeof kStartPattern, '\0');
  olvex::vector<ModelKeyValue_t> entries;
  char* model = nullptr;
  get_model_kvs(&buffer[0], text.size() + 1, entries, model);
  return to_pairs(entries);
}

std::string first_value(const Pairs& pairs, const std::string& key) {
  const auto found =
      std::find_if(pairs.begin(), pairs.end(), [&](const Pair& pair) { return pair.first == key; });
  return found == pairs.end() ? "" : found->second;
}

TypeCounts counts_of_word(const std::string& word) {
  olvex::vector<ModelKeyValue_t> entries;
  entries.push_back(model_out_entry(word));
  TypeCounts counts;
  counts.known = set_det_class_keypoint(entries, counts.classes, counts.keypoints) == 0;
  return counts;
}

TypeCounts guess_counts(int channels) {
  TypeCounts counts;
  counts.known = det_class_keypoint_guess(channels, counts.classes, counts.keypoints) == 0;
  return counts;
}

const std::vector<std::string>& type_words() {
  static const std::vector<std::string> words = [] {
    std::vector<std::string> known;
    for (const ModelWord& word : kModelWords) {
      known.emplace_back(word.word);
    }
    return known;
  }();
  return words;
}

std::string describe_channels(const TypeCounts& counts) {
  const int base = 4 + counts.classes;
  std::string text = std::to_string(base + 3 * counts.keypoints);
  if (counts.keypoints > 0) {
    text += " or " + std::to_string(base + 2 * counts.keypoints);
  }
  return text;
}

bool channels_fit(const TypeCounts& counts, int channels) {
  const int base = 4 + counts.classes;
  return channels == base + 3 * counts.keypoints || channels == base + 2 * counts.keypoints;
}

std::string describe_type_words() {
  std::string text;
  for (const std::string& word : type_words()) {
    const TypeCounts counts = counts_of_word(word);
    text += format("  %-10s %2d %-9s%2d key points: %s channels\n", word.c_str(), counts.classes,
                   counts.classes == 1 ? "class," : "classes,", counts.keypoints,
                   describe_channels(counts).c_str());
  }
  return text;
}

}  // namespace olvex_tools
