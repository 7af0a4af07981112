// SPDX-License-Identifier: Apache-2.0
/* sha256.h - SHA-256 (FIPS 180-4), by which a recording names the model. */
#ifndef RECORDER_SHA256_H
#define RECORDER_SHA256_H

#include <stddef.h>
#include <stdint.h>

#define SHA256_SIZE 32u

struct sha256 {
  uint32_t state[8];
  uint64_t bytes;
  unsigned char block[64];
};

void sha256_start(struct sha256* hash);
void sha256_add(struct sha256* hash, const void* bytes, size_t size);
void sha256_end(struct sha256* hash, unsigned char result[SHA256_SIZE]);

#endif /* RECORDER_SHA256_H */
