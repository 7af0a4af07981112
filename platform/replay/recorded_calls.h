// SPDX-License-Identifier: Apache-2.0
// recorded_calls.h - what answers a call: the calls that a thread plays, with the output buffers of their owners, or
// the platform behind this one. For replay_platform.cpp.
#ifndef PLATFORM_REPLAY_RECORDED_CALLS_H
#define PLATFORM_REPLAY_RECORDED_CALLS_H

#include <cstring>
#include <string>
#include <vector>

#include "platform/replay/qv_replay.h"

namespace qv_replay {

// Whether this thread's calls are answered from a list.
bool is_playing();

// A call that is made now, compared with the next one of the list.
// Returns the recorded call that answers it; null when the list has none.
const Call* next_call(Function function, QV_U32 channel, const std::vector<QV_U32>& arguments,
                      const char* path);

// Hands out buffers for the owner of the calls, made as the recorded call says.
void hand_out(const Call& call, QV_IPU_TensorVector_t* tensors);
// Fills them with a frame's outputs.
void fill(const Call& call);

// ---- The platform behind this one: the next that is linked, or a library that was loaded instead ----

// The address of a call of the platform behind this one; null where there is none.
void* find_next(const char* name);

// The same with its type. own: the call here.
template <typename Signature>
Signature* next_call_of(Signature* /*own*/, const char* name) {
  void* const found = find_next(name);
  Signature* result = nullptr;
  std::memcpy(&result, &found, sizeof result);
  return result;
}

}  // namespace qv_replay

#endif  // PLATFORM_REPLAY_RECORDED_CALLS_H
