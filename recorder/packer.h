// SPDX-License-Identifier: Apache-2.0
/* packer.h - little-endian, packed values into a buffer: the data of messages and of container records. A
 * packer on a ring hands full buffers on to the entry that is being made. */
#ifndef RECORDER_PACKER_H
#define RECORDER_PACKER_H

#include <stddef.h>
#include <stdint.h>

#include "recorder/ring.h"

struct packer {
  unsigned char* buffer;
  uint32_t capacity;
  uint32_t used;
  struct ring* ring; /* NULL: the buffer is all there is */
  int overflowed;    /* something did not fit, and is missing */
};

void packer_start(struct packer* packer, void* buffer, uint32_t capacity, struct ring* ring);
void pack_bytes(struct packer* packer, const void* bytes, uint32_t size);
void pack8(struct packer* packer, uint32_t value);
void pack16(struct packer* packer, uint32_t value);
void pack32(struct packer* packer, uint32_t value);
void pack64(struct packer* packer, uint64_t value);
void pack_real(struct packer* packer, float value);
void pack_double(struct packer* packer, double value);
void pack_string(struct packer* packer, const char* text);
/* A string of at most limit bytes, which may have no terminator. */
void pack_name(struct packer* packer, const char* text, uint32_t limit);

/* Bytes packed so far, of the entry or the buffer. */
uint32_t packer_offset(const struct packer* packer);
/* Replaces 4 bytes at an offset. */
void packer_patch32(struct packer* packer, uint32_t offset, uint32_t value);
/* Hands the rest on to the ring. */
void packer_flush(struct packer* packer);

uint32_t bits_of(float value);

/* A record of the container: its number, then its length, which record_end fills in. Returns what
 * record_end needs. */
uint32_t record_begin(struct packer* packer, unsigned number);
void record_end(struct packer* packer, uint32_t begun);

/* A message on a channel; record_end ends it. time is monotonic, and offset from it to the real clock. */
uint32_t message_begin(struct packer* packer, unsigned channel, uint32_t sequence, uint64_t time,
                       uint64_t offset);

#endif /* RECORDER_PACKER_H */
