// SPDX-License-Identifier: Apache-2.0
// probe_platform.h - the scripted accelerator with the probe network of accel-check, sound or with one fault.
// probe_platform.cpp has what is wrong with tensors, faulty_calls.cpp what is wrong with calls.
#ifndef TESTS_PLATFORM_PROBE_PLATFORM_H
#define TESTS_PLATFORM_PROBE_PLATFORM_H

namespace probe_platform {

// Whether OLVEX_PROBE_FAULT is this word.
bool has_fault(const char* fault);

constexpr unsigned kModelSize = 64;  // bytes

}  // namespace probe_platform

#endif  // TESTS_PLATFORM_PROBE_PLATFORM_H
