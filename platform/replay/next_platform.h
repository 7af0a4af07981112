// SPDX-License-Identifier: Apache-2.0
// next_platform.h - the platform behind this one: the next that is linked, or a library that was loaded instead.
#ifndef PLATFORM_REPLAY_NEXT_PLATFORM_H
#define PLATFORM_REPLAY_NEXT_PLATFORM_H

#include <cstring>

namespace qv_replay {

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

#endif  // PLATFORM_REPLAY_NEXT_PLATFORM_H
