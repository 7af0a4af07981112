// model_pairs.h - the key/value pairs in front of an offline model: checking and writing them, and
// what the library makes of the key model_out.
// The library reads the pairs in base/sdet/model_image.cpp.
#ifndef TOOLS_INSIDE_MODEL_PAIRS_H
#define TOOLS_INSIDE_MODEL_PAIRS_H

#include <string>
#include <utility>
#include <vector>

#include "base/sdet/model_words.h"
#include "base/sdet/sdet_model.h"

namespace olvex_tools {

using Pair = std::pair<std::string, std::string>;
using Pairs = std::vector<Pair>;

// Throws ToolError (kUsageError) unless the library will read every pair back as it is.
void check_pairs(const Pairs& pairs);

// The text in front of the start pattern: "key:value" lines.
std::string file_header(const Pairs& pairs);

Pairs to_pairs(olvex::vector<ModelKeyValue_t>& entries);

// What the library reads from a header text or tensor name.
Pairs read_pairs(const std::string& text);

// Value of the first pair with the key; empty when there is none.
std::string first_value(const Pairs& pairs, const std::string& key);

// Classes and key points of an output.
struct TypeCounts {
  int classes = -1;
  int keypoints = 0;
  bool known = false;
};
// Counts that the library takes from a model_out word; known is false for an unknown word.
TypeCounts counts_of_word(const std::string& word);
// Counts that the library guesses from the channels of a raw layer without a word.
TypeCounts guess_counts(int channels);

// Whether a raw layer of so many channels holds the counts: 4 + classes + 3 or 2 for each key
// point.
bool channels_fit(const TypeCounts& counts, int channels);
// The channels that would fit, as "20 or 15".
std::string describe_channels(const TypeCounts& counts);

// All words for model_out.
const std::vector<std::string>& type_words();
// One line for each word: its classes, its key points, and the channels of a raw layer.
std::string describe_type_words();

}  // namespace olvex_tools

#endif  // TOOLS_INSIDE_MODEL_PAIRS_H
