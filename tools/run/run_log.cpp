// SPDX-License-Identifier: Apache-2.0
// run_log.cpp - the log in an anonymous file of the kernel's, emptied after every good frame, so
// that a run of days needs no disk.
#include "tools/run/run.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

#include <sys/mman.h>
#include <unistd.h>

#include "tools/common/command.h"

namespace olvex_tools {

namespace {

constexpr std::size_t kShownErrors = 5;         // lines
constexpr long long kMostReadBack = 64 * 1024;  // bytes, from the end
const char kErrorTag[] = "DLA_ERROR:";
// Freeing a handle whose initialisation failed logs this error too. It explains nothing.
const char kAfterFailedInit[] = "no need to deinit handle";

bool is_telling(const std::string& line) {
  return line.find(kErrorTag) != std::string::npos &&
         line.find(kAfterFailedInit) == std::string::npos;
}

long long size_of(const std::string& path) {
  std::error_code error;
  const std::uintmax_t size = std::filesystem::file_size(path, error);
  return error ? 0 : static_cast<long long>(size);
}

}  // namespace

RunLog::RunLog(const std::string& path, bool is_shared) : is_shared_(is_shared), path_(path) {
  if (path_.empty()) {
    memory_ = memfd_create("olvex-det log", MFD_CLOEXEC);
    if (memory_ < 0) {
      throw ToolError(kInputError, std::string("no place for the library's log: ") +
                                       std::strerror(errno) + ". Name a file with --log");
    }
    path_ = "/proc/self/fd/" + std::to_string(memory_);
  }
  checked_ = size_of(path_);
  try {
    redirection_ = std::make_unique<LibraryLog>(path_);
  } catch (...) {
    close(memory_);
    throw;
  }
}

RunLog::~RunLog() {
  redirection_.reset();
  if (memory_ >= 0) {
    close(memory_);
  }
}

void RunLog::frame_done() {
  constexpr long long kOften = kMostReadBack / 2;
  if (std::fflush(stdout) != 0 && memory_ < 0) {
    refuse_input(path_,
                 std::string("the library's log cannot be written: ") + std::strerror(errno));
  }
  std::unique_lock<std::shared_mutex> alone(mutex_, std::defer_lock);
  if (is_shared_) {
    if (size_of(path_) - checked_ < kOften) {
      return;
    }
    alone.lock();
  }
  if (memory_ < 0) {
    checked_ = size_of(path_);
  } else if (ftruncate(memory_, 0) != 0) {
    throw ToolError(kInputError,
                    std::string("the library's log cannot be emptied: ") + std::strerror(errno));
  }
}

std::string RunLog::unchecked_text() const {
  std::error_code error;
  // A device or a pipe cannot be read back, or has no end.
  if (!std::filesystem::is_regular_file(path_, error)) {
    return "";
  }
  const long long checked = checked_;
  const long long start = std::max(checked, size_of(path_) - kMostReadBack);
  std::ifstream log(path_, std::ios::binary);
  log.seekg(start);
  std::string text(kMostReadBack, '\0');
  log.read(text.data(), kMostReadBack);
  text.resize(static_cast<std::size_t>(std::max<std::streamsize>(log.gcount(), 0)));
  // The first line is likely to be cut.
  return start == checked ? text : text.substr(std::min(text.find('\n'), text.size()));
}

std::string RunLog::last_errors() const {
  std::fflush(stdout);
  std::istringstream log(unchecked_text());
  std::deque<std::string> errors;
  for (std::string line; std::getline(log, line);) {
    if (is_telling(line)) {
      errors.push_back(line);
    }
    if (errors.size() > kShownErrors) {
      errors.pop_front();
    }
  }
  std::string text;
  for (const std::string& line : errors) {
    text += "\n  " + line;
  }
  return text;
}

}  // namespace olvex_tools
