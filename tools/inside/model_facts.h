// SPDX-License-Identifier: Apache-2.0
// model_facts.h - what the library makes of a model: pairs, type, class mapping, tensors, and the
// decoder that it will choose. Every decision is the library's; here it is only described.
// inspect_command.cpp prints the facts, pack_command.cpp refuses a model whose decoding has a fault.
// And the scales of a description.
#ifndef TOOLS_INSIDE_MODEL_FACTS_H
#define TOOLS_INSIDE_MODEL_FACTS_H

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/sdet/model_words.h"
#include "base/sdet/sdet_model.h"
#include "platform/host/host_image.h"

#include "tools/inside/library_model.h"

namespace olvex_tools {

// ---- The key/value pairs in front of an offline model (model_pairs.cpp) -------------------------

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

// ---- The facts (model_facts.cpp) ----------------------------------------------------------------

struct TensorFacts {
  std::string name;
  std::vector<unsigned> shape;  // N, H, W, C
  std::string format;
  float scale = 0.f;  // real value of 1
  int bytes = 0;      // of the buffer
};

// How the outputs become boxes.
struct DecodingFacts {
  OutputDecoder decoder = kDecoderNone;
  std::string reason;         // why that decoder is chosen
  std::string fault;          // why it will find no boxes, and what to do; empty when it works
  std::string counts_source;  // where the counts come from: model_out, channels, tensors, none
  TypeCounts counts;          // classes -1: not fixed
};

struct ModelFacts {
  Pairs file_pairs;   // in front of the start pattern
  Pairs name_pairs;   // in the first output's name; when there are any, only they count
  Pairs valid_pairs;  // those that the library goes by
  std::vector<std::pair<int, int>> class_map;  // model class id, library class id
  std::optional<int> double_check_target;      // class that strict mode confirms
  std::vector<int> double_check_classes;       // by boxes of these
  std::vector<TensorFacts> inputs;
  std::vector<TensorFacts> outputs;
  DecodingFacts decoding;
  unsigned variable_buffer_size = 0;  // bytes
};

// text_header: what stands before the start pattern. Requires: a LibraryLog exists.
ModelFacts collect_facts(LibraryModel* opened, const std::string& text_header);

// "boxes 1x1x100x4 FP32".
std::string describe(const TensorFacts& tensor);

// ---- The scales of 16-bit outputs (model_facts.cpp) ---------------------------------------------

// pack's calibration.cpp sets them, doctor judges them.
constexpr double kScaleSteps = std::numeric_limits<std::int16_t>::max();

struct ScaledOutput {
  std::size_t tensor = 0;    // its place among the output tensors
  double natural_reach = 0;  // values up to here are to be expected whatever pictures show; 0: none
  std::string name;          // the network's output
  float* scale = nullptr;    // in the description
  const char* option = "";   // of pack
};

// description must outlive what is returned.
std::vector<ScaledOutput> scaled_outputs(qv_host::Description* description);

// The real value of 1 for a tensor whose largest value, without sign, is known.
float scale_for(double largest, double natural_reach);

}  // namespace olvex_tools

#endif  // TOOLS_INSIDE_MODEL_FACTS_H
