// SPDX-License-Identifier: Apache-2.0
/* ring.h - what happened last, in memory of fixed size: entries one after the other, the oldest of which
 * give way to new ones. Producers take turns under a lock of their own; one reader follows without any lock
 * that a producer could have to wait for.
 *
 * Positions count bytes for ever, modulo 2^32; the size is a power of two. An entry is a header and its bytes,
 * and may go over the end of the memory. */
#ifndef RECORDER_RING_H
#define RECORDER_RING_H

#include <stdint.h>
#include <sys/uio.h>

enum ring_kind { RING_FRAME = 1, RING_CALL = 2, RING_PICTURE = 3 };

struct ring_entry {
  uint32_t size; /* bytes after this header */
  uint32_t kind;
  uint64_t time; /* when it ended; monotonic, ns */
};

struct ring;
/* Called for an entry that gives way, before its bytes are gone. */
typedef void (*ring_evicted)(const struct ring* ring, uint32_t position,
                             const struct ring_entry* entry);

struct ring {
  unsigned char* memory;
  uint32_t size;
  ring_evicted evicted;
  uint32_t head;     /* end of the last whole entry */
  uint32_t tail;     /* the oldest entry */
  uint32_t evicting; /* nothing below this can be pinned */
  uint32_t pin;      /* while pinned: nothing from here on gives way */
  uint32_t pinned;
  uint32_t end; /* of the entry that is being made */
  int failed;   /* it did not fit */
};

void ring_start(struct ring* ring, void* memory, uint32_t size, ring_evicted evicted);

/* ---- Producers, one at a time ---- */

void ring_begin(struct ring* ring, enum ring_kind kind, uint64_t time);
void ring_put(struct ring* ring, const void* bytes, uint32_t size);
/* Replaces bytes of the entry that is being made; offset counts from its first byte. */
void ring_patch(struct ring* ring, uint32_t offset, const void* bytes, uint32_t size);
/* Bytes put so far. */
uint32_t ring_offset(const struct ring* ring);
/* Makes the entry visible. Returns 0, or -1 when it did not fit: then there is none. */
int ring_commit(struct ring* ring);

/* ---- The reader ---- */

/* Keeps everything that is there now from giving way. Returns 0, or -1 when a producer is just removing
 * something: then what was pinned before still is, and a moment later it can be tried again. */
int ring_pin(struct ring* ring, uint32_t* oldest);
/* Lets go of everything before position. Requires: pinned. */
void ring_pin_forward(struct ring* ring, uint32_t position);
void ring_unpin(struct ring* ring);
/* Whether position, which may be from long ago, is that of an entry from oldest on, or the end of the last one.
 * Requires: pinned at oldest. */
int ring_holds(const struct ring* ring, uint32_t oldest, uint32_t position);
/* The entry at position, and the position after it. Returns 0 at the end. Requires: pinned at or before
 * position. */
int ring_next(const struct ring* ring, uint32_t* position, struct ring_entry* entry,
              uint32_t* first_byte);

/* The bytes from first_byte on, in one or two pieces. Returns how many. */
int ring_pieces(const struct ring* ring, uint32_t first_byte, uint32_t size,
                struct iovec pieces[2]);
void ring_copy(const struct ring* ring, uint32_t first_byte, uint32_t size, void* to);

#endif /* RECORDER_RING_H */
