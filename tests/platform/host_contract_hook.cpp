// host_contract_hook.cpp - the host accelerator under the contract test.
// contract_platform.h says what is asked of it.
#include "tests/platform/contract_platform.h"

#include "platform/host/host_image.h"
#include "tests/support/tiny_onnx.h"

std::string contract::make_model(int variant) {
  qv_host::Description description;
  description.input.width = 40;  // not a multiple of the row alignment
  description.input.height = 24;
  description.input.scale.fill(static_cast<float>(1 + variant) / 1024);
  description.decoded.boxes = "boxes";
  description.decoded.scores = "scores";
  const std::vector<char> image =
      qv_host::build_image(description, tiny_onnx::decoded_network(40, 24, 0));
  return std::string(image.begin(), image.end());
}
