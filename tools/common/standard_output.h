// standard_output.h - keeps standard output for results: the detection library prints its
// diagnostics there, so they are redirected while it works.
#ifndef TOOLS_COMMON_STANDARD_OUTPUT_H
#define TOOLS_COMMON_STANDARD_OUTPUT_H

#include <cstdio>
#include <string>

namespace olvex_tools {

// While an object exists, file descriptor 1 is a log file or /dev/null, and results() is the process's
// real standard output. The destructor puts everything back. Not for use from two threads; one at
// a time.
class LibraryLog {
 public:
  // log_path: file that the library's diagnostics are appended to; empty: they are dropped. Throws
  // ToolError (kInputError) when it cannot be opened.
  explicit LibraryLog(const std::string& log_path);
  ~LibraryLog();
  LibraryLog(const LibraryLog&) = delete;
  LibraryLog& operator=(const LibraryLog&) = delete;

  FILE* results() { return results_; }

 private:
  FILE* results_ = nullptr;
};

// Writes text to standard output and flushes it; throws ToolError when that fails (a full disk).
void print_result(const std::string& text);

}  // namespace olvex_tools

#endif  // TOOLS_COMMON_STANDARD_OUTPUT_H
