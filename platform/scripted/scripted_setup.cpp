// SPDX-License-Identifier: Apache-2.0
// scripted_setup.cpp - the QV_ calls of the scripted accelerator for devices, models and channels. Each one
// notes its event, fails where a fault is set for it, checks the caller's part of the contract, and only then
// takes effect. scripted_state.h is what they work on; scripted_frames.cpp has the calls for frames.
#include <algorithm>
#include <fstream>
#include <iterator>
#include <utility>

#include "platform/scripted/qv_scripted.h"
#include "platform/scripted/scripted_state.h"

namespace qv_scripted {

namespace {

constexpr char kStartPattern[] = OLVEX_OFFLINE_MODEL_START;
constexpr QV_U32 kPatternSize = sizeof kStartPattern - 1;

struct Range {
  QV_U32 offset;
  QV_U32 size;
};

QV_S32 read_through_callback(QV_IPU_ReadFunc read, char* context, const std::vector<Range>& ranges,
                             std::string* bytes) {
  for (const Range& range : ranges) {
    std::vector<char> piece(range.size);
    if (read(piece.data(), static_cast<int>(range.offset), static_cast<int>(range.size), context) !=
        0) {
      return kReadFailed;
    }
    bytes->append(piece.data(), piece.size());
  }
  return 0;
}

QV_S32 read_from_file(const std::string& path, const std::vector<Range>& ranges,
                      std::string* bytes) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    return kReadFailed;
  }
  const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  const std::size_t start = text.find(kStartPattern);
  if (start == std::string::npos) {
    return kBadModel;
  }
  for (const Range& range : ranges) {
    if (range.offset + std::size_t{range.size} > text.size() - start) {
      return kReadFailed;
    }
    bytes->append(text, start + range.offset, range.size);
  }
  return 0;
}

// Reads the ranges of the model, the first of which is the start pattern, into the call's event.
QV_S32 read_model(Call* call, QV_IPU_ReadFunc read, char* path_or_context,
                  const std::vector<Range>& ranges) {
  std::string* bytes = &call->event.model;
  const QV_S32 code = read != nullptr ? read_through_callback(read, path_or_context, ranges, bytes)
                                      : read_from_file(call->event.path, ranges, bytes);
  if (code != 0) {
    return code;
  }
  return bytes->compare(0, kPatternSize, kStartPattern) == 0 ? 0 : kBadModel;
}

void note_source(Event* event, QV_IPU_ReadFunc read, const char* path_or_context) {
  event->read_callback = read != nullptr;
  if (read == nullptr && path_or_context != nullptr) {
    event->path = path_or_context;
  }
}

// A null context is passed to the read callback; a null path is an error.
bool source_is_missing(QV_IPU_ReadFunc read, const char* path_or_context) {
  return read == nullptr && path_or_context == nullptr;
}

void describe(const std::vector<QV_IPU_TensorDesc_t>& tensors, QV_U32 reported, QV_U32* count,
              QV_IPU_TensorDesc_t* descriptions) {
  *count = reported == kActualCount ? static_cast<QV_U32>(tensors.size()) : reported;
  std::copy(tensors.begin(), tensors.end(), descriptions);
}

}  // namespace

}  // namespace qv_scripted

using namespace qv_scripted;

QV_S32 QV_IPU_CreateDevice(QV_IPU_DevAttr_s* attributes, QV_IPU_ReadFunc read, char* firmware_path,
                           QV_U32 /*reserved*/) {
  Call call(Function::kCreateDevice);
  note_source(&call.event, read, firmware_path);
  if (attributes == nullptr) {
    return call.refuse("no attributes", kBadArgument);
  }
  call.event.device_attributes = *attributes;
  if (call.injected() != 0) {
    return call.end(call.injected());
  }
  if (state().device_up) {
    return call.refuse("a device is up already", kDeviceExists);
  }
  state().device_up = true;
  return call.end(0);
}

