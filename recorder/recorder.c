// SPDX-License-Identifier: Apache-2.0
/* recorder.c - the start, the tables of handles and channels, the clock, messages to the user, and the functions behind the
 * interposed ones, where the loader binds them. */
#include "recorder/recorder.h"

#include <dlfcn.h>
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include "recorder/attachment.h"
#include "recorder/checksums.h"
#include "recorder/olvex_recorder.h"

#define LOADER_FAILURE 127

enum state { NOT_STARTED = 0, ON, OFF };

pthread_mutex_t recorder_lock = PTHREAD_MUTEX_INITIALIZER;
struct recorder* the_recorder;

static pthread_once_t once = PTHREAD_ONCE_INIT;
static int state;
static uint32_t pending; /* a trigger_reason */
static uint32_t threads_seen;
static uint32_t calls_begun;
/* In the thread's own part of the memory from its start on, so that the first use allocates nothing. */
static __thread struct thread_state thread_local_state __attribute__((tls_model("initial-exec")));

static uint64_t read_clock(clockid_t clock) {
  struct timespec now = {0, 0};
  clock_gettime(clock, &now);
  return (uint64_t)now.tv_sec * 1000000000u + (uint64_t)now.tv_nsec;
}

uint64_t monotonic_now(void) {
  return read_clock(CLOCK_MONOTONIC);
}

uint64_t clock_offset(void) {
  return the_recorder->realtime - the_recorder->monotonic;
}

/* A reader of standard error that has gone must not end the process. */
void say(const char* what, const char* name, int code) {
  char line[512];
  sigset_t pipe_signal;
  sigset_t before;
  sigset_t waiting;
  const int length =
      snprintf(line, sizeof line, "olvex_recorder: %s%s%s%s%s\n", what, name[0] != 0 ? " " : "",
               name, code != 0 ? ": " : "", code != 0 ? strerror(code) : "");
  const size_t size = length < (int)sizeof line ? (size_t)length : sizeof line - 1;
  sigemptyset(&pipe_signal);
  sigaddset(&pipe_signal, SIGPIPE);
  sigpending(&waiting);
  pthread_sigmask(SIG_BLOCK, &pipe_signal, &before);
  if (write(STDERR_FILENO, line, size) < 0 && errno == EPIPE && !sigismember(&waiting, SIGPIPE)) {
    const struct timespec at_once = {0, 0};
    sigtimedwait(&pipe_signal, NULL, &at_once);
  }
  pthread_sigmask(SIG_SETMASK, &before, NULL);
}

static void evicted(const struct ring* ring, uint32_t position, const struct ring_entry* entry) {
  if (entry->kind == RING_CALL) {
    carried_take(&the_recorder->carried, ring, position + (uint32_t)sizeof *entry, entry->size);
  }
}

static void handle_signal(int number) {
  (void)number;
  raise_trigger(TRIGGER_SIGNAL);
}

static int watch_signal(int number) {
  struct sigaction action;
  struct sigaction before;
  if (number == 0) {
    return 0;
  }
  memset(&action, 0, sizeof action);
  action.sa_handler = handle_signal;
  action.sa_flags = SA_RESTART;
  if (sigaction(number, NULL, &before) != 0 || before.sa_handler != SIG_DFL) {
    return -1;
  }
  return sigaction(number, &action, NULL);
}

/* The child has no thread that writes, and its file is the parent's. */
static void after_fork(void) {
  __atomic_store_n(&state, OFF, __ATOMIC_SEQ_CST);
}

static int start_recorder(void) {
  struct recorder_options options;
  const char* const wrong = read_options(&options);
  if (wrong != NULL) {
    say("nothing is recorded, see docs/recordings.md for", wrong, 0);
    return OFF;
  }
  const size_t ring_size = (size_t)options.ring_mb << 20;
  void* const memory = mmap(NULL, sizeof(struct recorder) + ring_size, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
  if (memory == MAP_FAILED) {
    say("nothing is recorded: no memory for", "OLVEX_RECORDER_RING_MB", errno);
    return OFF;
  }
  the_recorder = (struct recorder*)memory;
  the_recorder->options = options;
  the_recorder->monotonic = monotonic_now();
  the_recorder->realtime = read_clock(CLOCK_REALTIME);
  ring_start(&the_recorder->ring, (unsigned char*)memory + sizeof(struct recorder),
             (uint32_t)ring_size, evicted);
  carried_start(&the_recorder->carried);
  crc32_start();
  keep_environment();
  int code = pthread_atfork(NULL, NULL, after_fork);
  code = code != 0 ? code : writer_start();
  if (code != 0) {
    say("nothing is recorded: no thread", "", code);
    munmap(memory, sizeof(struct recorder) + ring_size);
    return OFF;
  }
  if (watch_signal(options.signal) != 0) {
    say("no trigger: the application uses the signal of", "OLVEX_RECORDER_SIGNAL", 0);
  }
  return ON;
}

static void start_once(void) {
  const int result = start_recorder();
  __atomic_store_n(&state, result, __ATOMIC_SEQ_CST);
}

int recorder_is_on(void) {
  const int now = __atomic_load_n(&state, __ATOMIC_ACQUIRE);
  if (now == NOT_STARTED) {
    const int kept = errno;
    pthread_once(&once, start_once);
    errno = kept;
    return __atomic_load_n(&state, __ATOMIC_ACQUIRE) == ON;
  }
  return now == ON;
}

/* Where the process ends in the usual way. */
__attribute__((destructor)) static void stop_recorder(void) {
  if (__atomic_load_n(&state, __ATOMIC_SEQ_CST) == ON) {
    __atomic_store_n(&state, OFF, __ATOMIC_SEQ_CST);
    writer_stop();
  }
}

void raise_trigger(enum trigger_reason reason) {
  __atomic_store_n(&the_recorder->is_triggered, 1, __ATOMIC_SEQ_CST);
  __atomic_store_n(&pending, (uint32_t)reason, __ATOMIC_SEQ_CST);
}

enum trigger_reason take_trigger(void) {
  return (enum trigger_reason)__atomic_exchange_n(&pending, TRIGGER_NONE, __ATOMIC_SEQ_CST);
}

int olvex_recorder_trigger(const char* reason) {
  if (!recorder_is_on()) {
    return -1;
  }
  pthread_mutex_lock(&recorder_lock);
  if (__atomic_load_n(&the_recorder->has_reason, __ATOMIC_ACQUIRE) == 0) {
    snprintf(the_recorder->reason, sizeof the_recorder->reason, "application: %s",
             reason != NULL ? reason : "");
    __atomic_store_n(&the_recorder->is_triggered, 1, __ATOMIC_SEQ_CST);
    __atomic_store_n(&the_recorder->has_reason, 1, __ATOMIC_RELEASE);
  }
  pthread_mutex_unlock(&recorder_lock);
  return 0;
}

struct thread_state* this_thread(void) {
  struct thread_state* const thread = &thread_local_state;
  if (thread->number == 0) {
    thread->number = __atomic_add_fetch(&threads_seen, 1, __ATOMIC_RELAXED);
  }
  return thread;
}

uint32_t next_call_number(void) {
  return __atomic_add_fetch(&calls_begun, 1, __ATOMIC_RELAXED);
}

#ifndef OLVEX_RECORDER_WRAP
void* function_behind(const char* name) {
  void* const function = dlsym(RTLD_NEXT, name);
  if (function == NULL) {
    say("no library behind the recorder has", name, 0);
    _exit(LOADER_FAILURE);
  }
  return function;
}
#endif
