// network_trial.cpp - the limits, what is run under them, and the refusals. Read network_trial.h
// first.
#include "tools/inside/network_trial.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>
#include <system_error>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

#include "platform/host/host_image.h"
#include "tools/common/command.h"
#include "tools/frames/frame_conversion.h"
#include "tools/inside/library_model.h"
#include "tools/inside/limited_child.h"

namespace olvex_tools {

namespace {

const char kFactorVariable[] = "OLVEX_DET_LIMITS";
constexpr double kMebibyte = 1024 * 1024;

// What does not depend on the file's size is for large inputs of small networks, on a slow machine;
// the rest for the weights, which the engine holds several times over while it loads them.
constexpr double kBaseProcessorSeconds = 120;
constexpr double kProcessorSecondsPerMebibyte = 2;
constexpr double kClockToProcessor = 10;  // other programs may hold the processor
constexpr double kBaseMemory = 8192 * kMebibyte;
constexpr double kMemoryPerByte = 16;

double limit_factor() {
  const char* const text = std::getenv(kFactorVariable);
  if (text == nullptr) {
    return 1;
  }
  const char* const end = text + std::strlen(text);
  double factor = 0;
  const auto [stop, error] = std::from_chars(text, end, factor);
  constexpr double kLeast = 1e-3;
  constexpr double kMost = 1e3;
  if (error != std::errc() || stop != end || !(factor >= kLeast && factor <= kMost)) {
    throw ToolError(kUsageError, std::string("the environment variable ") + kFactorVariable +
                                     " is \"" + text + "\". Set it to a number from 0.001 to " +
                                     "1000, or not at all");
  }
  return factor;
}

double physical_memory() {
  return static_cast<double>(sysconf(_SC_PHYS_PAGES)) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

ChildLimits limits_for(double bytes, double factor) {
  ChildLimits limits;
  limits.processor_seconds =
      (kBaseProcessorSeconds + kProcessorSecondsPerMebibyte * bytes / kMebibyte) * factor;
  limits.seconds = limits.processor_seconds * kClockToProcessor;
  limits.memory = static_cast<std::uint64_t>(
      std::min(kBaseMemory + kMemoryPerByte * bytes, physical_memory()) * factor);
  return limits;
}

void run_gradient(const std::string& path) {
  const FrameLayout layout =
      frame_layout(qv_host::read_image_file(path, nullptr).description.input);
  LibraryModel model(path, path);
  std::vector<unsigned char> frame;
  convert_to_frame(generated_gradient(layout.width, layout.height), layout, &frame);
  constexpr float kHighestThreshold = 1.f;  // the boxes are of no interest
  model.detect(&frame, kHighestThreshold);
}

std::string rounded_up(double value) {
  return std::to_string(static_cast<std::uint64_t>(std::ceil(value)));
}

std::string fault_of(const ChildResult& result, const ChildLimits& limits) {
  switch (result.end) {
    case ChildEnd::kCrashed:
      return "the network engine crashed while loading or running it (" + result.detail +
             "); it is damaged or beyond this engine, so export it again or use another network";
    case ChildEnd::kTooLong:
      return "the network engine did not finish loading and running it in " +
             rounded_up(limits.seconds) + " seconds";
    case ChildEnd::kTooMuchProcessorTime:
      return "the network engine did not finish loading and running it in " +
             rounded_up(limits.processor_seconds) + " seconds of processor time";
    case ChildEnd::kTooMuchMemory:
      return "the network engine wants more than " +
             rounded_up(static_cast<double>(limits.memory) / kMebibyte) +
             " MiB of memory to load and run it";
    default:
      return "the network engine was killed while loading or running it, for want of memory or by "
             "a limit of the shell; free memory, or use a smaller network";
  }
}

double shell_limit(__rlimit_resource resource) {
  struct rlimit limit = {};
  getrlimit(resource, &limit);
  return limit.rlim_cur == RLIM_INFINITY ? std::numeric_limits<double>::infinity()
                                         : static_cast<double>(limit.rlim_cur);
}

// What holds for a child that is started with these limits: stricter ones of the user's stay.
ChildLimits within_shell_limits(ChildLimits limits) {
  limits.processor_seconds = std::min(limits.processor_seconds, shell_limit(RLIMIT_CPU));
  limits.memory = static_cast<std::uint64_t>(
      std::min(static_cast<double>(limits.memory), shell_limit(RLIMIT_DATA)));
  return limits;
}

std::string remedy_of(ChildEnd end, const ChildLimits& limits) {
  const bool is_of_shell = (end == ChildEnd::kTooMuchProcessorTime &&
                            limits.processor_seconds >= shell_limit(RLIMIT_CPU)) ||
                           (end == ChildEnd::kTooMuchMemory &&
                            static_cast<double>(limits.memory) >= shell_limit(RLIMIT_DATA));
  if (is_of_shell) {
    return "; that is a limit of the shell, see ulimit";
  }
  const bool has_limit = end == ChildEnd::kTooLong || end == ChildEnd::kTooMuchProcessorTime ||
                         end == ChildEnd::kTooMuchMemory;
  return has_limit ? std::string("; use a smaller network, or, if you trust this one, set ") +
                         kFactorVariable + "=10 to allow ten times the usual"
                   : "";
}

}  // namespace

void require_harmless_network(const std::string& path, const std::string& name) {
  const double factor = limit_factor();
  std::error_code error;
  const std::uintmax_t bytes = std::filesystem::file_size(path, error);
  if (error) {
    return;  // not a file with a size, which the library cannot map either
  }
  const ChildLimits limits = within_shell_limits(limits_for(static_cast<double>(bytes), factor));
  const ChildResult result = run_limited(limits, [&path] { run_gradient(path); });
  if (result.end == ChildEnd::kInterrupted) {
    throw ToolError(kInterrupted, name + ": interrupted while the network was tried");
  }
  if (result.end != ChildEnd::kFinished) {
    throw ToolError(kModelError,
                    name + ": " + fault_of(result, limits) + remedy_of(result.end, limits));
  }
}

}  // namespace olvex_tools
