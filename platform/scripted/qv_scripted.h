// SPDX-License-Identifier: Apache-2.0
// qv_scripted.h - control functions of the scripted accelerator: what a test sets before and reads
// after the library under test has made its QV_ calls. All may be called from any thread.
//
// The accelerator keeps real device and channel states, hands out guarded buffers, plays
// output frames, fails the calls that a test selects, notes every call, and reports by itself
// whatever breaks the contract of qv_ipu.h. tests/support/scripted_test.h wraps it for GoogleTest;
// scripted_setup.cpp and scripted_frames.cpp hold the QV_ calls.
#ifndef PLATFORM_SCRIPTED_QV_SCRIPTED_H
#define PLATFORM_SCRIPTED_QV_SCRIPTED_H

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "platform/contract/olvex_platform.h"

namespace qv_scripted {

// Results of calls that fail without a fault set by the test.
enum Code : QV_S32 {
  kNoDevice = 0x2001,      // a channel or teardown call without a device
  kDeviceExists = 0x2002,  // a second device
  kNoChannel = 0x2003,     // an unknown or closed channel
  kBadArgument = 0x2004,   // a null pointer where the contract needs one, a wrong input count
  kOutOfOrder = 0x2005,    // buffers handed out too often, not handed out, altered; busy channel
  kReadFailed = 0x2006,    // the model's file or read callback failed, or the file is too short
  kBadModel = 0x2007,      // no start pattern
  kNoFrame = 0x2008        // an invocation found no output frame
};

enum class Function {
  kCreateDevice,
  kDestroyDevice,
  kGetOfflineModeStaticInfo,
  kCreateCHN,
  kDestroyCHN,
  kGetInOutTensorDesc,
  kGetOutputTensors,
  kPutOutputTensors,
  kInvoke,
  kFlushInvCache
};
constexpr int kFunctionCount = 10;

// The call's name without its prefix, e.g. "CreateCHN".
const char* function_name(Function function);

using Bytes = std::vector<unsigned char>;
using Frame = std::vector<Bytes>;  // one entry per output tensor

template <class Value>
Bytes to_bytes(const std::vector<Value>& values) {
  Bytes bytes(values.size() * sizeof(Value));
  if (!bytes.empty()) {
    std::memcpy(bytes.data(), values.data(), bytes.size());
  }
  return bytes;
}

// Descriptions of tensors without padding. The name's first 256 bytes are taken, so a name of that
// length has no terminator. Throw std::invalid_argument for a shape of more than 10 entries or more
// than 2^31-1 bytes.
QV_IPU_TensorDesc_t nhwc_tensor(const std::string& name, const std::vector<QV_U32>& shape,
                                QV_IPU_ELEMENT_FORMAT format, float scale);
QV_IPU_TensorDesc_t fp32_tensor(const std::string& name, const std::vector<QV_U32>& shape);
QV_IPU_TensorDesc_t int16_tensor(const std::string& name, const std::vector<QV_U32>& shape,
                                 float scale);
// An input picture of NV12, ARGB8888, ABGR8888, U8 (three channels) or GRAY, in pixels, with the
// row padding that 16-byte pitches (NV12: and an even row count) need in s32AlignedBufSize.
QV_IPU_TensorDesc_t picture_input(QV_IPU_ELEMENT_FORMAT format, QV_U32 width, QV_U32 height);

constexpr QV_U32 kActualCount = 0xffffffffu;
constexpr QV_U32 kFirstChannel = 1;       // channel ids count up from here and are never reused
constexpr unsigned char kPoison = 0xcd;   // fills output that holds no result
constexpr std::size_t kGuardSize = 1024;  // bytes watched on either side of an output buffer

// What one channel runs.
struct Network {
  std::vector<QV_IPU_TensorDesc_t> inputs;   // at most 60
  std::vector<QV_IPU_TensorDesc_t> outputs;  // at most 60
  // Counts to report in the description when they are to differ from the lists above.
  QV_U32 reported_inputs = kActualCount;
  QV_U32 reported_outputs = kActualCount;
  QV_U32 variable_buffer_size = 4096;  // bytes
  // Bytes of the offline model from its start pattern on; what the platform reads. At least 4.
  QV_U32 model_size = 16;
  // Output of each invocation in turn; the last one is repeated. Without any, invocations fail with
  // kNoFrame, which is reported. A tensor that is shorter than its buffer leaves kPoison after it.
  std::vector<Frame> frames;
  // Instead of frames: the output of an invocation, from the address of its input. Called from several threads at
  // once.
  std::function<Frame(const void*)> compute;
  // Deliberate: false leaves the buffer untouched when a frame is repeated, so that a benchmark
  // does not time a copy; what the caller itself wrote into the buffer then stays there.
  bool copy_repeated_frame = true;
  QV_U32 invoke_time_us = 0;  // microseconds that an invocation takes at least
};

// Back to the first state: no device, channel, network, fault, event or violation. Buffers that
// were handed out are freed. No QV_ call may be running.
void reset();

// The next channel to be opened gets this network; the last network added serves all channels after
// it, too. Throws std::invalid_argument when it contradicts itself.
void add_network(Network network);

// Faults. A call that is made to fail has no effect, except that a failed invocation poisons its
// output. Faults are looked up in the order of their adding.
void fail_next_call(Function function, QV_S32 code);
// The n-th call since reset() of all functions together, so that a loop can fail each call in turn.
void fail_call_overall(int n, QV_S32 code);

// One QV_ call. Members that the function has no use for keep their first values.
struct Event {
  Function function = Function::kCreateDevice;
  QV_S32 result = 0;
  QV_U32 channel = 0;             // all channel calls; of CreateCHN the id given, 0 when it failed
  const void* address = nullptr;  // FlushInvCache: start; Invoke: the input's virtual address
  QV_PHY physical_address = 0;    // Invoke: the input's
  QV_U32 size = 0;                // FlushInvCache: bytes
  bool read_callback = false;     // one was given
  std::string path;               // firmware or model path, when no read callback was given
  std::string model;              // the bytes read of the model, pieces in the order of reading
  QV_IPU_DevAttr_s device_attributes = {};
  QV_IPUChnAttr_s channel_attributes = {};
  int open_channels = 0;  // DestroyDevice: channels that it closed
};

// "Invoke 1", "FlushInvCache 96 bytes", "CreateDevice = 0x2002": name, channel or size, failure.
std::string event_text(const Event& event);

std::vector<Event> events();  // in the order in which the calls ended
std::vector<std::string> event_texts();
Event last_event(Function function);  // throws std::out_of_range when there is none
int call_count(Function function);
int call_count();
// Off: calls are counted and watched but leave no event. For long runs.
void record_events(bool on);

// What the caller did against the contract, one text each, "<call>: <what>" or, for memory,
// "channel <id>: <what>". Looks at the guard bytes of all buffers first.
std::vector<std::string> violations();

bool device_is_up();
int open_channel_count();

}  // namespace qv_scripted

#endif  // PLATFORM_SCRIPTED_QV_SCRIPTED_H
