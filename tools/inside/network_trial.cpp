// SPDX-License-Identifier: Apache-2.0
// network_trial.cpp - a child process with limits, which it sets on itself so that the parent only has to
// wait; what is run in it, and the refusals.
#include "tools/inside/network_trial.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <functional>
#include <limits>
#include <new>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <opencv2/core.hpp>

#include "platform/host/host_image.h"
#include "tools/common/command.h"
#include "tools/frames/frame_conversion.h"
#include "tools/inside/foreign_platform.h"
#include "tools/inside/library_model.h"

namespace olvex_tools {

namespace {

// ---- The child process --------------------------------------------------------------------------

struct ChildLimits {
  double processor_seconds = 0;  // of all its threads together; counted in whole seconds
  double seconds = 0;            // by the clock
  std::uint64_t memory = 0;      // bytes of private writable memory; no limit under sanitizers
};

constexpr int kMemoryExitCode = 99;

// The sanitizers map terabytes, which a limit on memory would count.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kMemoryIsLimited = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kMemoryIsLimited = false;
#else
constexpr bool kMemoryIsLimited = true;
#endif
#else
constexpr bool kMemoryIsLimited = true;
#endif

[[noreturn]] void end_without_memory() {
  _exit(kMemoryExitCode);
}

// OpenCV allocates without operator new, and wraps the failure in errors of other kinds.
int note_engine_error(int status, const char*, const char*, const char*, int, void*) {
  if (status == cv::Error::StsNoMem) {
    end_without_memory();
  }
  return 0;
}

// The parent's handlers (they remove its unfinished files, or end it in order) must not run in the
// child. Those that are ignored stay so.
void drop_handlers() {
  for (const int signal_number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
    if (std::signal(signal_number, SIG_DFL) == SIG_IGN) {
      std::signal(signal_number, SIG_IGN);
    }
  }
}

// A stricter limit of the user's stays.
void lower_limit(__rlimit_resource resource, rlim_t value) {
  struct rlimit limit = {};
  getrlimit(resource, &limit);
  limit.rlim_cur = std::min({value, limit.rlim_cur, limit.rlim_max});
  setrlimit(resource, &limit);
}

void limit_time(const ChildLimits& limits) {
  sigset_t all;
  sigfillset(&all);
  sigprocmask(SIG_UNBLOCK, &all, nullptr);
  std::signal(SIGXCPU, SIG_DFL);
  std::signal(SIGALRM, SIG_DFL);
  lower_limit(RLIMIT_CPU, static_cast<rlim_t>(std::ceil(limits.processor_seconds)));
  struct itimerval timer = {};
  timer.it_value.tv_sec = static_cast<time_t>(std::ceil(limits.seconds));
  setitimer(ITIMER_REAL, &timer, nullptr);
}

void limit_memory(const ChildLimits& limits) {
  // When the whole machine runs short, the kernel is to take this process and no other.
  FILE* const preference = std::fopen("/proc/self/oom_score_adj", "w");
  if (preference != nullptr) {
    std::fputs("1000", preference);
    std::fclose(preference);
  }
  if (kMemoryIsLimited) {
    // Unlike RLIMIT_AS it leaves out what is reserved only, as the allocator does for each thread.
    lower_limit(RLIMIT_DATA, limits.memory);
  }
  std::set_new_handler(end_without_memory);
  cv::redirectError(note_engine_error);
}

void leave_no_traces() {
  lower_limit(RLIMIT_CORE, 0);
  prctl(PR_SET_DUMPABLE, 0);  // core files that are piped to a program have no limit
  // Standard input stays: the network may come from there.
  const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) {
    dup2(nowhere, stream);
  }
}

[[noreturn]] void run_child(pid_t parent, const ChildLimits& limits,
                            const std::function<void()>& work) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) {
    _exit(kDone);  // the parent ended before it could be watched
  }
  drop_handlers();
  limit_memory(limits);
  leave_no_traces();
  limit_time(limits);
  try {
    work();
  } catch (const std::exception&) {
    // The caller comes to the same refusal, and reports it.
  }
  _exit(kDone);
}

int wait_for(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

// What wait_for() returned: the signal that ended the child, or 0; whether it ended with that exit code.
int signal_of(int status) {
  return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
}

bool has_exit_code(int status, int code) {
  return WIFEXITED(status) && WEXITSTATUS(status) == code;
}

// Runs the work in a child, waits for its end and returns its status. An exception of the work is no crash; what it
// prints is dropped; it leaves no core file, and it ends when the caller does. Throws ToolError
// (kAcceleratorError) when there can be no child.
// Requires: no other thread runs in this process, since the child would have it no more.
int run_limited(const ChildLimits& limits, const std::function<void()>& work) {
  std::fflush(nullptr);
  // Some programs start others with this signal ignored, and then the kernel keeps no child's end.
  std::signal(SIGCHLD, SIG_DFL);
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child < 0) {
    throw ToolError(kAcceleratorError,
                    std::string("the network cannot be tried in a separate process: ") +
                        std::strerror(errno) + ". End other programs, or allow more processes");
  }
  if (child == 0) {
    run_child(parent, limits, work);
  }
  return wait_for(child);
}

