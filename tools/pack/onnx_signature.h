// onnx_signature.h - names and shapes of an ONNX network's inputs and outputs, read from the file's
// own description, which OpenCV does not hand on.
#ifndef TOOLS_PACK_ONNX_SIGNATURE_H
#define TOOLS_PACK_ONNX_SIGNATURE_H

#include <cstdint>
#include <string>
#include <vector>

namespace olvex_tools {

struct NetworkTensor {
  std::string name;
  std::vector<std::int64_t> shape;  // 0 where the network leaves a size open
};

struct NetworkSignature {
  std::vector<NetworkTensor> inputs;  // without the weights
  std::vector<NetworkTensor> outputs;
};

// Throws ToolError (kModelError) when the bytes are not an ONNX network.
NetworkSignature read_onnx_signature(const std::string& path, const std::vector<char>& bytes);

// "boxes 1x484x4", with ? for open sizes.
std::string describe(const NetworkTensor& tensor);

std::vector<std::string> names_of(const std::vector<NetworkTensor>& tensors);

}  // namespace olvex_tools

#endif  // TOOLS_PACK_ONNX_SIGNATURE_H
