// SPDX-License-Identifier: Apache-2.0
// scripted_state.cpp - the control functions of the scripted accelerator and what they work on.
// qv_scripted.h is their contract; scripted_setup.cpp and scripted_frames.cpp hold the QV_
// calls.
#include "platform/scripted/scripted_state.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <stdexcept>
#include <utility>

namespace qv_scripted {

namespace {

using Lock = std::lock_guard<std::mutex>;

constexpr QV_U32 kPatternSize = 4;
constexpr std::uint64_t kMaxTensorSize = INT_MAX;  // bytes; what s32AlignedBufSize can say

QV_U32 element_size(QV_IPU_ELEMENT_FORMAT format) {
  switch (format) {
    case QV_IPU_FORMAT_INT16:
      return 2;
    case QV_IPU_FORMAT_INT32:
    case QV_IPU_FORMAT_FP32:
      return 4;
    case QV_IPU_FORMAT_COMPLEX64:
      return 8;
    default:
      return 1;
  }
}

std::uint64_t round_up(std::uint64_t value, std::uint64_t multiple) {
  return (value + multiple - 1) / multiple * multiple;
}

void check_frame(const Network& network, const Frame& frame) {
  if (frame.size() > network.outputs.size()) {
    throw std::invalid_argument("output frame: more tensors than the network has");
  }
  for (std::size_t i = 0; i < frame.size(); ++i) {
    if (frame[i].size() > network.outputs[i].u32BufSize) {
      throw std::invalid_argument("output frame: more bytes than output tensor " +
                                  std::to_string(i) + " holds");
    }
  }
}

void check_network(const Network& network) {
  if (network.inputs.size() > OLVEX_MAX_TENSORS || network.outputs.size() > OLVEX_MAX_TENSORS) {
    throw std::invalid_argument("network: more than 60 tensors on one side");
  }
  if (network.model_size < kPatternSize || network.model_size > INT_MAX) {
    throw std::invalid_argument("network: the model needs 4 to 2^31-1 bytes");
  }
  for (const QV_IPU_TensorDesc_t& output : network.outputs) {
    if (output.s32AlignedBufSize < 0) {
      throw std::invalid_argument("network: negative s32AlignedBufSize of an output");
    }
  }
  for (const Frame& frame : network.frames) {
    check_frame(network, frame);
  }
}

}  // namespace

State& state() {
  // Deliberate: never destroyed, so that a library that closes its channels while the process ends
  // still finds it.
  static State* const instance = new State;
  return *instance;
}

const Network* State::upcoming_network() const {
  return networks.empty() ? nullptr : &networks[std::min(next_network, networks.size() - 1)];
}

void State::take_network() {
  next_network = std::min(next_network + 1, networks.size());
}

void State::check_guards(Channel& channel) {
  for (OutputSet& set : channel.sets) {
    for (std::size_t i = 0; i < set.buffers.size(); ++i) {
      const GuardedBuffer::Damage damage = set.buffers[i]->take_damage();
      const std::string tensor = "output tensor " + std::to_string(i) + " were overwritten";
      if (damage.before) {
        report("channel " + std::to_string(channel.id) + ": bytes before " + tensor);
      }
      if (damage.after) {
        report("channel " + std::to_string(channel.id) + ": bytes after " + tensor);
      }
    }
  }
}

void State::close_channel(QV_U32 id) {
  const auto found = channels.find(id);
  check_guards(*found->second);
  channels.erase(found);
}

QV_S32 State::count_call(Function function) {
  ++count;
  const int of_function = ++counts[static_cast<std::size_t>(function)];
  for (const Fault& fault : faults) {
    if (fault.overall ? fault.call == count
                      : fault.function == function && fault.call == of_function) {
      return fault.code;
    }
  }
  return 0;
}

const char* function_name(Function function) {
  static const char* const kNames[kFunctionCount] = {
      "CreateDevice", "DestroyDevice",      "GetOfflineModeStaticInfo", "CreateCHN",
      "DestroyCHN",   "GetInOutTensorDesc", "GetOutputTensors",         "PutOutputTensors",
      "Invoke",       "FlushInvCache"};
  return kNames[static_cast<int>(function)];
}

QV_IPU_TensorDesc_t nhwc_tensor(const std::string& name, const std::vector<QV_U32>& shape,
                                QV_IPU_ELEMENT_FORMAT format, float scale) {
  if (shape.size() > OLVEX_MAX_DIMENSIONS) {
    throw std::invalid_argument("tensor " + name + ": more than 10 dimensions");
  }
  QV_IPU_TensorDesc_t tensor = {};
  tensor.eElmFormat = format;
  tensor.fScalar = scale;
  tensor.eLayoutType = QV_IPU_LAYOUT_NHWC;
  tensor.u32TensorDim = static_cast<QV_U32>(shape.size());
  std::copy(shape.begin(), shape.end(), tensor.u32TensorShape);
  name.copy(tensor.name, sizeof tensor.name);
  std::uint64_t size = element_size(format);
  for (const QV_U32 extent : shape) {
    // Each factor is below 2^32, and so is the product so far: it cannot overflow 64 bits.
    size *= extent;
    if (size > kMaxTensorSize) {
      throw std::invalid_argument("tensor " + name + ": more than 2^31-1 bytes");
    }
  }
  tensor.u32BufSize = static_cast<QV_U32>(size);
  tensor.s32AlignedBufSize = static_cast<QV_S32>(size);
  tensor.u32InnerMostStride = shape.empty() || size == 0 ? 0 : shape.back() * element_size(format);
  return tensor;
}

QV_IPU_TensorDesc_t fp32_tensor(const std::string& name, const std::vector<QV_U32>& shape) {
  return nhwc_tensor(name, shape, QV_IPU_FORMAT_FP32, 1.f);
}

QV_IPU_TensorDesc_t int16_tensor(const std::string& name, const std::vector<QV_U32>& shape,
                                 float scale) {
  return nhwc_tensor(name, shape, QV_IPU_FORMAT_INT16, scale);
}

QV_IPU_TensorDesc_t picture_input(QV_IPU_ELEMENT_FORMAT format, QV_U32 width, QV_U32 height) {
  const bool nv12 = format == QV_IPU_FORMAT_NV12;
  const bool four_bytes = format == QV_IPU_FORMAT_ARGB8888 || format == QV_IPU_FORMAT_ABGR8888;
  const QV_U32 channels = format == QV_IPU_FORMAT_GRAY ? 1 : four_bytes ? 4 : 3;
  QV_IPU_TensorDesc_t tensor = nhwc_tensor("input", {1, height, width, channels}, format, 1.f);
  tensor.u32InputWidthAlignment = OLVEX_ROW_ALIGNMENT;
  tensor.u32InputHeightAlignment = nv12 ? OLVEX_NV12_ROWS_ALIGNMENT : 1;
  const std::uint64_t row = nv12 ? width : std::uint64_t{width} * channels;
  const std::uint64_t pitch = round_up(row, OLVEX_ROW_ALIGNMENT);
  const std::uint64_t rows = round_up(height, tensor.u32InputHeightAlignment);
  const std::uint64_t aligned = nv12 ? pitch * rows / 2 * 3 : pitch * rows;
  if (aligned > kMaxTensorSize) {
    throw std::invalid_argument("input picture: more than 2^31-1 bytes");
  }
  tensor.s32AlignedBufSize = static_cast<QV_S32>(aligned);
  if (nv12) {
    tensor.u32BufSize = static_cast<QV_U32>(row * height * 3 / 2);
    tensor.u32InnerMostStride = static_cast<QV_U32>(pitch);
  }
  return tensor;
}

void reset() {
  State& now = state();
  const Lock lock(now.mutex);
  now.device_up = false;
  now.networks.clear();
  now.next_network = 0;
  now.next_channel = kFirstChannel;
  now.channels.clear();
  now.faults.clear();
  now.counts = {};
  now.count = 0;
  now.record_events = true;
  now.events.clear();
  now.violations.clear();
  ++now.resets;
}

void add_network(Network network) {
  check_network(network);
  const Lock lock(state().mutex);
  state().networks.push_back(std::move(network));
}

void fail_next_call(Function function, QV_S32 code) {
  const Lock lock(state().mutex);
  const int next = state().counts[static_cast<std::size_t>(function)] + 1;
  state().faults.push_back({false, function, next, code});
}

void fail_call_overall(int n, QV_S32 code) {
  const Lock lock(state().mutex);
  state().faults.push_back({true, Function::kCreateDevice, n, code});
}

std::string event_text(const Event& event) {
  std::string text = function_name(event.function);
  switch (event.function) {
    case Function::kCreateDevice:
    case Function::kDestroyDevice:
    case Function::kGetOfflineModeStaticInfo:
      break;
    case Function::kFlushInvCache:
      text += " " + std::to_string(event.size) + " bytes";
      break;
    default:
      text += " " + std::to_string(event.channel);
      break;
  }
  if (event.result != 0) {
    char code[16];
    std::snprintf(code, sizeof code, " = 0x%x", static_cast<unsigned>(event.result));
    text += code;
  }
  return text;
}

std::vector<Event> events() {
  const Lock lock(state().mutex);
  return state().events;
}

std::vector<std::string> event_texts() {
  std::vector<std::string> texts;
  for (const Event& event : events()) {
    texts.push_back(event_text(event));
  }
  return texts;
}

Event last_event(Function function) {
  const Lock lock(state().mutex);
  const std::vector<Event>& all = state().events;
  const auto found = std::find_if(all.rbegin(), all.rend(), [function](const Event& event) {
    return event.function == function;
  });
  if (found == all.rend()) {
    throw std::out_of_range(std::string("no event of ") + function_name(function));
  }
  return *found;
}

int call_count(Function function) {
  const Lock lock(state().mutex);
  return state().counts[static_cast<std::size_t>(function)];
}

int call_count() {
  const Lock lock(state().mutex);
  return state().count;
}

void record_events(bool on) {
  const Lock lock(state().mutex);
  state().record_events = on;
}

std::vector<std::string> violations() {
  const Lock lock(state().mutex);
  for (const auto& entry : state().channels) {
    state().check_guards(*entry.second);
  }
  return state().violations;
}

bool device_is_up() {
  const Lock lock(state().mutex);
  return state().device_up;
}

int open_channel_count() {
  const Lock lock(state().mutex);
  return static_cast<int>(state().channels.size());
}

}  // namespace qv_scripted
