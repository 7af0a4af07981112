// SPDX-License-Identifier: Apache-2.0
/* frame_memory.c - memory for frames from the system, which ends where the frame ends: reading on is a crash. On a
 * camera whose accelerator reads physical addresses, this is the file to replace, by calls of the chip's own. */
#define _DEFAULT_SOURCE
#include <sys/mman.h>
#include <unistd.h>

#include "frame.h"

#define FRAME_ALIGNMENT 16

void* frame_memory(size_t size, QV_PHY* physical) {
  const size_t page = (size_t)sysconf(_SC_PAGESIZE);
  const size_t whole = (size + page - 1) / page * page;
  char* const memory =
      mmap(NULL, whole + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED || mprotect(memory + whole, page, PROT_NONE) != 0) {
    return NULL;
  }
  *physical = 0;
  return memory + (whole - size) / FRAME_ALIGNMENT * FRAME_ALIGNMENT;
}
