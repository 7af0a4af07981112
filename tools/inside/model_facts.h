// model_facts.h - what the library makes of a model: pairs, type, class mapping, tensors, and the
// decoder that it will choose. Every decision is the library's; here it is only described.
// inspect_command.cpp prints the facts, pack_command.cpp refuses a model whose decoding has a fault.
#ifndef TOOLS_INSIDE_MODEL_FACTS_H
#define TOOLS_INSIDE_MODEL_FACTS_H

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/inside/library_model.h"
#include "tools/inside/model_pairs.h"

namespace olvex_tools {

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

}  // namespace olvex_tools

#endif  // TOOLS_INSIDE_MODEL_FACTS_H
