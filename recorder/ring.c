// SPDX-License-Identifier: Apache-2.0
/* ring.c - producers announce what they are about to remove before they look at the pin, and the reader
 * sets the pin before it looks at what is announced: one of the two always sees the other, and steps back. */
#include "recorder/ring.h"

#include <string.h>

#define ENTRY_ALIGNMENT 16u

static uint32_t load(const uint32_t* value) {
  return __atomic_load_n(value, __ATOMIC_SEQ_CST);
}
static void store(uint32_t* value, uint32_t to) {
  __atomic_store_n(value, to, __ATOMIC_SEQ_CST);
}

/* Whether a comes before b; both are less than 2^31 apart. */
static int is_before(uint32_t a, uint32_t b) {
  return (int32_t)(a - b) < 0;
}

static uint32_t after(uint32_t position, uint32_t size) {
  const uint32_t end = position + (uint32_t)sizeof(struct ring_entry) + size;
  return (end + ENTRY_ALIGNMENT - 1) & ~(ENTRY_ALIGNMENT - 1);
}

/* A header never goes over the end: entries begin at multiples of its size. */
static struct ring_entry* header_at(const struct ring* ring, uint32_t position) {
  return (struct ring_entry*)(void*)(ring->memory + (position & (ring->size - 1)));
}

void ring_start(struct ring* ring, void* memory, uint32_t size, ring_evicted evicted) {
  memset(ring, 0, sizeof *ring);
  ring->memory = (unsigned char*)memory;
  ring->size = size;
  ring->evicted = evicted;
}

static int evict(struct ring* ring) {
  const uint32_t tail = ring->tail;
  const struct ring_entry entry = *header_at(ring, tail);
  const uint32_t next = after(tail, entry.size);
  store(&ring->evicting, next);
  if (load(&ring->pinned) != 0 && is_before(load(&ring->pin), next)) {
    store(&ring->evicting, tail);
    return -1;
  }
  ring->evicted(ring, tail, &entry);
  store(&ring->tail, next);
  return 0;
}

static int make_space(struct ring* ring, uint32_t end) {
  while (end - ring->tail > ring->size) {
    if (ring->tail == ring->head || evict(ring) != 0) {
      ring->failed = 1;
      return -1;
    }
  }
  return 0;
}

static void copy_in(struct ring* ring, uint32_t position, const void* bytes, uint32_t size) {
  struct iovec pieces[2];
  const int count = ring_pieces(ring, position, size, pieces);
  memcpy(pieces[0].iov_base, bytes, pieces[0].iov_len);
  if (count == 2) {
    memcpy(pieces[1].iov_base, (const unsigned char*)bytes + pieces[0].iov_len, pieces[1].iov_len);
  }
}

void ring_begin(struct ring* ring, enum ring_kind kind, uint64_t time) {
  ring->failed = 0;
  ring->end = ring->head + (uint32_t)sizeof(struct ring_entry);
  if (make_space(ring, ring->end) == 0) {
    struct ring_entry* const entry = header_at(ring, ring->head);
    entry->size = 0;
    entry->kind = kind;
    entry->time = time;
  }
}

void ring_put(struct ring* ring, const void* bytes, uint32_t size) {
  if (ring->failed || size > ring->size / 2 || ring_offset(ring) > ring->size / 2 ||
      make_space(ring, ring->end + size + ENTRY_ALIGNMENT) != 0) {
    ring->failed = 1;
    return;
  }
  copy_in(ring, ring->end, bytes, size);
  ring->end += size;
}

void ring_patch(struct ring* ring, uint32_t offset, const void* bytes, uint32_t size) {
  if (!ring->failed) {
    copy_in(ring, ring->head + (uint32_t)sizeof(struct ring_entry) + offset, bytes, size);
  }
}

uint32_t ring_offset(const struct ring* ring) {
  return ring->end - ring->head - (uint32_t)sizeof(struct ring_entry);
}

int ring_commit(struct ring* ring) {
  if (ring->failed) {
    return -1;
  }
  const uint32_t size = ring_offset(ring);
  header_at(ring, ring->head)->size = size;
  store(&ring->head, after(ring->head, size));
  return 0;
}

int ring_pin(struct ring* ring, uint32_t* oldest) {
  const uint32_t tail = load(&ring->tail);
  const uint32_t pin_before = load(&ring->pin);
  const uint32_t was_pinned = load(&ring->pinned);
  store(&ring->pin, tail);
  store(&ring->pinned, 1);
  if (is_before(tail, load(&ring->evicting))) {
    store(&ring->pin, pin_before);
    store(&ring->pinned, was_pinned);
    return -1;
  }
  *oldest = tail;
  return 0;
}

void ring_pin_forward(struct ring* ring, uint32_t position) {
  store(&ring->pin, position);
}

void ring_unpin(struct ring* ring) {
  store(&ring->pinned, 0);
}

int ring_holds(const struct ring* ring, uint32_t oldest, uint32_t position) {
  return position - oldest <= load(&ring->head) - oldest;
}

int ring_next(const struct ring* ring, uint32_t* position, struct ring_entry* entry,
              uint32_t* first_byte) {
  if (*position == load(&ring->head)) {
    return 0;
  }
  *entry = *header_at(ring, *position);
  *first_byte = *position + (uint32_t)sizeof(struct ring_entry);
  *position = after(*position, entry->size);
  return 1;
}

int ring_pieces(const struct ring* ring, uint32_t first_byte, uint32_t size,
                struct iovec pieces[2]) {
  const uint32_t at = first_byte & (ring->size - 1);
  const uint32_t to_end = ring->size - at;
  pieces[0].iov_base = ring->memory + at;
  pieces[0].iov_len = size < to_end ? size : to_end;
  pieces[1].iov_base = ring->memory;
  pieces[1].iov_len = size - pieces[0].iov_len;
  return pieces[1].iov_len != 0 ? 2 : 1;
}

void ring_copy(const struct ring* ring, uint32_t first_byte, uint32_t size, void* to) {
  struct iovec pieces[2];
  const int count = ring_pieces(ring, first_byte, size, pieces);
  memcpy(to, pieces[0].iov_base, pieces[0].iov_len);
  if (count == 2) {
    memcpy((unsigned char*)to + pieces[0].iov_len, pieces[1].iov_base, pieces[1].iov_len);
  }
}
