// SPDX-License-Identifier: Apache-2.0
// qv_replay.h - control functions of the replaying platform: it answers the QV_ calls of a thread from a list of
// recorded calls, and compares what it is asked with what was asked then.
//
// A thread without such a list reaches the platform that is linked behind this one: a program can so have a
// platform of its own, and play recordings through the same library. replay_platform.cpp has the QV_ calls.
#ifndef PLATFORM_REPLAY_QV_REPLAY_H
#define PLATFORM_REPLAY_QV_REPLAY_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/contract/olvex_platform.h"

namespace qv_replay {

// Results that no recording holds.
enum Code : QV_S32 {
  kNotRecorded = 0x3001,  // a call that the recorded run did not make
  kNoPlatform = 0x3002    // nothing to play, and no platform behind this one
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

// With its prefix: "QV_IPU_Invoke".
const char* function_name(Function function);

struct OutputBuffer {
  bool has_address = true;
  std::size_t size = 0;  // bytes
};

// A call as it was recorded: what it was given, and the answer.
struct Call {
  Function function = Function::kInvoke;
  QV_S32 result = 0;
  QV_U32 channel = 0;  // of CreateCHN the answer
  // Numbers that it was given, records word by word, with 1 or 0 first where there may be a read callback. Not
  // there: not compared.
  std::optional<std::vector<QV_U32>> arguments;
  std::optional<std::string> path;  // firmware or model, without a read callback
  // Answers, where the result is 0:
  std::vector<QV_U32> info;  // of GetOfflineModeStaticInfo, word by word
  std::shared_ptr<const QV_IPU_SubNet_InputOutputDesc_t> description;
  QV_U32 output_count = 0;                          // of GetOutputTensors, and its
  std::vector<OutputBuffer> buffers;                // at most 60
  std::vector<std::vector<unsigned char>> outputs;  // of Invoke; what is empty leaves its buffer
};

// Where the calls that were made differ from the recorded ones.
struct Difference {
  std::string field;  // "QV_IPU_CreateCHN argument 3", "platform call"
  std::string recorded;
  std::string played;
};

// From now on, this thread's QV_ calls are answered from calls, which stay the caller's, until end(). owner: who
// makes them. Output buffers are an owner's, and stay until it gets others: whatever a recording says, the library
// never reads one that is gone.
void begin(const std::vector<Call>& calls, std::uint32_t owner);
// Forgets the calls; what differed, in order.
std::vector<Difference> end();

// Frees an owner's output buffers.
void release(std::uint32_t owner);

// Takes a platform's library for the one behind this one, for as long as the process lives. Before the first QV_
// call. Returns why it cannot be used, with its name; empty when it can.
std::string use_platform(const std::string& path);

// How long the thread's last QV_IPU_Invoke that was handed on took, in milliseconds.
double last_invoke_time();

}  // namespace qv_replay

#endif  // PLATFORM_REPLAY_QV_REPLAY_H
