// SPDX-License-Identifier: Apache-2.0
// whole_file.cpp - whole-file reading, and writing by temporary file and rename.
#include "tools/common/whole_file.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace olvex_tools {

namespace {

constexpr std::size_t kLargestFile = 1u << 30;  // bytes; no model file takes more

// The temporary files that a signal has to remove; only what may be used in a handler. An empty
// path is a free place.
constexpr std::size_t kLongestPath = 4096;
char g_unfinished_paths[8][kLongestPath];

extern "C" void end_without_unfinished_files(int signal_number) {
  remove_unfinished_files();
  _exit(128 + signal_number);
}

// Ends with the memory dump that SIGQUIT asks for.
extern "C" void quit_without_unfinished_files(int signal_number) {
  remove_unfinished_files();
  std::signal(signal_number, SIG_DFL);
  std::raise(signal_number);
}

// What happens on a signal that would end the process.
struct SignalAction {
  int signal_number;
  void (*handler)(int);
};

// A file larger than allowed is a failed write.
const SignalAction kSignalActions[] = {{SIGINT, end_without_unfinished_files},
                                       {SIGTERM, end_without_unfinished_files},
                                       {SIGHUP, end_without_unfinished_files},
                                       {SIGQUIT, quit_without_unfinished_files},
                                       {SIGXFSZ, SIG_IGN}};

[[noreturn]] void fail(const std::string& doing, const std::string& path) {
  const int reason = errno;
  throw FileError("cannot " + doing + " " + path + ": " + std::strerror(reason), reason);
}

// Null when all places are taken: then a signal leaves the file.
char* register_unfinished(const std::string& path) {
  for (char* place : g_unfinished_paths) {
    if (place[0] == '\0') {
      // The first byte comes last: a signal in between finds the place free.
      std::memcpy(place + 1, path.c_str() + 1, path.size());
      std::atomic_signal_fence(std::memory_order_seq_cst);
      place[0] = path[0];
      return place;
    }
  }
  return nullptr;
}

// Holds back, in this thread, the signals that remove unfinished files while the list of them changes.
class SignalBlock {
 public:
  SignalBlock() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const SignalAction& action : kSignalActions) {
      sigaddset(&signals, action.signal_number);
    }
    pthread_sigmask(SIG_BLOCK, &signals, &former_);
  }
  ~SignalBlock() { pthread_sigmask(SIG_SETMASK, &former_, nullptr); }
  SignalBlock(const SignalBlock&) = delete;
  SignalBlock& operator=(const SignalBlock&) = delete;

 private:
  sigset_t former_;
};

// A file that is mounted by itself cannot be replaced, nor can another owner's in a folder like /tmp;
// both may be writable all the same.
bool forbids_replacement(int reason) {
  return reason == EBUSY || reason == EPERM || reason == EACCES || reason == EXDEV;
}

bool copy_into(const std::string& target, const std::string& source) {
  std::ifstream from(source, std::ios::binary);
  std::ofstream to(target, std::ios::binary);
  // An empty source would count as a failure of the insertion.
  if (from.peek() != std::ifstream::traits_type::eof()) {
    to << from.rdbuf();
  }
  to.close();
  return !from.bad() && to.good();
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

std::size_t write_all(int descriptor, std::string_view bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t written = write(descriptor, bytes.data() + done, bytes.size() - done);
    if (written < 0 && errno != EINTR) {
      break;
    }
    done += written > 0 ? static_cast<std::size_t>(written) : 0;
  }
  return done;
}

extern "C" void remove_unfinished_files() {
  for (const char* path : g_unfinished_paths) {
    if (path[0] != '\0') {
      unlink(path);
    }
  }
}

std::string behind_link(const std::string& path) {
  std::error_code error;
  return std::filesystem::is_symlink(path, error) ? std::filesystem::canonical(path, error).string()
                                                  : path;
}

ReplacementFile::ReplacementFile(const std::string& target)
    : target_(behind_link(target)), temporary_path_(target_ + ".partial.XXXXXX") {
  if (target_.empty()) {
    errno = ENOENT;
    fail("write", target);
  }
  if (temporary_path_.size() >= kLongestPath) {
    errno = ENAMETOOLONG;
    fail("write", target);
  }
  struct stat status = {};
  if (stat(target.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
    throw ToolError(kInputError, "cannot write " + target + ": it exists and is not a file");
  }
  if (faccessat(AT_FDCWD, target_.c_str(), W_OK, AT_EACCESS) != 0 && errno != ENOENT) {
    fail("write", target);
  }
  const SignalBlock block;
  descriptor_ = mkostemp(temporary_path_.data(), O_CLOEXEC);
  if (descriptor_ < 0) {
    fail("write", target);
  }
  registration_ = register_unfinished(temporary_path_);
  for (std::size_t i = 0; i < former_.size(); ++i) {
    sigaction(kSignalActions[i].signal_number, nullptr, &former_[i]);
    if (former_[i].sa_handler == SIG_DFL) {
      std::signal(kSignalActions[i].signal_number, kSignalActions[i].handler);
    }
  }
}

ReplacementFile::~ReplacementFile() {
  if (descriptor_ >= 0) {
    close(descriptor_);
    unlink(temporary_path_.c_str());
  }
  if (registration_ != nullptr) {
    registration_[0] = '\0';
  }
  for (std::size_t i = 0; i < former_.size(); ++i) {
    if (former_[i].sa_handler == SIG_DFL) {
      std::signal(kSignalActions[i].signal_number, SIG_DFL);
    }
  }
}

void ReplacementFile::write(std::string_view bytes) {
  if (write_all(descriptor_, bytes) < bytes.size()) {
    fail("write", target_);
  }
}

void ReplacementFile::take_over_attributes() const {
  struct stat former = {};
  const bool replaces = stat(target_.c_str(), &former) == 0;
  // Best effort: some file systems have no owners and modes, and changing the owner takes privileges.
  // mkstemp makes files that only their owner may read.
  mode_t mode = replaces ? former.st_mode & 0777 : default_file_mode();
  if (replaces && fchown(descriptor_, former.st_uid, former.st_gid) != 0 &&
      fchown(descriptor_, static_cast<uid_t>(-1), former.st_gid) != 0) {
    mode &= ~static_cast<mode_t>(070);  // they were meant for another group
  }
  fchmod(descriptor_, mode);
}

void ReplacementFile::commit(Durability durability) {
  take_over_attributes();
  if (durability == Durability::kOnDisk && fsync(descriptor_) != 0) {
    fail("write", target_);
  }
  // Some file systems report a full disk only here.
  const int descriptor = std::exchange(descriptor_, -1);
  if (close(descriptor) == 0 && std::rename(temporary_path_.c_str(), target_.c_str()) == 0) {
    return;
  }
  const int reason = errno;
  if (forbids_replacement(reason)) {
    put_in_place(reason);
    return;
  }
  unlink(temporary_path_.c_str());
  errno = reason;
  fail("write", target_);
}

void ReplacementFile::put_in_place(int reason) {
  if (copy_into(target_, temporary_path_)) {
    unlink(temporary_path_.c_str());
    return;
  }
  if (registration_ != nullptr) {
    std::exchange(registration_, nullptr)[0] = '\0';
  }
  throw FileError("cannot replace " + target_ + ": " + std::strerror(reason) +
                      "; what was to be written there is in " + temporary_path_,
                  reason);
}

}  // namespace olvex_tools
