// SPDX-License-Identifier: Apache-2.0
/* attachment.c - finds the functions behind the interposed ones, where the loader binds them. */
#include "recorder/attachment.h"

#ifndef OLVEX_RECORDER_WRAP

#include <dlfcn.h>
#include <stddef.h>
#include <unistd.h>

#include "recorder/recorder.h"

#define LOADER_FAILURE 127

void* function_behind(const char* name) {
  void* const function = dlsym(RTLD_NEXT, name);
  if (function == NULL) {
    say("no library behind the recorder has", name, 0);
    _exit(LOADER_FAILURE);
  }
  return function;
}

#endif
