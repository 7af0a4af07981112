// SPDX-License-Identifier: Apache-2.0
/* tables.h - what the recorder knows of handles and channels. All with the lock held. */
#ifndef RECORDER_TABLES_H
#define RECORDER_TABLES_H

#include "recorder/recorder.h"

/* NULL for a handle that is not known; for NULL a free slot, if there is one. */
struct handle_slot* find_handle(const void* address);
struct channel_slot* find_channel(uint32_t id);

/* What a call that has ended changes: before its entry in the ring is made, and after. */
void note_before(const struct call* call);
void note_after(const struct call* call);

#endif /* RECORDER_TABLES_H */
