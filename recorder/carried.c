// SPDX-License-Identifier: Apache-2.0
/* carried.c - a list of entries as they were in the ring, each after a header of what decides how long it
 * stays. An entry begins with the message of the call; those of its network or model come behind. */
#include "recorder/recorder.h"

#include <string.h>

#define DATA_AT (RECORDING_RECORD_HEADER + RECORDING_MESSAGE_HEADER)
#define MOST_SETTINGS 64u /* of one handle */

struct carried_call {
  uint32_t size; /* bytes of messages that follow, and after them up to a multiple of 8 */
  uint32_t function;
  uint32_t call;
  uint32_t outer;
  uint32_t handle;
  uint32_t channel;
  int32_t result;
  uint32_t words[7]; /* their number, and the first six: all that a setting has */
};

void carried_start(struct carried* carried) {
  carried->used = 0;
  carried->is_complete = 1;
}

static uint32_t read32(const unsigned char* at) {
  return at[0] | (uint32_t)at[1] << 8 | (uint32_t)at[2] << 16 | (uint32_t)at[3] << 24;
}

/* The fixed fields of olvex_det/Call. */
static struct carried_call describe(const struct ring* ring, uint32_t first_byte, uint32_t size) {
  unsigned char head[DATA_AT + 72];
  struct carried_call call;
  memset(head, 0, sizeof head);
  ring_copy(ring, first_byte, size < sizeof head ? size : (uint32_t)sizeof head, head);
  const unsigned char* const data = head + DATA_AT;
  call.size = size;
  call.function = data[0];
  call.call = read32(data + 4);
  call.outer = read32(data + 8);
  call.handle = read32(data + 12);
  call.channel = read32(data + 16);
  call.result = (int32_t)read32(data + 24);
  for (uint32_t k = 0; k < 7; ++k) {
    call.words[k] = read32(data + 44 + 4 * k);
  }
  return call;
}

static uint32_t step(const struct carried_call* call) {
  return (uint32_t)sizeof *call + ((call->size + 7) & ~7u);
}

static struct carried_call* at(struct carried* carried, uint32_t position) {
  return (struct carried_call*)(void*)(carried->bytes + position);
}

static void take_out(struct carried* carried, uint32_t position) {
  const uint32_t length = step(at(carried, position));
  memmove(carried->bytes + position, carried->bytes + position + length,
          carried->used - position - length);
  carried->used -= length;
}

static void add(struct carried* carried, const struct carried_call* call, const struct ring* ring,
                uint32_t first_byte) {
  if (step(call) > CARRIED_BYTES - carried->used) {
    carried->is_complete = 0;
    return;
  }
  unsigned char* const to = carried->bytes + carried->used;
  memcpy(to, call, sizeof *call);
  ring_copy(ring, first_byte, call->size, to + sizeof *call);
  to[sizeof *call + DATA_AT + 1] |= RECORDING_CALL_CARRIED;
  carried->used += step(call);
}

/* Whether an earlier call stays when a later one has come. */
typedef int (*stays)(const struct carried_call* earlier, const struct carried_call* later);

static void keep_only(struct carried* carried, stays keeps, const struct carried_call* later) {
  for (uint32_t position = 0; position < carried->used;) {
    const struct carried_call* const call = at(carried, position);
    if (keeps(call, later)) {
      position += step(call);
    } else {
      take_out(carried, position);
    }
  }
}

static int is_of_another_handle(const struct carried_call* earlier,
                                const struct carried_call* later) {
  return earlier->handle != later->handle;
}

/* An initialisation replaces what an earlier one of the handle left. Its own platform calls ended before it. */
static int is_not_replaced(const struct carried_call* earlier, const struct carried_call* later) {
  return earlier->handle != later->handle || earlier->function == RECORDING_CREATE_HANDLE ||
         earlier->call > later->call;
}

static int is_not_that_threshold(const struct carried_call* earlier,
                                 const struct carried_call* later) {
  return earlier->handle != later->handle || earlier->function != RECORDING_SET_THRESHOLD;
}

