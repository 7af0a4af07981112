// SPDX-License-Identifier: Apache-2.0
/* recording_file.h - one recording as it is written: chunk after chunk, each whole before the next, and a
 * summary at the end where the file can be read back. */
#ifndef RECORDER_RECORDING_FILE_H
#define RECORDER_RECORDING_FILE_H

#include <stdint.h>
#include <sys/stat.h>
#include <sys/uio.h>

#include "recorder/recording_format.h"

#define MOST_PIECES 3u /* of a chunk */

struct recording_file {
  int descriptor; /* -1: none is open */
  int is_ours;    /* to close */
  int can_seek;
  dev_t device; /* what the descriptor stood for when it was opened */
  ino_t inode;
  unsigned char* scratch; /* for records of the container */
  uint32_t scratch_size;
  uint64_t size;        /* bytes of whole records */
  uint64_t first_chunk; /* where it begins */
  uint32_t chunks;
  uint64_t messages[RECORDING_CHANNELS];
  uint64_t first; /* log times */
  uint64_t last;
  int (*may_go_on)(void); /* asked while a FIFO is full; 0 ends the attempt */
};

/* Begins a recording on a descriptor. Like all below returns 0, or an errno; then the file is cut behind its last
 * whole record, and nothing more can be written. */
int file_begin(struct recording_file* file, int descriptor, int is_ours, unsigned char* scratch,
               uint32_t scratch_size, int (*may_go_on)(void));

/* Writes whole messages as a chunk with its index. The first or the second piece may end within a message. */
int file_add_chunk(struct recording_file* file, const struct iovec* pieces, int count);

/* Writes the end, and closes what is ours. */
int file_end(struct recording_file* file);

/* Closes without writing. */
void file_close(struct recording_file* file);

#endif /* RECORDER_RECORDING_FILE_H */
