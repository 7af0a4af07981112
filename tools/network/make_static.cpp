// SPDX-License-Identifier: Apache-2.0
// make_static.cpp - the open sizes of the inputs, and the order of the rewrites that leave the network
// portable. Declared in loadable.h.
#include <cctype>
#include <charconv>
#include <set>

#include "tools/common/command.h"
#include "tools/common/text.h"
#include "tools/network/constant_folding.h"
#include "tools/network/loadable.h"

namespace olvex_tools {

namespace {

// Under which exporters write the size, as one number or a list that ends in height and width.
const char* const kSizeKeys[] = {"imgsz", "img_size", "image_size", "input_size", "input_shape"};

std::vector<std::int64_t> numbers_in(const std::string& text) {
  std::vector<std::int64_t> numbers;
  const char* const end = text.data() + text.size();
  for (const char* at = text.data(); at < end;) {
    std::int64_t number = 0;
    const auto [stop, error] = std::from_chars(at, end, number);
    if (error == std::errc() && stop != at) {
      numbers.push_back(number);
    }
    at = stop == at ? at + 1 : stop;
  }
  return numbers;
}

std::optional<InputSize> size_in_metadata(const NetworkGraph& network) {
  const std::map<std::string, std::string> entries = network.metadata();
  for (const char* const key : kSizeKeys) {
    const auto found = entries.find(key);
    const std::vector<std::int64_t> numbers =
        found == entries.end() ? std::vector<std::int64_t>() : numbers_in(found->second);
    if (!numbers.empty()) {
      return InputSize{numbers.back(), numbers.size() == 1 ? numbers[0] : *(numbers.end() - 2)};
    }
  }
  return std::nullopt;
}

bool is_sound(const InputSize& size) {
  constexpr std::int64_t kMost = 65535;
  return size.width > 0 && size.width <= kMost && size.height > 0 && size.height <= kMost;
}

class OpenSizes {
 public:
  OpenSizes(const std::optional<InputSize>& size, NetworkGraph* network)
      : network_(*network),
        size_(size ? size : size_in_metadata(*network)),
        source_(size ? "" : ", from the network's metadata") {}

  std::vector<std::string> fix() {
    std::vector<std::string> lines;
    const std::vector<std::string> inputs = names_of(network_.inputs());
    const std::set<std::string> names(inputs.begin(), inputs.end());
    for (onnx::ValueInfoProto& input : *network_.graph()->mutable_input()) {
      const Shape shape = network_.shape_of(input.name()).value_or(Shape());
      if (names.count(input.name()) != 0 && shape.size() == 4 && elements_of(shape) == 0) {
        lines.push_back(fix(input.name(), shape, &input));
      }
    }
    return lines;
  }

 private:
  std::string fix(const std::string& name, Shape shape, onnx::ValueInfoProto* input) {
    const std::string before = describe({name, shape});
    const bool open_size = shape[2] <= 0 || shape[3] <= 0;
    if (shape[1] <= 0) {
      throw ToolError(kModelError, network_.path() +
                                       ": the network leaves the number of planes open (" + before +
                                       "). Export it for 3 planes, or 1 for gray");
    }
    shape[0] = shape[0] > 0 ? shape[0] : 1;
    if (open_size) {
      const InputSize size = known_size(before);
      shape[2] = shape[2] > 0 ? shape[2] : size.height;
      shape[3] = shape[3] > 0 ? shape[3] : size.width;
    }
    auto* const dimensions = input->mutable_type()->mutable_tensor_type()->mutable_shape();
    for (std::size_t i = 0; i < shape.size(); ++i) {
      dimensions->mutable_dim(static_cast<int>(i))->set_dim_value(shape[i]);
    }
    return "fixed the open sizes of input " + before + " to " + describe({name, shape}) +
           (open_size ? source_ : "");
  }

  InputSize known_size(const std::string& input) const {
    if (!size_ || !is_sound(*size_)) {
      refuse_usage("the network leaves its input size open (" + input +
                   "). Give it with --size WIDTHxHEIGHT");
    }
    return *size_;
  }

  NetworkGraph& network_;
  std::optional<InputSize> size_;
  std::string source_;
};

int drop_weights_from_inputs(NetworkGraph* network) {
  const std::vector<std::string> names = names_of(network->inputs());
  const std::set<std::string> kept(names.begin(), names.end());
  auto* const inputs = network->graph()->mutable_input();
  const auto rest = std::remove_if(
      inputs->begin(), inputs->end(),
      [&](const onnx::ValueInfoProto& input) { return kept.count(input.name()) == 0; });
  const auto count = static_cast<int>(inputs->end() - rest);
  inputs->erase(rest, inputs->end());
  return count;
}

}  // namespace

std::vector<std::string> make_static(const std::optional<InputSize>& size, NetworkGraph* network) {
  std::vector<std::string> lines;
  const int weights = drop_weights_from_inputs(network);
  if (weights != 0) {
    lines.push_back("took " + counted(weights, "weight", "weights") + " out of the inputs");
  }
  const std::vector<std::string> sizes = OpenSizes(size, network).fix();
  lines.insert(lines.end(), sizes.begin(), sizes.end());
  network->update();
  const int folded = fold_constants(network);
  if (folded != 0) {
    lines.push_back("folded " + counted(folded, "node that computes constants",
                                        "nodes that compute constants"));
  }
  const int unused = network->remove_unused();
  if (unused != 0) {
    lines.push_back("removed " + counted(unused, "node", "nodes") + " that no output needs");
  }
  return lines;
}

}  // namespace olvex_tools
