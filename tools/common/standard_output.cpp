// standard_output.cpp - LibraryLog by moving file descriptors, as the library prints through the C
// library's own stdout. Read standard_output.h first.
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

bool is_control(char character) {
  const auto code = static_cast<unsigned char>(character);
  return code < 0x20 || code == 0x7f;
}

// U+0080 to U+009F, which some terminals obey, too.
bool is_wide_control(const std::string& text, std::size_t position) {
  return position + 1 < text.size() && text[position] == '\xc2' &&
         (static_cast<unsigned char>(text[position + 1]) & 0xe0) == 0x80;
}

std::string without_controls(const std::string& text, bool keep_line_ends) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool wide = is_wide_control(text, i);
    const bool kept = keep_line_ends && text[i] == '\n';
    result += wide || (is_control(text[i]) && !kept) ? '?' : text[i];
    i += wide ? 1 : 0;
  }
  return result;
}

}  // namespace

std::string printable(const std::string& text) {
  return without_controls(text, true);
}

std::string one_line(const std::string& text) {
  return without_controls(text, false);
}

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
