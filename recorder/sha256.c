// SPDX-License-Identifier: Apache-2.0
/* sha256.c - SHA-256 as the standard writes it down. The constants are the first bits of the fractions of
 * square and cube roots of primes. */
#include "recorder/checksums.h"

#include <string.h>

static const uint32_t kRound[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};
static const uint32_t kStart[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                   0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};

static uint32_t turn(uint32_t value, int bits) {
  return (value >> bits) | (value << (32 - bits));
}

static void add_block(struct sha256* hash) {
  uint32_t w[64];
  uint32_t v[8];
  for (int k = 0; k < 16; ++k) {
    const unsigned char* const at = hash->block + 4 * k;
    w[k] = (uint32_t)at[0] << 24 | (uint32_t)at[1] << 16 | (uint32_t)at[2] << 8 | at[3];
  }
  for (int k = 16; k < 64; ++k) {
    const uint32_t a = w[k - 15];
    const uint32_t b = w[k - 2];
    w[k] = w[k - 16] + (turn(a, 7) ^ turn(a, 18) ^ (a >> 3)) + w[k - 7] +
           (turn(b, 17) ^ turn(b, 19) ^ (b >> 10));
  }
  memcpy(v, hash->state, sizeof v);
  for (int k = 0; k < 64; ++k) {
    const uint32_t t1 = v[7] + (turn(v[4], 6) ^ turn(v[4], 11) ^ turn(v[4], 25)) +
                        ((v[4] & v[5]) ^ (~v[4] & v[6])) + kRound[k] + w[k];
    const uint32_t t2 = (turn(v[0], 2) ^ turn(v[0], 13) ^ turn(v[0], 22)) +
                        ((v[0] & v[1]) ^ (v[0] & v[2]) ^ (v[1] & v[2]));
    memmove(v + 1, v, 7 * sizeof v[0]);
    v[4] += t1;
    v[0] = t1 + t2;
  }
  for (int k = 0; k < 8; ++k) {
    hash->state[k] += v[k];
  }
}

void sha256_start(struct sha256* hash) {
  memcpy(hash->state, kStart, sizeof hash->state);
  hash->bytes = 0;
}

void sha256_add(struct sha256* hash, const void* bytes, size_t size) {
  const unsigned char* at = (const unsigned char*)bytes;
  while (size != 0) {
    const size_t used = (size_t)(hash->bytes % sizeof hash->block);
    const size_t space = sizeof hash->block - used;
    const size_t part = size < space ? size : space;
    memcpy(hash->block + used, at, part);
    hash->bytes += part;
    at += part;
    size -= part;
    if (part == space) {
      add_block(hash);
    }
  }
}

void sha256_end(struct sha256* hash, unsigned char result[SHA256_SIZE]) {
  const uint64_t bits = hash->bytes * 8;
  unsigned char length[8];
  for (int k = 0; k < 8; ++k) {
    length[k] = (unsigned char)(bits >> (56 - 8 * k));
  }
  sha256_add(hash, "\x80", 1);
  while (hash->bytes % sizeof hash->block != 56) {
    sha256_add(hash, "", 1);
  }
  sha256_add(hash, length, sizeof length);
  for (size_t k = 0; k < SHA256_SIZE; ++k) {
    result[k] = (unsigned char)(hash->state[k / 4] >> (24 - 8 * (k % 4)));
  }
}
