// scripted_contract_hook.cpp - the scripted accelerator under the contract test, which breaks the
// contract on purpose: what is reported of it goes unread.
#include "tests/platform/contract_platform.h"

#include "platform/scripted/qv_scripted.h"

std::string contract::make_model(int variant) {
  const std::string model = OLVEX_OFFLINE_MODEL_START " and the rest of a model";
  if (variant == 0) {
    qv_scripted::reset();
  }
  qv_scripted::Network network;
  network.inputs = {qv_scripted::picture_input(QV_IPU_FORMAT_NV12, 24, 10)};
  network.outputs = {qv_scripted::fp32_tensor("boxes", {1, 2, 3, 4}),
                     qv_scripted::int16_tensor("scores", {1, 1, 1, 5}, 0.25f)};
  network.model_size = static_cast<QV_U32>(model.size());
  network.frames = {{qv_scripted::to_bytes(std::vector<float>(24, static_cast<float>(variant))),
                     qv_scripted::to_bytes(std::vector<std::int16_t>(5, -7))}};
  qv_scripted::add_network(network);
  return model;
}