// ---- The trial -----------------------------------------------------------------------------------

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
    refuse_usage(std::string("the environment variable ") + kFactorVariable + " is \"" + text +
                 "\". Set it to a number from 0.001 to " + "1000, or not at all");
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

// An exit code is that of a sanitizer's report, or the engine called exit.
std::string crash_of(int status) {
  const int signal = signal_of(status);
  return signal != 0 ? strsignal(signal) : "exit code " + std::to_string(WEXITSTATUS(status));
}

std::string fault_of(int status, const ChildLimits& limits) {
  const std::string not_finished = "the network engine did not finish loading and running it in ";
  if (has_exit_code(status, kMemoryExitCode)) {
    return "the network engine needs more than " +
           rounded_up(static_cast<double>(limits.memory) / kMebibyte) +
           " MiB of memory to load and run it";
  }
  switch (signal_of(status)) {
    case SIGALRM:
      return not_finished + rounded_up(limits.seconds) + " seconds";
    case SIGXCPU:
      return not_finished + rounded_up(limits.processor_seconds) + " seconds of processor time";
    case SIGKILL:  // the kernel's when memory runs out, or when a limit of the shell's is reached
      return "the network engine was killed while loading or running it, for lack of memory or by "
             "a limit of the shell; free memory, or use a smaller network";
    default:
      return "the network engine crashed while loading or running it (" + crash_of(status) +
             "); it is damaged or beyond this engine, so export it again or use another network";
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

std::string remedy_of(int status, const ChildLimits& limits) {
  const bool out_of_time = signal_of(status) == SIGXCPU;
  const bool out_of_memory = has_exit_code(status, kMemoryExitCode);
  if ((out_of_time && limits.processor_seconds >= shell_limit(RLIMIT_CPU)) ||
      (out_of_memory && static_cast<double>(limits.memory) >= shell_limit(RLIMIT_DATA))) {
    return "; that is a limit of the shell, see ulimit";
  }
  return out_of_time || out_of_memory || signal_of(status) == SIGALRM
             ? std::string("; use a smaller network, or, if you trust this one, set ") +
                   kFactorVariable + "=10 to allow ten times the usual"
             : "";
}

// done: what was being done with the network.
void refuse_interruption(int status, const std::string& name, const std::string& done) {
  const int signal = signal_of(status);
  if (signal == SIGINT || signal == SIGTERM || signal == SIGHUP || signal == SIGQUIT) {
    throw ToolError(kInterrupted, name + ": interrupted while the network was " + done);
  }
}

}  // namespace

void require_harmless_reading(const std::string& name, std::size_t bytes,
                              const std::function<void()>& work) {
  const ChildLimits limits =
      within_shell_limits(limits_for(static_cast<double>(bytes), limit_factor()));
  const int status = run_limited(limits, work);
  refuse_interruption(status, name, "read");
  if (has_exit_code(status, kDone)) {
    return;
  }
  const int signal = signal_of(status);
  if (signal == SIGXCPU || signal == SIGALRM || signal == SIGKILL ||
      has_exit_code(status, kMemoryExitCode)) {
    refuse_model(name, "reading the network takes more time or memory than it may" +
                           remedy_of(status, limits));
  }
  refuse_model(name, "the records of the network are damaged: reading them crashed (" +
                         crash_of(status) + "). Export it again");
}

void require_harmless_work(const std::string& name, std::size_t bytes,
                           const std::function<void()>& work) {
  const ChildLimits limits =
      within_shell_limits(limits_for(static_cast<double>(bytes), limit_factor()));
  const int status = run_limited(limits, work);
  refuse_interruption(status, name, "tried");
  if (!has_exit_code(status, kDone)) {
    refuse_model(name, fault_of(status, limits) + remedy_of(status, limits));
  }
}

void require_harmless_network(const std::string& path, const std::string& name) {
  // A chip's device does not survive a fork, and what its library does to the process is its own.
  if (platform_is_foreign()) {
    return;
  }
  limit_factor();  // refused even when there is no file to try
  std::error_code error;
  const std::uintmax_t bytes = std::filesystem::file_size(path, error);
  if (error) {
    return;  // not a file with a size, which the library cannot map either
  }
  require_harmless_work(name, static_cast<std::size_t>(bytes), [&path] { run_gradient(path); });
}

}  // namespace olvex_tools
