// SPDX-License-Identifier: Apache-2.0
/* packer.c - values as they lie in memory, which is the order of the format on the processors there are. */
#include "recorder/packer.h"

#include <string.h>

#include "recorder/recording_format.h"

#if __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "recordings are little-endian, tensors included"
#endif

void packer_start(struct packer* packer, void* buffer, uint32_t capacity, struct ring* ring) {
  packer->buffer = (unsigned char*)buffer;
  packer->capacity = capacity;
  packer->used = 0;
  packer->ring = ring;
  packer->overflowed = 0;
}

void packer_flush(struct packer* packer) {
  ring_put(packer->ring, packer->buffer, packer->used);
  packer->used = 0;
}

/* Where size bytes may be put, NULL when they do not fit. */
static unsigned char* space_for(struct packer* packer, uint32_t size) {
  if (size > packer->capacity - packer->used) {
    if (packer->ring == NULL) {
      packer->overflowed = 1;
      return NULL;
    }
    packer_flush(packer);
  }
  packer->used += size;
  return packer->buffer + packer->used - size;
}

void pack_bytes(struct packer* packer, const void* bytes, uint32_t size) {
  if (packer->ring != NULL && size > packer->capacity) {
    packer_flush(packer);
    ring_put(packer->ring, bytes, size);
    return;
  }
  unsigned char* const to = space_for(packer, size);
  if (to != NULL && size != 0) {
    memcpy(to, bytes, size);
  }
}

/* Of a size that the compiler knows: one store. */
#define PACK_VALUE(packer, value)                                 \
  do {                                                            \
    unsigned char* const to = space_for((packer), sizeof(value)); \
    if (to != NULL) {                                             \
      memcpy(to, &(value), sizeof(value));                        \
    }                                                             \
  } while (0)

void pack8(struct packer* packer, uint32_t value) {
  const uint8_t byte = (uint8_t)value;
  PACK_VALUE(packer, byte);
}

void pack16(struct packer* packer, uint32_t value) {
  const uint16_t half = (uint16_t)value;
  PACK_VALUE(packer, half);
}

void pack32(struct packer* packer, uint32_t value) {
  PACK_VALUE(packer, value);
}

void pack64(struct packer* packer, uint64_t value) {
  PACK_VALUE(packer, value);
}

uint32_t bits_of(float value) {
  uint32_t bits;
  memcpy(&bits, &value, sizeof bits);
  return bits;
}

void pack_real(struct packer* packer, float value) {
  pack32(packer, bits_of(value));
}

void pack_double(struct packer* packer, double value) {
  uint64_t bits;
  memcpy(&bits, &value, sizeof bits);
  pack64(packer, bits);
}

void pack_name(struct packer* packer, const char* text, uint32_t limit) {
  const char* const end = (const char*)memchr(text, 0, limit);
  const uint32_t size = end != NULL ? (uint32_t)(end - text) : limit;
  pack32(packer, size);
  pack_bytes(packer, text, size);
}

void pack_string(struct packer* packer, const char* text) {
  const uint32_t size = (uint32_t)strlen(text);
  pack32(packer, size);
  pack_bytes(packer, text, size);
}

uint32_t packer_offset(const struct packer* packer) {
  return packer->used + (packer->ring != NULL ? ring_offset(packer->ring) : 0);
}

void packer_patch32(struct packer* packer, uint32_t offset, uint32_t value) {
  const uint32_t before = packer_offset(packer) - packer->used;
  if (offset >= before && offset - before + sizeof value <= packer->used) {
    memcpy(packer->buffer + (offset - before), &value, sizeof value);
  } else if (packer->ring != NULL) {
    packer_flush(packer);
    ring_patch(packer->ring, offset, &value, sizeof value);
  }
}

uint32_t record_begin(struct packer* packer, unsigned number) {
  pack8(packer, number);
  const uint32_t begun = packer_offset(packer);
  pack64(packer, 0);
  return begun;
}

void record_end(struct packer* packer, uint32_t begun) {
  packer_patch32(packer, begun, packer_offset(packer) - begun - 8);
}

uint32_t message_begin(struct packer* packer, unsigned channel, uint32_t sequence, uint64_t time,
                       uint64_t offset) {
  const uint32_t begun = record_begin(packer, RECORDING_MESSAGE);
  pack16(packer, channel);
  pack32(packer, sequence);
  pack64(packer, time + offset);
  pack64(packer, time);
  return begun;
}
