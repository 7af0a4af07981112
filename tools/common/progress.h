// SPDX-License-Identifier: Apache-2.0
// progress.h - the line on standard error that shows how far a run is, and notices.
#ifndef TOOLS_COMMON_PROGRESS_H
#define TOOLS_COMMON_PROGRESS_H

#include <chrono>
#include <optional>
#include <string>

namespace olvex_tools {

class Progress {
 public:
  // total: frames to come, if known. The line appears on a terminal only; quiet switches the line
  // and the notices off.
  Progress(std::optional<long> total, bool quiet);
  // Removes the line.
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // done: frames so far. Redraws at most ten times a second.
  void update(long done);
  // Prints a remark on its own line.
  void notice(const std::string& text);
  void clear();

 private:
  std::string line(long done, double seconds) const;

  std::optional<long> total_;
  bool quiet_;
  bool visible_;
  bool drawn_ = false;
  std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point next_draw_;
};

}  // namespace olvex_tools

#endif  // TOOLS_COMMON_PROGRESS_H
