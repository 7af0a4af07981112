// SPDX-License-Identifier: Apache-2.0
// recorded_calls.h - the calls that a thread plays, and the output buffers of their owners. For replay_platform.cpp.
#ifndef PLATFORM_REPLAY_RECORDED_CALLS_H
#define PLATFORM_REPLAY_RECORDED_CALLS_H

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

}  // namespace qv_replay

#endif  // PLATFORM_REPLAY_RECORDED_CALLS_H
