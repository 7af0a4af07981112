// SPDX-License-Identifier: Apache-2.0
/* crc32.c - one byte at a time over a table of 1 KB, which is made and not stored. */
#include "recorder/checksums.h"

static uint32_t table[256];

void crc32_start(void) {
  for (uint32_t byte = 0; byte < 256; ++byte) {
    uint32_t value = byte;
    for (int bit = 0; bit < 8; ++bit) {
      value = (value >> 1) ^ ((value & 1) != 0 ? 0xedb88320u : 0);
    }
    table[byte] = value;
  }
}

uint32_t crc32_of(uint32_t crc, const void* bytes, size_t size) {
  const unsigned char* at = (const unsigned char*)bytes;
  uint32_t value = ~crc;
  for (const unsigned char* const end = at + size; at != end; ++at) {
    value = (value >> 8) ^ table[(value ^ *at) & 0xff];
  }
  return ~value;
}
