// interruption.h - Ctrl-C that ends a run in order: the first one asks, the second one kills.
// Read run_session.cpp for the loop that asks.
#ifndef TOOLS_INTERRUPTION_H
#define TOOLS_INTERRUPTION_H

#include <csignal>

namespace olvex_tools {

// While one lives, the first SIGINT or SIGTERM is only remembered and SIGPIPE is ignored, so that a
// closed pipe is a failed write. The destructor puts the former behaviour back. One at a time.
class Interruption {
 public:
  Interruption();
  ~Interruption();
  Interruption(const Interruption&) = delete;
  Interruption& operator=(const Interruption&) = delete;

  bool requested() const;

 private:
  struct sigaction former_interrupt_;
  struct sigaction former_terminate_;
  struct sigaction former_pipe_;
};

}  // namespace olvex_tools

#endif  // TOOLS_INTERRUPTION_H
