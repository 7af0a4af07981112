// interruption.cpp - the signal handlers. Read interruption.h first.
#include "tools/interruption.h"

#include <atomic>

namespace olvex_tools {

namespace {

// Atomic, since a thread of a codec may be the one that gets the signal.
std::atomic<bool> was_requested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler must not wait for a lock");

// From now on either signal has its default action, which ends the process.
extern "C" void remember_request(int) {
  was_requested = true;
  std::signal(SIGINT, SIG_DFL);
  std::signal(SIGTERM, SIG_DFL);
}

void handle(int signal, void (*handler)(int), struct sigaction* former) {
  struct sigaction action = {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  // A read or write that the signal hits goes on, so that no result is cut.
  action.sa_flags = SA_RESTART;
  sigaction(signal, &action, former);
}

}  // namespace

Interruption::Interruption() {
  was_requested = false;
  handle(SIGINT, remember_request, &former_interrupt_);
  handle(SIGTERM, remember_request, &former_terminate_);
  handle(SIGPIPE, SIG_IGN, &former_pipe_);
}

Interruption::~Interruption() {
  sigaction(SIGINT, &former_interrupt_, nullptr);
  sigaction(SIGTERM, &former_terminate_, nullptr);
  sigaction(SIGPIPE, &former_pipe_, nullptr);
}

bool Interruption::requested() const {
  return was_requested;
}

}  // namespace olvex_tools
