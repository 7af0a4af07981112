// limited_child.h - runs work that may crash or not end in a child process with limits, so that the
// caller outlives it. Read network_trial.h for what is run.
#ifndef TOOLS_INSIDE_LIMITED_CHILD_H
#define TOOLS_INSIDE_LIMITED_CHILD_H

#include <cstdint>
#include <functional>
#include <string>

namespace olvex_tools {

struct ChildLimits {
  double processor_seconds = 0;  // of all its threads together; counted in whole seconds
  double seconds = 0;            // by the clock
  std::uint64_t memory = 0;      // bytes of writable memory of its own; no limit under sanitizers
};

enum class ChildEnd {
  kFinished,
  kCrashed,
  kTooLong,
  kTooMuchProcessorTime,
  kTooMuchMemory,
  kKilled,  // SIGKILL: the kernel's when memory runs out, or when a limit of the shell's is reached
  kInterrupted
};

struct ChildResult {
  ChildEnd end = ChildEnd::kFinished;
  std::string detail;  // kCrashed: the signal or the exit code, in words
};

// Runs the work in a child and waits for its end. An exception of the work is no crash; what it
// prints is dropped; it leaves no core file, and it ends when the caller does. Throws ToolError
// (kAcceleratorError) when there can be no child.
// Requires: no other thread runs in this process, since the child would have it no more.
ChildResult run_limited(const ChildLimits& limits, const std::function<void()>& work);

}  // namespace olvex_tools

#endif  // TOOLS_INSIDE_LIMITED_CHILD_H
