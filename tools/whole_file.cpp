// whole_file.cpp - whole-file reading, and writing by temporary file and rename.
// Read whole_file.h first.
#include "tools/whole_file.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include <sys/stat.h>
#include <unistd.h>

#include "tools/command.h"

namespace olvex_tools {

namespace {

constexpr std::size_t kLargestFile = 1u << 30;  // bytes; no model file takes more

// The temporary file that a signal has to remove; only what may be used in a handler.
char g_unfinished_path[4096];

extern "C" void remove_unfinished_file(int signal_number) {
  if (g_unfinished_path[0] != '\0') {
    unlink(g_unfinished_path);
  }
  _exit(128 + signal_number);
}

constexpr int kEndingSignals[] = {SIGINT, SIGTERM, SIGHUP};

[[noreturn]] void fail(const std::string& doing, const std::string& path) {
  const std::string reason = std::strerror(errno);
  throw ToolError(kInputError, "cannot " + doing + " " + path + ": " + reason);
}

mode_t default_file_mode() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

}  // namespace

std::vector<char> read_whole_file(const std::string& what, const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) {
    fail("read " + what, path);
  }
  // A pipe is as good as a file.
  if (!S_ISREG(status.st_mode) && !S_ISFIFO(status.st_mode)) {
    throw ToolError(kInputError, "cannot read " + what + " " + path + ": it is not a file");
  }
  std::ifstream file(path, std::ios::binary);
  std::vector<char> bytes;
  char part[1 << 16];
  while (file.read(part, sizeof part) || file.gcount() > 0) {
    if (bytes.size() > kLargestFile) {
      throw ToolError(kInputError, "cannot read " + what + " " + path + ": it has more than 1 GiB");
    }
    bytes.insert(bytes.end(), part, part + file.gcount());
  }
  if (!file.is_open() || file.bad()) {
    fail("read " + what, path);
  }
  return bytes;
}

ReplacementFile::ReplacementFile(const std::string& target)
    : target_(target), temporary_path_(target + ".XXXXXX") {
  if (temporary_path_.size() >= sizeof g_unfinished_path) {
    errno = ENAMETOOLONG;
    fail("write", target);
  }
  struct stat status = {};
  if (stat(target.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
    throw ToolError(kInputError, "cannot write " + target + ": it exists and is not a file");
  }
  descriptor_ = mkstemp(temporary_path_.data());
  if (descriptor_ < 0) {
    fail("write", target);
  }
  std::memcpy(g_unfinished_path, temporary_path_.c_str(), temporary_path_.size() + 1);
  for (const int signal_number : kEndingSignals) {
    std::signal(signal_number, remove_unfinished_file);
  }
  // A file larger than allowed is a failed write, not the end of the process.
  std::signal(SIGXFSZ, SIG_IGN);
}

ReplacementFile::~ReplacementFile() {
  close(descriptor_);
  if (!committed_) {
    unlink(temporary_path_.c_str());
  }
  g_unfinished_path[0] = '\0';
  for (const int signal_number : kEndingSignals) {
    std::signal(signal_number, SIG_DFL);
  }
  std::signal(SIGXFSZ, SIG_DFL);
}

void ReplacementFile::write(const std::vector<char>& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t written = ::write(descriptor_, bytes.data() + done, bytes.size() - done);
    if (written < 0 && errno != EINTR) {
      fail("write", target_);
    }
    done += written > 0 ? static_cast<std::size_t>(written) : 0;
  }
}

void ReplacementFile::commit() {
  // mkstemp makes files that only their owner may read.
  if (fchmod(descriptor_, default_file_mode()) != 0 || fsync(descriptor_) != 0 ||
      std::rename(temporary_path_.c_str(), target_.c_str()) != 0) {
    fail("write", target_);
  }
  committed_ = true;
}

}  // namespace olvex_tools
