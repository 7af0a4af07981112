// SPDX-License-Identifier: Apache-2.0
/* attachment.h - how an interposed function is named, and how it reaches the one behind it.
 *
 * Preloaded or linked in front, it has the name itself, and the next library that has it is asked for. In a
 * wholly static application the linker renames (--wrap): calls of NAME come to __wrap_NAME, and __real_NAME is
 * the function. One source serves both. */
#ifndef RECORDER_ATTACHMENT_H
#define RECORDER_ATTACHMENT_H

#define EXPORTED __attribute__((visibility("default")))

#ifdef OLVEX_RECORDER_WRAP

#define DECLARE_WRAPPED(name)            \
  extern __typeof__(name) __real_##name; \
  extern __typeof__(name) __wrap_##name
#define REAL(name) __real_##name
#define INTERPOSED(name) EXPORTED __wrap_##name

#else

/* The function of that name in the libraries behind this one. Ends the process when there is none, as the
 * loader would have done. */
void* function_behind(const char* name);

/* Two threads that are the first to ask find the same. */
#define DECLARE_WRAPPED(name)                                   \
  static __typeof__(name)* behind_##name(void) {                \
    static void* found;                                         \
    void* function = __atomic_load_n(&found, __ATOMIC_ACQUIRE); \
    if (function == NULL) {                                     \
      function = function_behind(#name);                        \
      __atomic_store_n(&found, function, __ATOMIC_RELEASE);     \
    }                                                           \
    return (__typeof__(name)*)function;                         \
  }                                                             \
  extern __typeof__(name) name
#define REAL(name) behind_##name()
#define INTERPOSED(name) EXPORTED name

#endif

#endif /* RECORDER_ATTACHMENT_H */
