// SPDX-License-Identifier: Apache-2.0
/* crc32.h - the CRC-32 of MCAP chunks, that of zlib and PNG. */
#ifndef RECORDER_CRC32_H
#define RECORDER_CRC32_H

#include <stddef.h>
#include <stdint.h>

/* Makes the table. Requires: called once before any other use. */
void crc32_start(void);

/* Continues from the CRC of the bytes before, 0 for none. */
uint32_t crc32_of(uint32_t crc, const void* bytes, size_t size);

#endif /* RECORDER_CRC32_H */