/* What the application itself did with the platform. */
static int is_not_of_that_channel(const struct carried_call* earlier,
                                  const struct carried_call* later) {
  return earlier->handle != 0 || earlier->outer != 0 || earlier->channel != later->channel ||
         earlier->function < RECORDING_CREATE_CHANNEL;
}

static int is_not_of_the_device(const struct carried_call* earlier,
                                const struct carried_call* later) {
  (void)later;
  return earlier->handle != 0 || earlier->outer != 0;
}

static int is_setting(uint32_t function) {
  return function == RECORDING_SET_STABLE_BOX || function == RECORDING_SET_TRACKER ||
         function == RECORDING_SET_TRACKER2 || function == RECORDING_SET_STRICT_MODE;
}

/* A setting that only repeats the one before changes nothing, whatever frames ran between the two. */
static void add_setting(struct carried* carried, const struct carried_call* call,
                        const struct ring* ring, uint32_t first_byte) {
  uint32_t count = 0;
  uint32_t oldest = 0;
  const struct carried_call* last = NULL;
  for (uint32_t position = 0; position < carried->used; position += step(at(carried, position))) {
    const struct carried_call* const other = at(carried, position);
    if (other->handle == call->handle && is_setting(other->function)) {
      oldest = count == 0 ? position : oldest;
      last = other;
      ++count;
    }
  }
  if (last != NULL && last->function == call->function && last->size == call->size &&
      memcmp(last->words, call->words, sizeof call->words) == 0) {
    return;
  }
  if (count >= MOST_SETTINGS) {
    take_out(carried, oldest);
    carried->is_complete = 0;
  }
  add(carried, call, ring, first_byte);
}

void carried_take(struct carried* carried, const struct ring* ring, uint32_t first_byte,
                  uint32_t size) {
  const struct carried_call call = describe(ring, first_byte, size);
  if (call.handle == 0 && call.function < RECORDING_CREATE_DEVICE) {
    /* One handle too many to be told from others. */
    carried->is_complete = 0;
    return;
  }
  const int was_refused = call.result != 0 && call.function < RECORDING_CREATE_DEVICE;
  if (is_setting(call.function) && !was_refused) {
    add_setting(carried, &call, ring, first_byte);
    return;
  }
  switch (call.function) {
    case RECORDING_INIT_HANDLE:
    case RECORDING_INIT_HANDLE2:
      keep_only(carried, is_not_replaced, &call);
      break;
    case RECORDING_SET_THRESHOLD:
      if (was_refused) {
        return;
      }
      keep_only(carried, is_not_that_threshold, &call);
      break;
    case RECORDING_CREATE_HANDLE:
    case RECORDING_GET_STATIC_INFO:
    case RECORDING_CREATE_DEVICE:
    case RECORDING_CREATE_CHANNEL:
    case RECORDING_GET_DESCRIPTION:
    case RECORDING_GET_OUTPUTS:
      break;
    case RECORDING_DEINIT_HANDLE:
      if (call.result == 0) {
        keep_only(carried, is_of_another_handle, &call);
      }
      return;
    case RECORDING_DESTROY_CHANNEL:
      if (call.outer == 0) {
        keep_only(carried, is_not_of_that_channel, &call);
      }
      return;
    case RECORDING_DESTROY_DEVICE:
      if (call.outer == 0) {
        keep_only(carried, is_not_of_the_device, &call);
      }
      return;
    default:
      return;
  }
  add(carried, &call, ring, first_byte);
}

void carried_pack(const struct carried* carried, struct packer* packer) {
  for (uint32_t position = 0; position < carried->used;) {
    const struct carried_call* const call =
        (const struct carried_call*)(const void*)(carried->bytes + position);
    pack_bytes(packer, carried->bytes + position + sizeof *call, call->size);
    position += step(call);
  }
}

void carried_pack_entry(const struct ring* ring, uint32_t first_byte, uint32_t size,
                        struct packer* packer) {
  if (size > packer->capacity - packer->used) {
    packer->overflowed = 1;
    return;
  }
  unsigned char* const to = packer->buffer + packer->used;
  ring_copy(ring, first_byte, size, to);
  to[DATA_AT + 1] |= RECORDING_CALL_CARRIED;
  packer->used += size;
}
