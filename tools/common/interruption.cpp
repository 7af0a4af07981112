// SPDX-License-Identifier: Apache-2.0
// interruption.cpp - the signal handlers.
#include "tools/common/interruption.h"

#include <atomic>
#include <cerrno>

#include <fcntl.h>

#include "tools/common/command.h"
#include "tools/common/whole_file.h"

namespace olvex_tools {

namespace {

// Atomic, since a thread of a codec may be the one that gets the signal.
std::atomic<bool> was_requested{false};
std::atomic<bool> was_asked_for{false};  // by SIGINT or SIGTERM
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler must not wait for a lock");

extern "C" void remember_request(int signal_number) {
  was_requested = true;
  // A terminal that closes sends several, and the end of a login SIGTERM beside them.
  if (signal_number == SIGHUP) {
    return;
  }
  if (was_asked_for.exchange(true)) {
    remove_unfinished_files();
    std::signal(signal_number, SIG_DFL);
    std::raise(signal_number);
  }
}

void handle(int signal_number, void (*handler)(int), struct sigaction* former) {
  struct sigaction action = {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  // A read or write that the signal interrupts is continued, so that no result is cut.
  action.sa_flags = SA_RESTART;
  sigaction(signal_number, &action, former);
}

void remember(int signal_number, struct sigaction* former) {
  handle(signal_number, remember_request, former);
  if (former->sa_handler == SIG_IGN) {
    sigaction(signal_number, former, nullptr);
  }
}

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGXFSZ};

// The others are ignored.
bool is_remembered(int signal_number) {
  return signal_number != SIGPIPE && signal_number != SIGXFSZ;
}

// Whether a waiting call continues after a request.
void set_restart(bool restart) {
  for (const int signal_number : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action = {};
    sigaction(signal_number, nullptr, &action);
    if (action.sa_handler == remember_request) {
      action.sa_flags = restart ? SA_RESTART : 0;
      sigaction(signal_number, &action, nullptr);
    }
  }
}

}  // namespace

Interruption::Interruption() {
  was_requested = false;
  was_asked_for = false;
  for (std::size_t i = 0; i < former_.size(); ++i) {
    if (is_remembered(kSignals[i])) {
      remember(kSignals[i], &former_[i]);
    } else {
      handle(kSignals[i], SIG_IGN, &former_[i]);
    }
  }
}

Interruption::~Interruption() {
  for (std::size_t i = 0; i < former_.size(); ++i) {
    sigaction(kSignals[i], &former_[i], nullptr);
  }
}

bool interruption_requested() {
  return was_requested;
}

int open_interruptibly(const std::string& path, int flags) {
  set_restart(false);
  // After a request nothing is waited for, so that a pipe without a reader is refused.
  const int descriptor = ::open(path.c_str(), was_requested ? flags | O_NONBLOCK : flags, 0666);
  const int reason = errno;
  set_restart(true);
  if (descriptor >= 0) {
    fcntl(descriptor, F_SETFL, fcntl(descriptor, F_GETFL) & ~O_NONBLOCK);
  }
  if (descriptor < 0 && (reason == EINTR || reason == ENXIO) && was_requested) {
    throw ToolError(kInterrupted, path + ": interrupted while it was opened");
  }
  errno = reason;
  return descriptor;
}

}  // namespace olvex_tools
