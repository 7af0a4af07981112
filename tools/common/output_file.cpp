// SPDX-License-Identifier: Apache-2.0
// output_file.cpp - writes in place or beside it, and moves file descriptors for LibraryLog, as the library
// prints through the C library's own stdout.
#include "tools/common/output_file.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tools/common/command.h"
#include "tools/common/interruption.h"

namespace olvex_tools {

namespace fs = std::filesystem;

namespace {

bool is_permitted(const std::string& path, int what) {
  return faccessat(AT_FDCWD, path.c_str(), what, AT_EACCESS) == 0;
}

std::string folder_of(const std::string& path) {
  const std::string folder = fs::path(path).parent_path().string();
  return folder.empty() ? "." : folder;
}

[[noreturn]] void refuse_output(const std::string& path, int reason, const std::string& state) {
  std::string message = path + ": cannot be written: " + std::strerror(reason) + state;
  if (reason == EPIPE) {
    message += ". The program that reads the results ended before this one";
  }
  throw ToolError(kInputError, message);
}

bool is_device_or_pipe(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
}

// The file that is to be replaced behind a path that may be a link; empty when that cannot be: the
// link leads nowhere yet, or its folder permits no other file.
std::string replaceable(const std::string& path) {
  const std::string target = behind_link(path);
  constexpr std::size_t kLongestName = 255 - sizeof ".partial.XXXXXX";
  const bool possible = !target.empty() &&
                        fs::path(target).filename().string().size() < kLongestName &&
                        is_permitted(folder_of(target), W_OK | X_OK);
  return possible ? target : "";
}

}  // namespace

void require_writable(const std::string& path) {
  if (is_permitted(path, F_OK) ? !is_permitted(path, W_OK)
                               : errno != ENOENT || !is_permitted(folder_of(path), W_OK | X_OK)) {
    refuse_output(path, errno, "");
  }
}

OutputFile::OutputFile(const std::string& path, FILE* standard_output, OutputForm form)
    : path_(path), form_(form) {
  if (path == kStandardOutput) {
    path_ = "standard output";
    is_file_ = false;
    owned_ = false;
    std::fflush(standard_output);
    descriptor_ = fileno(standard_output);
  } else if (is_device_or_pipe(path)) {
    is_file_ = false;
    open_in_place();
  } else {
    require_writable(path);
  }
}

OutputFile::~OutputFile() {
  if (owned_ && descriptor_ >= 0) {
    ::close(descriptor_);
  }
}

void OutputFile::open_in_place() {
  descriptor_ = open_interruptibly(path_, O_WRONLY | O_CREAT | O_CLOEXEC);
  if (descriptor_ < 0) {
    fail(errno);
  }
  struct stat status = {};
  if (fstat(descriptor_, &status) == 0 && S_ISREG(status.st_mode)) {
    empty_own_file();
  }
}

void OutputFile::empty_own_file() {
  // Some file systems have no locks; there a second run is not detected.
  if (flock(descriptor_, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
    failed_ = true;
    refuse_input(path_, "another program is writing to it. Name another file");
  }
  if (ftruncate(descriptor_, 0) != 0) {
    fail(errno);
  }
}

void OutputFile::open() {
  const std::string target = form_ == OutputForm::kLines ? "" : replaceable(path_);
  if (target.empty()) {
    open_in_place();
  } else {
    replacement_.emplace(target);
  }
}

void OutputFile::write_in_place(const std::string& text) {
  const std::size_t done = write_all(descriptor_, text);
  if (done < text.size()) {
    const int reason = errno;
    // Ctrl-C ends all programs of a pipeline, and which of them is first is open.
    if (reason == EPIPE && interruption_requested()) {
      failed_ = true;
      return;
    }
    const bool cut = is_file_ && done > 0 && ftruncate(descriptor_, whole_) != 0;
    const bool incomplete = is_file_ && form_ != OutputForm::kLines;
    fail(reason, incomplete ? ". It is not complete" : cut ? ". Its last line is cut" : "");
  }
  whole_ += static_cast<off_t>(text.size());
}

void OutputFile::write(const std::string& text) {
  if (failed_ || closed_) {
    return;
  }
  try {
    if (descriptor_ < 0 && !replacement_) {
      open();
    }
    if (replacement_) {
      replacement_->write(text);
    } else {
      write_in_place(text);
    }
  } catch (const FileError& error) {
    fail(error.reason());
  }
}

void OutputFile::commit() {
  const std::string temporary = replacement_->temporary_path();
  try {
    replacement_->commit(form_ == OutputForm::kWhole ? Durability::kOnDisk
                                                     : Durability::kLeftToSystem);
  } catch (const FileError& error) {
    std::error_code ignored;
    fail(error.reason(),
         fs::exists(temporary, ignored) ? ". What was to be written there is in " + temporary : "");
  }
  replacement_.reset();
}

void OutputFile::close() {
  if (!owned_ || failed_) {
    return;
  }
  closed_ = true;
  if (replacement_) {
    commit();
  }
  const int descriptor = std::exchange(descriptor_, -1);
  if (descriptor >= 0 && ::close(descriptor) != 0) {
    fail(errno);
  }
}

void OutputFile::fail(int reason, const std::string& state) {
  failed_ = true;
  replacement_.reset();
  refuse_output(path_, reason, state);
}

void write_output(const std::string& path, FILE* standard_output, const std::string& text) {
  OutputFile file(path, standard_output, OutputForm::kWhole);
  file.write(text);
  file.close();
}

// ---- Standard output ----------------------------------------------------------------------------

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
