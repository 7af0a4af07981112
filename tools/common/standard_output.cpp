// standard_output.cpp - LibraryLog by moving file descriptors, as the library prints through the C
// library's own stdout.
#include "tools/common/standard_output.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include "tools/common/command.h"
#include "tools/common/interruption.h"

namespace olvex_tools {

namespace {

int open_log(const std::string& log_path) {
  const bool dropped = log_path.empty();
  const char* path = dropped ? "/dev/null" : log_path.c_str();
  const int descriptor = open_interruptibly(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC);
  if (descriptor < 0) {
    throw ToolError(kInputError,
                    "cannot open the log file " + std::string(path) + ": " + std::strerror(errno));
  }
  return descriptor;
}

}  // namespace

LibraryLog::LibraryLog(const std::string& log_path) {
  std::fflush(stdout);
  const int log = open_log(log_path);
  const int real = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  results_ = real < 0 ? nullptr : fdopen(real, "w");
  if (results_ == nullptr || dup2(log, STDOUT_FILENO) < 0) {
    const std::string reason = std::strerror(errno);
    if (results_ != nullptr) {
      std::fclose(results_);
    } else if (real >= 0) {
      close(real);
    }
    close(log);
    throw ToolError(kInputError, "standard output cannot be used: " + reason);
  }
  close(log);
}

LibraryLog::~LibraryLog() {
  std::fflush(stdout);
  std::fflush(results_);
  dup2(fileno(results_), STDOUT_FILENO);
  std::fclose(results_);
}

void print_result(const std::string& text) {
  const bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
  if (!written || std::fflush(stdout) != 0) {
    throw ToolError(kInputError,
                    std::string("cannot write to standard output: ") + std::strerror(errno));
  }
}

}  // namespace olvex_tools
