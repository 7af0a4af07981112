// host_contract_hook.cpp - the host accelerator under the contract test.
// contract_platform.h says what is asked of it.
#include "tests/platform/contract_platform.h"

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <vector>

#include "platform/host/host_image.h"
#include "tests/support/tiny_onnx.h"

namespace contract {

void set_up() {
  qv_host::Description description;
  description.input.width = 40;  // not a multiple of the row alignment
  description.input.height = 24;
  description.decoded.boxes = "boxes";
  description.decoded.scores = "scores";
  const std::vector<char> image =
      qv_host::build_image(description, tiny_onnx::decoded_network(40, 24, 0));
  std::ofstream file(model_path(), std::ios::binary);
  file << "key:value\n";
  file.write(image.data(), static_cast<std::streamsize>(image.size()));
}

void tear_down() {
  std::remove(model_path().c_str());
}

std::string model_path() {
  return (std::filesystem::temp_directory_path() /
          ("host_contract_" + std::to_string(getpid()) + ".model"))
      .string();
}

std::string firmware_path() {
  return "no_firmware";
}

}  // namespace contract
