// SPDX-License-Identifier: Apache-2.0
// scripted_frames.cpp - the QV_ calls of the scripted accelerator for frames: output buffers, invocation and
// cache.
#include <algorithm>
#include <chrono>
#include <thread>

#include "platform/scripted/qv_scripted.h"
#include "platform/scripted/scripted_state.h"

namespace qv_scripted {

namespace {

// Of this thread itself: thread ids are used again after a thread has ended.
thread_local Flush last_flush;

OutputSet make_output_set(const Network& network) {
  OutputSet set;
  for (const QV_IPU_TensorDesc_t& output : network.outputs) {
    const std::size_t size = std::max<std::size_t>(
        output.u32BufSize, static_cast<std::size_t>(output.s32AlignedBufSize));
    set.buffers.push_back(std::make_unique<GuardedBuffer>(size));
  }
  return set;
}

// The physical address is the virtual one: there is no second address space to simulate.
QV_PHY physical(const void* address) {
  return reinterpret_cast<std::uintptr_t>(address);
}

// How many tensors of the vector are the set's own, each in its place with both addresses.
std::size_t matching_tensors(const OutputSet& set, const QV_IPU_TensorVector_t& tensors) {
  std::size_t matching = 0;
  for (std::size_t i = 0; i < set.buffers.size(); ++i) {
    const QV_IPU_Tensor_t& tensor = tensors.astArrayTensors[i];
    const void* own = set.buffers[i]->data();
    if (tensor.ptTensorData[0] == own && tensor.phyTensorAddr[0] == physical(own)) {
      ++matching;
    }
  }
  return matching;
}

// The set that the vector stands for, when all is right with it. Else null, *violation says why.
OutputSet* find_output_set(Channel* channel, const QV_IPU_TensorVector_t& tensors,
                           std::string* violation) {
  *violation = "output buffers that were never handed out";
  const std::size_t count = channel->network.outputs.size();
  for (OutputSet& set : channel->sets) {
    const std::size_t matching = matching_tensors(set, tensors);
    if (matching == count && tensors.u32TensorCount == count) {
      if (set.out) {
        return &set;
      }
      *violation = "output buffers that were put back already";
    } else if (matching > 0) {
      *violation = "output buffers with altered addresses or count";
    }
  }
  return nullptr;
}

// Whether the thread's last cache flush made this input visible; reports when not. A flush serves
// one invocation, also one that fails.
void check_flush(Call* call, const Network& network, const void* input) {
  const QV_U32 needed = network.inputs.empty() ? 0 : network.inputs[0].u32BufSize;
  if (!last_flush.pending || last_flush.resets != state().resets) {
    call->report_channel("nothing was flushed since the last invocation");
  } else if (last_flush.address != input) {
    call->report_channel("the input is not the start of the flushed range");
  } else if (last_flush.size < needed) {
    call->report_channel("flushed " + std::to_string(last_flush.size) + " bytes of an input of " +
                         std::to_string(needed));
  }
  last_flush.pending = false;
}

// The frame to show next, the last one again and again; null: there is none.
const Frame* take_frame(Channel* channel) {
  const std::vector<Frame>& frames = channel->network.frames;
  if (channel->next_frame < frames.size()) {
    return &frames[channel->next_frame++];
  }
  return frames.empty() ? nullptr : &frames.back();
}

void poison(OutputSet* set) {
  for (const auto& buffer : set->buffers) {
    buffer->poison();
  }
  set->shown = nullptr;
}

void show(const Frame& frame, OutputSet* set) {
  for (std::size_t i = 0; i < set->buffers.size(); ++i) {
    const bool given = i < frame.size();
    set->buffers[i]->fill(given ? frame[i].data() : nullptr, given ? frame[i].size() : 0);
  }
  set->shown = &frame;
}

// The part of an invocation that runs beside calls on other channels. frame: null where it is computed.
void run_unlocked(Call* call, Channel* channel, const Frame* frame, const void* input,
                  OutputSet* set) {
  channel->busy = true;
  call->lock().unlock();
  if (channel->network.invoke_time_us > 0) {
    std::this_thread::sleep_for(std::chrono::microseconds(channel->network.invoke_time_us));
  }
  if (frame == nullptr) {
    show(channel->network.compute(input), set);
    set->shown = nullptr;  // that one is gone
  } else if (set->shown != frame || channel->network.copy_repeated_frame) {
    show(*frame, set);
  }
  call->lock().lock();
  channel->busy = false;
}

}  // namespace

}  // namespace qv_scripted

