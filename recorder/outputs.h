// SPDX-License-Identifier: Apache-2.0
/* outputs.h - the outputs of a frame, whole or in cells. For frames.c; with the lock held. */
#ifndef RECORDER_OUTPUTS_H
#define RECORDER_OUTPUTS_H

#include "recorder/recorder.h"

/* The score from which cells are kept: below it the live run has no threshold either. 0: whole outputs. */
float floor_of(const struct handle_slot* handle, const struct channel_slot* channel,
               uint32_t number);

/* Packs what the network left; no output without a channel. Returns whether there is surely nothing in it. */
int pack_outputs(struct packer* packer, const struct channel_slot* channel,
                 const void* const* addresses, float floor);

#endif /* RECORDER_OUTPUTS_H */
