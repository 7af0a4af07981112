// limited_child.cpp - the child sets all limits on itself, so that the parent only has to wait.
// Read limited_child.h first.
#include "tools/inside/limited_child.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <opencv2/core.hpp>

#include "tools/common/command.h"

namespace olvex_tools {

namespace {

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

// What the parent does on these signals (it removes its unfinished files, or ends in order) is not
// the child's to do. Those that are ignored stay so.
void drop_handlers() {
  for (const int signal_number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
    if (std::signal(signal_number, SIG_DFL) == SIG_IGN) {
      std::signal(signal_number, SIG_IGN);
    }
  }
}

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
  prctl(PR_SET_DUMPABLE, 0);  // core files that go to a program instead know no limit
  // Standard input stays: the network may come from there.
  const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) {
    dup2(nowhere, stream);
  }
}

[[noreturn]] void be_child(pid_t parent, const ChildLimits& limits,
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

ChildResult explain_signal(int signal) {
  switch (signal) {
    case SIGXCPU:
      return {ChildEnd::kTooMuchProcessorTime, ""};
    case SIGALRM:
      return {ChildEnd::kTooLong, ""};
    case SIGKILL:
      return {ChildEnd::kKilled, ""};
    case SIGINT:
    case SIGTERM:
    case SIGHUP:
    case SIGQUIT:
      return {ChildEnd::kInterrupted, ""};
    default:
      return {ChildEnd::kCrashed, strsignal(signal)};
  }
}

}  // namespace

ChildResult run_limited(const ChildLimits& limits, const std::function<void()>& work) {
  std::fflush(nullptr);
  // Some programs start others with this signal ignored, and then the kernel keeps no child's end.
  std::signal(SIGCHLD, SIG_DFL);
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child < 0) {
    throw ToolError(kAcceleratorError,
                    std::string("the network cannot be tried in a process of its own: ") +
                        std::strerror(errno) + ". End other programs, or allow more processes");
  }
  if (child == 0) {
    be_child(parent, limits, work);
  }
  const int status = wait_for(child);
  if (WIFSIGNALED(status)) {
    return explain_signal(WTERMSIG(status));
  }
  switch (WEXITSTATUS(status)) {
    case kDone:
      return {ChildEnd::kFinished, ""};
    case kMemoryExitCode:
      return {ChildEnd::kTooMuchMemory, ""};
    default:  // a sanitizer's report, or the engine called exit
      return {ChildEnd::kCrashed, "exit code " + std::to_string(WEXITSTATUS(status))};
  }
}

}  // namespace olvex_tools
