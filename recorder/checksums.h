// SPDX-License-Identifier: Apache-2.0
/* checksums.h - the CRC-32 of MCAP chunks, that of zlib and PNG, and SHA-256 (FIPS 180-4), by which a recording names
 * the model. crc32.c and sha256.c have them: the first is compiled for speed, the second to be small. */
#ifndef RECORDER_CHECKSUMS_H
#define RECORDER_CHECKSUMS_H

#include <stddef.h>
#include <stdint.h>

/* Makes the table. Requires: called once before any other use. */
void crc32_start(void);

/* Continues from the CRC of the bytes before, 0 for none. */
uint32_t crc32_of(uint32_t crc, const void* bytes, size_t size);

#define SHA256_SIZE 32u

struct sha256 {
  uint32_t state[8];
  uint64_t bytes;
  unsigned char block[64];
};

void sha256_start(struct sha256* hash);
void sha256_add(struct sha256* hash, const void* bytes, size_t size);
void sha256_end(struct sha256* hash, unsigned char result[SHA256_SIZE]);

#endif /* RECORDER_CHECKSUMS_H */
