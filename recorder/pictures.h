// SPDX-License-Identifier: Apache-2.0
/* pictures.h - the picture of a frame, as an entry of its own in the ring: one that does not fit leaves the frame
 * there. For frames.c; with the lock held. */
#ifndef RECORDER_PICTURES_H
#define RECORDER_PICTURES_H

#include "recorder/recorder.h"

/* Stores the part of the frame's picture that is asked for. Requires: an address, and a result.
 * Returns 0, also where there is nothing to store, or -1 when it did not fit. */
int store_picture(const struct frame* frame, const struct channel_slot* channel, uint32_t number,
                  uint64_t end);

#endif /* RECORDER_PICTURES_H */