QV_S32 QV_IPU_DestroyDevice(void) {
  Call call(Function::kDestroyDevice);
  if (call.injected() != 0) {
    return call.end(call.injected());
  }
  if (!state().device_up) {
    return call.refuse("no device is up", kNoDevice);
  }
  call.event.open_channels = static_cast<int>(state().channels.size());
  while (!state().channels.empty()) {
    const Channel& channel = *state().channels.begin()->second;
    if (channel.busy) {
      call.report("channel " + std::to_string(channel.id) + " is running");
    }
    state().close_channel(channel.id);
  }
  state().device_up = false;
  return call.end(0);
}

QV_S32 QV_IPU_GetOfflineModeStaticInfo(QV_IPU_ReadFunc read, char* path_or_context,
                                       QV_IPU_OfflineModelStaticInfo_s* info) {
  Call call(Function::kGetOfflineModeStaticInfo);
  note_source(&call.event, read, path_or_context);
  if (call.injected() != 0) {
    return call.end(call.injected());
  }
  if (info == nullptr || source_is_missing(read, path_or_context)) {
    return call.refuse("no model or no record to fill", kBadArgument);
  }
  const Network* network = state().upcoming_network();
  if (network == nullptr) {
    return call.refuse("the test has added no network", kBadModel);
  }
  // Samples of the whole length, so that a wrong base address or length shows.
  const QV_U32 size = network->model_size;
  const QV_U32 middle = size / 2;
  const QV_S32 code = read_model(
      &call, read, path_or_context,
      {{0, kPatternSize}, {middle, std::min(kPatternSize, size - middle)}, {size - 1, 1}});
  if (code == 0) {
    *info = QV_IPU_OfflineModelStaticInfo_s();
    info->u32VariableBufferSize = network->variable_buffer_size;
    info->u32OfflineModelSize = size;
  }
  return call.end(code);
}

QV_S32 QV_IPU_CreateCHN(QV_U32* channel, QV_IPUChnAttr_s* attributes, QV_IPU_ReadFunc read,
                        char* path_or_context) {
  Call call(Function::kCreateCHN);
  note_source(&call.event, read, path_or_context);
  if (attributes != nullptr) {
    call.event.channel_attributes = *attributes;
  }
  if (call.injected() != 0) {
    return call.end(call.injected());
  }
  if (channel == nullptr || attributes == nullptr || source_is_missing(read, path_or_context)) {
    return call.refuse("no channel id, attributes or model", kBadArgument);
  }
  if (!state().device_up) {
    return call.refuse("no device is up", kNoDevice);
  }
  const Network* network = state().upcoming_network();
  if (network == nullptr) {
    return call.refuse("the test has added no network", kBadModel);
  }
  const QV_S32 code =
      read_model(&call, read, path_or_context,
                 {{0, kPatternSize}, {kPatternSize, network->model_size - kPatternSize}});
  if (code != 0) {
    return call.end(code);
  }
  auto opened = std::make_shared<Channel>();
  opened->id = state().next_channel++;
  opened->network = *network;
  opened->output_depth = attributes->u32OutputBufDepth;
  state().take_network();
  call.event.channel = *channel = opened->id;
  state().channels[opened->id] = std::move(opened);
  return call.end(0);
}

QV_S32 QV_IPU_DestroyCHN(QV_U32 channel) {
  Call call(Function::kDestroyCHN, channel);
  if (call.injected() != 0) {
    return call.end(call.injected());
  }
  QV_S32 result = 0;
  if (call.channel(&result) == nullptr) {
    return result;
  }
  state().close_channel(channel);
  return call.end(0);
}

QV_S32 QV_IPU_GetInOutTensorDesc(QV_U32 channel, QV_IPU_SubNet_InputOutputDesc_t* description) {
  Call call(Function::kGetInOutTensorDesc, channel);
  QV_S32 result = 0;
  const std::shared_ptr<Channel> open =
      call.channel_with(description, "no description to fill", &result);
  if (open == nullptr) {
    return result;
  }
  const Network& network = open->network;
  *description = QV_IPU_SubNet_InputOutputDesc_t();
  describe(network.inputs, network.reported_inputs, &description->u32InputTensorCount,
           description->astQV_InputTensorDescs);
  describe(network.outputs, network.reported_outputs, &description->u32OutputTensorCount,
           description->astQV_OutputTensorDescs);
  return call.end(0);
}
