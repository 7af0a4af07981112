// SPDX-License-Identifier: Apache-2.0
/* destination.c - where a recording goes: the next file of those that are written in turn, a FIFO or a descriptor. */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "recorder/recorder.h"

#define NAME_SIZE 256u

static void file_name(char name[NAME_SIZE], uint32_t slot) {
  snprintf(name, NAME_SIZE, "%s.%u.mcap", the_recorder->options.file, (unsigned)slot + 1);
}

/* The slot after the newest file of an earlier process. */
static uint32_t first_slot(void) {
  const uint32_t files = the_recorder->options.files;
  uint32_t slot = 0;
  struct timespec newest = {0, 0};
  for (uint32_t k = 0; k < files; ++k) {
    char name[NAME_SIZE];
    struct stat status;
    file_name(name, k);
    if (lstat(name, &status) == 0 &&
        (status.st_mtim.tv_sec > newest.tv_sec ||
         (status.st_mtim.tv_sec == newest.tv_sec && status.st_mtim.tv_nsec >= newest.tv_nsec))) {
      newest = status.st_mtim;
      slot = (k + 1) % files;
    }
  }
  return slot;
}

/* A new file, never one that is there, nor through a link. */
static int open_next_file(uint32_t parts) {
  static uint32_t slot;
  char name[NAME_SIZE];
  if (parts == 0) {
    slot = first_slot();
  }
  file_name(name, slot);
  unlink(name);
  const int descriptor =
      open(name, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR);
  if (descriptor >= 0) {
    slot = (slot + 1) % the_recorder->options.files;
  }
  return descriptor;
}

static int open_fifo(void) {
  struct stat status;
  const int fifo = open(the_recorder->options.file, O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
  if (fifo >= 0 && (fstat(fifo, &status) != 0 || !S_ISFIFO(status.st_mode))) {
    close(fifo);
    errno = ELOOP;
    return -1;
  }
  return fifo;
}

int open_destination(uint32_t parts, int* is_ours) {
  const struct recorder_options* const options = &the_recorder->options;
  struct stat status;
  *is_ours = options->descriptor < 0;
  if (options->descriptor >= 0) {
    /* It takes one recording: what reads it would not look for a second one. */
    errno = ENXIO;
    return parts == 0 ? options->descriptor : -1;
  }
  return lstat(options->file, &status) == 0 && S_ISFIFO(status.st_mode) ? open_fifo()
                                                                        : open_next_file(parts);
}