using namespace qv_scripted;

QV_S32 QV_IPU_GetOutputTensors(QV_U32 channel, QV_IPU_TensorVector_t* tensors) {
  Call call(Function::kGetOutputTensors, channel);
  QV_S32 result = 0;
  const std::shared_ptr<Channel> open = call.channel_with(tensors, "no vector to fill", &result);
  if (open == nullptr) {
    return result;
  }
  auto set = std::find_if(open->sets.begin(), open->sets.end(),
                          [](const OutputSet& candidate) { return !candidate.out; });
  if (set == open->sets.end()) {
    if (open->sets.size() >= open->output_depth) {
      return call.refuse_channel(
          "all output buffers are out, the depth is " + std::to_string(open->output_depth),
          kOutOfOrder);
    }
    set = open->sets.insert(set, make_output_set(open->network));
  }
  *tensors = QV_IPU_TensorVector_t();
  tensors->u32TensorCount = static_cast<QV_U32>(set->buffers.size());
  for (std::size_t i = 0; i < set->buffers.size(); ++i) {
    set->buffers[i]->open();
    tensors->astArrayTensors[i].ptTensorData[0] = set->buffers[i]->data();
    tensors->astArrayTensors[i].phyTensorAddr[0] = physical(set->buffers[i]->data());
  }
  set->out = true;
  return call.end(0);
}

QV_S32 QV_IPU_PutOutputTensors(QV_U32 channel, QV_IPU_TensorVector_t* tensors) {
  Call call(Function::kPutOutputTensors, channel);
  QV_S32 result = 0;
  const std::shared_ptr<Channel> open = call.channel_with(tensors, "no vector", &result);
  if (open == nullptr) {
    return result;
  }
  std::string violation;
  OutputSet* const set = find_output_set(open.get(), *tensors, &violation);
  if (set == nullptr) {
    return call.refuse_channel(violation, kOutOfOrder);
  }
  state().check_guards(*open);
  poison(set);
  for (const auto& buffer : set->buffers) {
    buffer->shut();
  }
  set->out = false;
  return call.end(0);
}

QV_S32 QV_IPU_Invoke(QV_U32 channel, QV_IPU_TensorVector_t* input, QV_IPU_TensorVector_t* output) {
  Call call(Function::kInvoke, channel);
  QV_S32 result = 0;
  const std::shared_ptr<Channel> open = call.channel(&result);
  if (open == nullptr) {
    return result;
  }
  if (input == nullptr || input->astArrayTensors[0].ptTensorData[0] == nullptr) {
    return call.refuse_channel("no input", kBadArgument);
  }
  const void* const address = input->astArrayTensors[0].ptTensorData[0];
  call.event.address = address;
  call.event.physical_address = input->astArrayTensors[0].phyTensorAddr[0];
  check_flush(&call, open->network, address);
  if (input->u32TensorCount != 0 && input->u32TensorCount != open->network.inputs.size()) {
    return call.refuse_channel("wrong number of inputs", kBadArgument);
  }
  if (output == nullptr) {
    return call.refuse_channel("no output", kBadArgument);
  }
  std::string violation;
  OutputSet* const set = find_output_set(open.get(), *output, &violation);
  if (set == nullptr) {
    return call.refuse_channel(violation, kOutOfOrder);
  }
  const bool is_computed = open->network.compute != nullptr;
  const Frame* const frame = call.injected() != 0 || is_computed ? nullptr : take_frame(open.get());
  if (frame == nullptr && (call.injected() != 0 || !is_computed)) {
    poison(set);
    return call.injected() != 0 ? call.end(call.injected())
                                : call.refuse_channel("the network has no output frame", kNoFrame);
  }
  run_unlocked(&call, open.get(), frame, address, set);
  return call.end(0);
}

QV_S32 QV_SYS_FlushInvCache(void* address, QV_U32 size) {
  Call call(Function::kFlushInvCache);
  call.event.address = address;
  call.event.size = size;
  // Deliberate: also a flush with a fault set counts as made. Only the order of the caller's calls is
  // watched, and a caller that continues after the failure has kept to it.
  last_flush = {address, size, true, state().resets};
  if (call.injected() != 0) {
    return call.end(call.injected());
  }
  if (address == nullptr) {
    return call.end(kBadArgument);
  }
  if (range_is_forbidden(address, size)) {
    return call.refuse("the range reaches outside its buffer", kBadArgument);
  }
  return call.end(0);
}
