// SPDX-License-Identifier: Apache-2.0
/* carried.h - the calls in force: those that made the handles, channels and settings of now. A call gets here
 * when it leaves the ring, so that this is always the state before the ring's oldest entry. */
#ifndef RECORDER_CARRIED_H
#define RECORDER_CARRIED_H

#include <stdint.h>

#include "recorder/packer.h"
#include "recorder/ring.h"

#define CARRIED_BYTES (128u * 1024u)

struct carried {
  unsigned char bytes[CARRIED_BYTES];
  uint32_t used;
  int is_complete; /* 0: a call in force did not fit */
};

void carried_start(struct carried* carried);

/* Takes in the entry of a call: adds it, or takes out what it ends. */
void carried_take(struct carried* carried, const struct ring* ring, uint32_t first_byte,
                  uint32_t size);

/* Packs the messages of all calls in force. */
void carried_pack(const struct carried* carried, struct packer* packer);

/* Packs the messages of a call's entry, flagged as carried over. */
void carried_pack_entry(const struct ring* ring, uint32_t first_byte, uint32_t size,
                        struct packer* packer);

#endif /* RECORDER_CARRIED_H */
