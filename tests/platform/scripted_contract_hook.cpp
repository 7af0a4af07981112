// scripted_contract_hook.cpp - the scripted accelerator under the contract test.
// contract_platform.h says what is asked of it.
#include "tests/platform/contract_platform.h"

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/scripted/qv_scripted.h"

namespace contract {

namespace {

const std::string kOfflineModel = QV_IPU_OFFLINE_MODEL_START " and the rest of a model";

}  // namespace

void set_up() {
  qv_scripted::reset();
  std::ofstream(model_path(), std::ios::binary) << "key:value\n" << kOfflineModel;
  qv_scripted::Network network;
  network.inputs = {qv_scripted::picture_input(QV_IPU_FORMAT_NV12, 24, 10)};
  network.outputs = {qv_scripted::fp32_tensor("boxes", {1, 2, 3, 4}),
                     qv_scripted::int16_tensor("scores", {1, 1, 1, 5}, 0.25f)};
  network.model_size = static_cast<QV_U32>(kOfflineModel.size());
  network.frames = {{qv_scripted::to_bytes(std::vector<float>(24, 1.5f)),
                     qv_scripted::to_bytes(std::vector<std::int16_t>(5, -7))}};
  qv_scripted::add_network(network);
}

// The contract test breaks the contract on purpose; what was reported of it goes unread.
void tear_down() {
  qv_scripted::reset();
  std::remove(model_path().c_str());
}

std::string model_path() {
  return (std::filesystem::temp_directory_path() /
          ("scripted_contract_" + std::to_string(getpid()) + ".model"))
      .string();
}

std::string firmware_path() {
  return "no_firmware";
}

}  // namespace contract
