// SPDX-License-Identifier: Apache-2.0
// failing_calls.h - the library's calls to the system made to fail: memory, files and mutexes. For
// one source of a program that is linked with a --wrap for each function below
// (tests/api/CMakeLists.txt). The platform's calls fail by platform/scripted/qv_scripted.h.
#ifndef TESTS_API_FAILING_CALLS_H
#define TESTS_API_FAILING_CALLS_H

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <new>
#include <string>
#include <utility>

namespace failing_calls {

// A call that fails is not made and says so as the system does, except that what releases something
// releases it all the same. After a failed lock the unlock fails with EPERM: the mutex is not ours.
struct Fault {
  std::string call;       // a name that is given to fails() below; "short write" writes half
  int n = 0;              // the first call to fail, from 1; 0: none
  bool for_good = false;  // all later ones fail, too
  int code = 0;           // errno, or what the mutex functions return
  int seen = 0;
  int failed = 0;
};
inline Fault fault;

// Set while the library is called: what the test itself does does not count.
inline bool watching = false;
// What the library has allocated and not freed in all its calls so far, and what it has mapped and
// not unmapped; below 0: what another mapped.
inline int allocations = 0;
inline int mappings = 0;
inline const pthread_mutex_t* not_locked = nullptr;

inline bool fails(const char* call) {
  if (!watching || fault.call != call) {
    return false;
  }
  ++fault.seen;
  if (fault.n == 0 || fault.seen < fault.n || (fault.seen > fault.n && !fault.for_good)) {
    return false;
  }
  ++fault.failed;
  errno = fault.code;
  return true;
}

inline void* allocated(void* (*allocate)(std::size_t), std::size_t size) {
  if (fails("new")) {
    throw std::bad_alloc();
  }
  allocations += watching;
  return allocate(size);
}

inline void freed(void (*release)(void*), void* memory) {
  allocations -= watching && memory != nullptr;
  release(memory);
}

}  // namespace failing_calls

// The names of operator new hold the type of a size.
#ifdef __LP64__
#define OLVEX_SIZED(name) name##m
#else
#define OLVEX_SIZED(name) name##j
#endif

extern "C" {

using failing_calls::fails;

void *OLVEX_SIZED(__real__Znw)(std::size_t), *OLVEX_SIZED(__real__Zna)(std::size_t);
void __real__ZdlPv(void*), __real__ZdaPv(void*);

void* OLVEX_SIZED(__wrap__Znw)(std::size_t size) {
  return failing_calls::allocated(OLVEX_SIZED(__real__Znw), size);
}
void* OLVEX_SIZED(__wrap__Zna)(std::size_t size) {
  return failing_calls::allocated(OLVEX_SIZED(__real__Zna), size);
}
void __wrap__ZdlPv(void* memory) {
  failing_calls::freed(__real__ZdlPv, memory);
}
void __wrap__ZdaPv(void* memory) {
  failing_calls::freed(__real__ZdaPv, memory);
}

// A function that is called, or fails instead, and one that fails afterwards.
#define OLVEX_FAILS(type, function, call, failure, parameters, arguments) \
  __typeof__(function) __real_##function;                                 \
  type __wrap_##function parameters {                                     \
    return fails(call) ? failure : __real_##function arguments;           \
  }
#define OLVEX_FAILS_AFTERWARDS(type, function, call, failure, parameters, arguments) \
  __typeof__(function) __real_##function;                                            \
  type __wrap_##function parameters {                                                \
    const type result = __real_##function arguments;                                 \
    return fails(call) ? failure : result;                                           \
  }

// Who creates no file gives no mode, and none is looked at.
OLVEX_FAILS(int, open, "open", -1, (const char* path, int flags, mode_t mode), (path, flags, mode))
OLVEX_FAILS(FILE*, fopen, "fopen", nullptr, (const char* path, const char* mode), (path, mode))
OLVEX_FAILS(char*, fgets, "fgets", nullptr, (char* line, int n, FILE* file), (line, n, file))
// What a hardened build makes of fgets.
char* __wrap___fgets_chk(char* line, std::size_t /*size*/, int n, FILE* file) {
  return __wrap_fgets(line, n, file);
}
OLVEX_FAILS(int, fstat, "fstat", -1, (int file, struct stat* status), (file, status))
OLVEX_FAILS(ssize_t, write, "write", -1, (int file, const void* bytes, std::size_t size),
            (file, bytes, fails("short write") ? size / 2 : size))
OLVEX_FAILS_AFTERWARDS(int, close, "close", -1, (int file), (file))

__typeof__(mmap) __real_mmap;
void* __wrap_mmap(void* hint, std::size_t size, int access, int flags, int file, off_t offset) {
  if (fails("mmap")) {
    return MAP_FAILED;
  }
  failing_calls::mappings += failing_calls::watching;
  return __real_mmap(hint, size, access, flags, file, offset);
}
OLVEX_FAILS_AFTERWARDS(int, munmap, "munmap", -1, (void* mapping, std::size_t size),
                       (mapping, (failing_calls::mappings -= failing_calls::watching, size)))

OLVEX_FAILS(int, pthread_mutex_init, "mutex init", failing_calls::fault.code,
            (pthread_mutex_t * mutex, const pthread_mutexattr_t* attributes), (mutex, attributes))
OLVEX_FAILS_AFTERWARDS(int, pthread_mutex_destroy, "mutex destroy", failing_calls::fault.code,
                       (pthread_mutex_t * mutex), (mutex))
__typeof__(pthread_mutex_lock) __real_pthread_mutex_lock, __real_pthread_mutex_unlock;
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
  failing_calls::not_locked = fails("mutex lock") ? mutex : nullptr;
  return failing_calls::not_locked != nullptr ? failing_calls::fault.code
                                              : __real_pthread_mutex_lock(mutex);
}
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
  if (std::exchange(failing_calls::not_locked, nullptr) == mutex) {
    return EPERM;
  }
  const int result = __real_pthread_mutex_unlock(mutex);
  return fails("mutex unlock") ? failing_calls::fault.code : result;
}

}  // extern "C"

#endif  // TESTS_API_FAILING_CALLS_H
