// SPDX-License-Identifier: Apache-2.0
// interruption.h - signals that end a run: the first Ctrl-C requests an orderly end, the second one
// ends the process. The loop in run_session.cpp checks for requests.
#ifndef TOOLS_COMMON_INTERRUPTION_H
#define TOOLS_COMMON_INTERRUPTION_H

#include <array>
#include <csignal>
#include <string>

namespace olvex_tools {

// While an object exists, the first SIGINT or SIGTERM and every SIGHUP are only remembered; one that was
// ignored before (nohup, a shell's background) stays so. The second SIGINT or SIGTERM removes unfinished
// files and ends the process. SIGPIPE and SIGXFSZ are ignored, so that a closed pipe and a file that grows
// beyond its limit are failed writes. The destructor puts the former behaviour back. One at a time.
class Interruption {
 public:
  Interruption();
  ~Interruption();
  Interruption(const Interruption&) = delete;
  Interruption& operator=(const Interruption&) = delete;

 private:
  std::array<struct sigaction, 5> former_;
};

// Whether the existing Interruption, or the last one, remembers a request.
bool interruption_requested();

// open() for writing, which waits on a pipe for its reader. A signal that an Interruption remembers
// ends the wait, and one that it already remembers forbids it: then throws ToolError (kInterrupted).
// -1 and errno on any other failure.
int open_interruptibly(const std::string& path, int flags);

}  // namespace olvex_tools

#endif  // TOOLS_COMMON_INTERRUPTION_H
