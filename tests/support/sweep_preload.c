// SPDX-License-Identifier: Apache-2.0
// sweep_preload.c - preloaded into a program: counts its calls that write, sync, close or rename
// files of one folder, and at the n-th fills the disk for good or sends the program a signal.
// Read tests/tools/run_sweep_test.py for its use.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static long calls;

static void* next_of(const char* name) {
  return dlsym(RTLD_NEXT, name);
}

// SWEEP_ACTION: "full", a signal's number, "busy", when no file may be replaced, or "stranger", when the
// user may give files to no other group. SWEEP_MARK: a file that is made when it happens.
static void mark(void) {
  const int descriptor = open(getenv("SWEEP_MARK"), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
  ((int (*)(int))next_of("close"))(descriptor);
}

static int is_ours(const char* path) {
  const char* folder = getenv("SWEEP_FOLDER");
  return folder != NULL && strncmp(path, folder, strlen(folder)) == 0;
}

static int is_our_descriptor(int descriptor) {
  char name[64];
  char path[4096];
  const int kept = errno;
  snprintf(name, sizeof name, "/proc/self/fd/%d", descriptor);
  const ssize_t length = readlink(name, path, sizeof path - 1);
  errno = kept;
  path[length > 0 ? length : 0] = '\0';
  return is_ours(path);
}

// 0: the call succeeds; 1: the call that fills the disk; 2: one after it.
static int disk_is_full(void) {
  const char* action = getenv("SWEEP_ACTION");
  const long turn = ++calls - atol(getenv("SWEEP_AT"));
  if (turn == 0) {
    mark();
  }
  if (strcmp(action, "full") != 0) {
    if (turn == 0) {
      raise(atoi(action));
    }
    errno = EFBIG;
    return turn == 0 && atoi(action) == SIGXFSZ ? 2 : 0;
  }
  errno = ENOSPC;
  return turn < 0 ? 0 : turn == 0 ? 1 : 2;
}

ssize_t write(int descriptor, const void* bytes, size_t count) {
  ssize_t (*const real)(int, const void*, size_t) =
      (ssize_t(*)(int, const void*, size_t))next_of("write");
  const int full = is_our_descriptor(descriptor) ? disk_is_full() : 0;
  if (full == 2 || (full == 1 && count < 2)) {
    return -1;
  }
  return real(descriptor, bytes, full == 1 ? count / 2 : count);
}

int fsync(int descriptor) {
  int (*const real)(int) = (int (*)(int))next_of("fsync");
  return is_our_descriptor(descriptor) && disk_is_full() ? -1 : real(descriptor);
}

int close(int descriptor) {
  int (*const real)(int) = (int (*)(int))next_of("close");
  const int full = is_our_descriptor(descriptor) && disk_is_full();
  const int kept = errno;
  const int result = real(descriptor);
  errno = full ? kept : errno;
  return full ? -1 : result;
}

int fchown(int descriptor, uid_t owner, gid_t group) {
  int (*const real)(int, uid_t, gid_t) = (int (*)(int, uid_t, gid_t))next_of("fchown");
  if (is_our_descriptor(descriptor) && strcmp(getenv("SWEEP_ACTION"), "stranger") == 0) {
    errno = EPERM;
    return -1;
  }
  return real(descriptor, owner, group);
}

int rename(const char* from, const char* to) {
  int (*const real)(const char*, const char*) =
      (int (*)(const char*, const char*))next_of("rename");
  if (is_ours(to) && strcmp(getenv("SWEEP_ACTION"), "busy") == 0) {
    errno = EBUSY;
    return -1;
  }
  return is_ours(to) && disk_is_full() ? -1 : real(from, to);
}
