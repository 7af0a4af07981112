// SPDX-License-Identifier: Apache-2.0
// packer_fuzz.cpp - what olvex-det pack and inspect read beside images: networks' signatures, the
// options with the files that they name, and header texts. The first byte of an input chooses: odd:
// a header text; even: options as typed, description, class names and network, divided by zero
// bytes.
#include <cstdint>

#include <CLI/CLI.hpp>

#include "fuzz/fuzz_input.h"
#include "tools/common/command.h"
#include "tools/network/loadable.h"
#include "tools/pack/pack.h"

namespace {

using namespace olvex_tools;

constexpr std::int64_t kSide = 64;  // pixels, where a network leaves its size open

void read_header(const std::string& text) {
  const Pairs pairs = read_pairs(text);
  for (const Pair& pair : pairs) {
    FUZZ_CHECK(!pair.first.empty() && !pair.second.empty());
    const TypeCounts counts = counts_of_word(pair.second);
    FUZZ_CHECK(!counts.known || channels_fit(counts, 4 + counts.classes + 2 * counts.keypoints));
  }
}

// Quotes and blanks as a shell takes them. False: the command line is refused.
bool parse_options(const std::string& line, PackOptions* options) {
  CLI::App application;
  const auto convert = add_pack_options(OptionTable(&application), options);
  try {
    application.parse(line);
    convert();
    return true;
  } catch (const CLI::ParseError&) {
    return false;
  }
}

void check_packed(const qv_host::Description& description) {
  FUZZ_CHECK(read_pairs(output_tensor_names(description)[0]) == description.name_pairs);
  std::string json;
  try {
    json = description_to_json(description);
  } catch (const qv_host::ImageError&) {
    return;  // names in a network need not be UTF-8
  }
  FUZZ_CHECK(description_to_json(qv_host::parse_description(json)) == json);
}

NetworkGraph read_network(const std::string& bytes) {
  const std::vector<char> exact(bytes.begin(), bytes.end());
  const NetworkGraph network("network", exact);
  for (const std::vector<NetworkTensor>& tensors : {network.inputs(), network.outputs()}) {
    FUZZ_CHECK(!tensors.empty());
    for (const NetworkTensor& tensor : tensors) {
      FUZZ_CHECK(tensor.name.size() <= bytes.size());
      FUZZ_CHECK(describe(tensor).find('-', tensor.name.size()) == std::string::npos);
    }
  }
  return network;
}

void pack(const std::vector<std::string>& parts) {
  static MemoryFile description;
  static MemoryFile class_names;
  NetworkGraph network = read_network(parts[3]);
  PackOptions options;
  if (!parse_options("network " + parts[0], &options)) {
    return;
  }
  options.description_path = parts[1].empty() ? "" : description.holding(parts[1]);
  options.class_names_path = parts[2].empty() ? "" : class_names.holding(parts[2]);
  FUZZ_CHECK(read_pairs(file_header(options.pairs)) == options.pairs);
  const qv_host::Description start = start_description(options);
  make_static(InputSize{kSide, kSide}, &network);
  const qv_host::Description packed = describe_model(options, start, network);
  check_packed(packed);
  fit_to_engine(&network);
  missing_operators(network);
  const std::vector<char> bytes = network.bytes();
  read_network({bytes.begin(), bytes.end()});
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  discard_standard_output();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput input(data, size);
  try {
    input.flag() ? read_header(input.rest()) : pack(parts_of(input.rest(), 4));
  } catch (const ToolError& error) {
    FUZZ_CHECK(error.exit_code() != kInternalError);
  }
  return 0;
}
