// qv_scripted.cpp - the QV_ calls of the scripted accelerator. Each one notes its event, looks
// whether it is told to fail, checks what the caller must keep to, and only then takes effect.
// scripted_state.h is what they work on; qv_scripted.h sets it up.
#include "platform/scripted/qv_scripted.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iterator>
#include <thread>
#include <utility>

#include "platform/scripted/scripted_state.h"

namespace qv_scripted {

namespace {

constexpr char kStartPattern[] = QV_IPU_OFFLINE_MODEL_START;
constexpr QV_U32 kPatternSize = 4;

// Of this thread itself: thread ids are used again after a thread has ended.
thread_local Flush last_flush;

// One QV_ call in progress: holds the mutex from construction to destruction and leaves its event
// when it goes.
class Call {
 public:
  explicit Call(Function function) : lock_(state().mutex) {
    event.function = function;
    injected_ = state().count_call(function);
  }
  Call(Function function, QV_U32 channel) : Call(function) { event.channel = channel; }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  // The code with which the call was told to fail; 0: it was not.
  QV_S32 injected() const { return injected_; }
  std::unique_lock<std::mutex>& lock() { return lock_; }

  QV_S32 end(QV_S32 result) {
    event.result = result;
    if (state().record_events) {
      state().events.push_back(std::move(event));
    }
    return result;
  }

  // Ends the call as one that the caller should not have made.
  QV_S32 refuse(const std::string& violation, QV_S32 code) {
    report(violation);
    return end(code);
  }

  void report(const std::string& violation) {
    state().report(std::string(function_name(event.function)) + ": " + violation);
  }
  void report_channel(const std::string& violation) { report(channel_name() + ": " + violation); }
  QV_S32 refuse_channel(const std::string& violation, QV_S32 code) {
    return refuse(channel_name() + ": " + violation, code);
  }

  // The call's channel, open and idle; else null, and the call has ended with *result.
  std::shared_ptr<Channel> channel(QV_S32* result) {
    const auto found = state().channels.find(event.channel);
    if (found != state().channels.end() && !found->second->busy) {
      return found->second;
    }
    if (!state().device_up) {
      *result = refuse("no device is up", kNoDevice);
    } else if (found != state().channels.end()) {
      *result = refuse_channel("another call on it is running", kOutOfOrder);
    } else if (event.channel >= kFirstChannel && event.channel < state().next_channel) {
      *result = refuse(channel_name() + " is closed", kNoChannel);
    } else {
      *result = refuse(channel_name() + " was never opened", kNoChannel);
    }
    return nullptr;
  }

  Event event;

 private:
  std::string channel_name() const { return "channel " + std::to_string(event.channel); }

  std::unique_lock<std::mutex> lock_;
  QV_S32 injected_ = 0;
};

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

// A null context is the read callback's own affair; a null path is nobody's.
bool source_is_missing(QV_IPU_ReadFunc read, const char* path_or_context) {
  return read == nullptr && path_or_context == nullptr;
}

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

// The frame to show next; null: none is left. The last one stays for repeating.
const Frame* take_frame(Channel* channel) {
  if (channel->next_frame < channel->frames.size()) {
    return &channel->frames[channel->next_frame++];
  }
  const bool repeat = channel->network.repeat_last_frame && !channel->frames.empty();
  return repeat ? &channel->frames.back() : nullptr;
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

// The part of an invocation that runs beside calls on other channels.
void run_unlocked(Call* call, Channel* channel, const Frame& frame, OutputSet* set) {
  channel->busy = true;
  call->lock().unlock();
  if (channel->network.invoke_time_us > 0) {
    std::this_thread::sleep_for(std::chrono::microseconds(channel->network.invoke_time_us));
  }
  if (set->shown != &frame || channel->network.copy_repeated_frame) {
    show(frame, set);
  }
  call->lock().lock();
  channel->busy = false;
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
  opened->frames.assign(network->frames.begin(), network->frames.end());
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
  if (call.injected() != 0) {
    return call.end(call.injected());
  }
  QV_S32 result = 0;
  const std::shared_ptr<Channel> open = call.channel(&result);
  if (open == nullptr) {
    return result;
  }
  if (description == nullptr) {
    return call.refuse_channel("no description to fill", kBadArgument);
  }
  const Network& network = open->network;
  *description = QV_IPU_SubNet_InputOutputDesc_t();
  describe(network.inputs, network.reported_inputs, &description->u32InputTensorCount,
           description->astQV_InputTensorDescs);
  describe(network.outputs, network.reported_outputs, &description->u32OutputTensorCount,
           description->astQV_OutputTensorDescs);
  return call.end(0);
}

QV_S32 QV_IPU_GetOutputTensors(QV_U32 channel, QV_IPU_TensorVector_t* tensors) {
  Call call(Function::kGetOutputTensors, channel);
  if (call.injected() != 0) {
    return call.end(call.injected());
  }
  QV_S32 result = 0;
  const std::shared_ptr<Channel> open = call.channel(&result);
  if (open == nullptr) {
    return result;
  }
  if (tensors == nullptr) {
    return call.refuse_channel("no vector to fill", kBadArgument);
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
  if (call.injected() != 0) {
    return call.end(call.injected());
  }
  QV_S32 result = 0;
  const std::shared_ptr<Channel> open = call.channel(&result);
  if (open == nullptr) {
    return result;
  }
  if (tensors == nullptr) {
    return call.refuse_channel("no vector", kBadArgument);
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
  const Frame* const frame = call.injected() != 0 ? nullptr : take_frame(open.get());
  if (frame == nullptr) {
    poison(set);
    return call.injected() != 0 ? call.end(call.injected())
                                : call.refuse_channel("no output frame is left", kNoFrame);
  }
  run_unlocked(&call, open.get(), *frame, set);
  return call.end(0);
}

QV_S32 QV_SYS_FlushInvCache(void* address, QV_U32 size) {
  Call call(Function::kFlushInvCache);
  call.event.address = address;
  call.event.size = size;
  // Deliberate: also a flush that is told to fail counts as made. The order of the caller's calls
  // is what is watched, and a caller that goes on after the failure has kept to it.
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
