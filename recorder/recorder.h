// SPDX-License-Identifier: Apache-2.0
/* recorder.h - the recorder's state, and how the interposed functions report to it. calls_det.c and calls_qv.c
 * have those functions, recorder.c the state, carried.c the calls in force, tables.c handles and channels, frames.c
 * and frame_parts.c the frames, writer.c the thread that writes files. */
#ifndef RECORDER_RECORDER_H
#define RECORDER_RECORDER_H

#include <pthread.h>
#include <stdint.h>

#include "olvex_det.h"
#include "platform/contract/olvex_platform.h"
#include "recorder/cells.h"
#include "recorder/checksums.h"
#include "recorder/options.h"
#include "recorder/packer.h"
#include "recorder/recording_format.h"
#include "recorder/ring.h"

#define MOST_HANDLES 32u
#define MOST_CHANNELS 16u
#define MOST_PLATFORM_CALLS 8u /* in one frame */
#define MOST_WORDS 64u
#define MODEL_HEADER_SIZE 1024u
#define SCRATCH_BYTES (320u * 1024u) /* of the writing thread */

/* ---- The calls in force (carried.c): those that made the handles, channels and settings of now. A call gets
 * here when it leaves the ring, so that this is always the state before the ring's oldest entry ---- */

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

/* ---- The state ---- */

enum trigger_reason {
  TRIGGER_NONE = 0,
  TRIGGER_SIGNAL,
  TRIGGER_FILE,
  TRIGGER_ERROR,
  TRIGGER_MANY_BOXES,
  TRIGGER_NO_BOXES,
  TRIGGER_LATENCY
};

struct handle_slot {
  const void* address; /* NULL: free */
  uint32_t number;
  uint32_t frames;
  uint32_t empty; /* frames in a row without anything at the floor */
  uint32_t many;  /* frames in a row with too many boxes */
  uint32_t none;  /* and without any */
  float threshold;
  int is_initialised;
};

struct output_slot {
  uint32_t bytes; /* of the buffer */
  uint32_t cells; /* 0: stored whole */
  uint32_t channels;
  uint32_t columns;
  uint32_t stride; /* input pixels to a cell; 0: not the same in both directions */
  int can_drop;    /* cells of suppressed boxes */
  float scale;
};

struct channel_slot {
  uint32_t id;
  uint32_t is_open;
  uint32_t outputs;
  uint32_t width; /* of the input */
  uint32_t height;
  uint32_t input_format;
  uint32_t width_alignment;
  uint32_t height_alignment;
  uint32_t format;  /* of the first output, which holds for all */
  uint32_t classes; /* 0: no output is stored in cells */
  int has_pairs;
  struct output_slot output[OLVEX_MAX_TENSORS];
};

struct recorder {
  struct ring ring;
  struct carried carried;
  struct found_cells found; /* of the frame that is being stored */
  struct handle_slot handles[MOST_HANDLES];
  struct channel_slot channels[MOST_CHANNELS];
  struct recorder_options options;
  unsigned char scratch[SCRATCH_BYTES];
  unsigned char
      environment[4096]; /* as it was at the start, packed; what does not fit is missing */
  uint32_t environment_size;
  char
      reason[64]; /* given by the application; it is the writing thread's while has_reason is set */
  uint32_t has_reason;
  uint64_t monotonic; /* at the start */
  uint64_t realtime;
  uint32_t handles_seen;
  uint32_t frames; /* ended so far */
  uint32_t lost;   /* since the last one that was stored */
  uint32_t lost_frames;
  uint32_t lost_calls;
  uint32_t lost_pictures;
  uint32_t is_triggered; /* from a trigger until its seconds after are over */
};

/* Everything that is recorded goes through this lock; the writing thread never takes it. */
extern pthread_mutex_t recorder_lock;
extern struct recorder* the_recorder;

/* Whether calls are recorded; the first caller starts the recorder. */
int recorder_is_on(void);

uint64_t monotonic_now(void);
/* One line on standard error, whatever becomes of it. code: an errno, 0 for none. */
void say(const char* what, const char* name, int code);

void raise_trigger(enum trigger_reason reason);
/* The reason of a trigger since the last call. */
enum trigger_reason take_trigger(void);

/* Opens what the next part goes to, after so many. is_ours: to be closed at its end. Returns a descriptor, or -1 with
 * errno, which is ENXIO when nothing takes the part yet, or ever. */
int open_destination(uint32_t parts, int* is_ours);

/* ---- Calls ---- */

struct model_identity {
  uint64_t bytes; /* 0: there was none */
  int has_hash;
  unsigned char sha256[SHA256_SIZE];
  uint32_t header_size;
  char header[MODEL_HEADER_SIZE];
};

/* One call while it runs. */
struct call {
  uint32_t function; /* 0: not recorded */
  uint32_t number;
  uint32_t outer;
  const void* handle;
  uint32_t channel;
  int32_t result;
  uint64_t begin;
  uint32_t count;
  uint32_t words[MOST_WORDS];
  const char* texts[2]; /* within their 256 bytes; NULL: none */
  const QV_IPU_SubNet_InputOutputDesc_t* description;
  const struct model_identity* model;
};

/* handle: of a library's function that takes one; NULL for others. */
void call_begin(struct call* call, enum recording_function function, const void* handle);
void call_word(struct call* call, uint32_t word);
/* The members of a record of 32-bit words. */
void call_words(struct call* call, const void* record, size_t size);
/* Records it, and returns its result. */
QV_S32 call_end(struct call* call);

/* ---- What is known of handles and channels; with the lock held ---- */

/* NULL for a handle that is not known; for NULL a free slot, if there is one. */
struct handle_slot* find_handle(const void* address);
struct channel_slot* find_channel(uint32_t id);

/* What a call that has ended changes: before its entry in the ring is made, and after. */
void note_before(const struct call* call);
void note_after(const struct call* call);

/* ---- Frames ---- */

struct frame {
  uint32_t call;
  uint64_t begin;
  const void* handle;
  ALGO_Input_t input;
  const Box_t* boxes;
  const QV_S32* count;
  int32_t result;
  int has_result; /* 0: an exception has left the call */
};

/* Returns whether the frame is recorded: then frame_end is called when it has a result. An exception leaves it
 * out; the thread's next call ends the frame. */
int frame_begin(const void* handle, const ALGO_Input_t* input, const Box_t* boxes,
                const QV_S32* count);
void frame_end(QV_S32 result);
void end_unfinished_frame(void);

struct platform_call {
  uint32_t function;
  int32_t result;
  uint64_t begin;
  uint64_t end;
  uint32_t word;
};

/* What a thread does now. */
struct thread_state {
  uint32_t number;
  uint32_t outer; /* the ALGO_DET_ call it is in; 0: none */
  const void* outer_handle;
  int is_in_frame;
  struct frame frame;
  uint32_t calls;
  struct platform_call call[MOST_PLATFORM_CALLS];
  int has_outputs;
  uint32_t channel; /* that was invoked */
  const void* output[OLVEX_MAX_TENSORS];
};
struct thread_state* this_thread(void);
uint32_t next_call_number(void);

/* From the monotonic clock to the real one. */
uint64_t clock_offset(void);

/* ---- What a frame leaves; with the lock held ---- */

/* The score from which cells are kept: below it the live run has no threshold either. 0: whole outputs. */
float floor_of(const struct handle_slot* handle, const struct channel_slot* channel,
               uint32_t number);

/* Packs what the network left, whole or in cells; no output without a channel. Returns whether there is surely nothing in it. */
int pack_outputs(struct packer* packer, const struct channel_slot* channel,
                 const void* const* addresses, float floor);

/* Stores the part of the frame's picture that is asked for, as an entry of its own in the ring: one that does not fit
 * leaves the frame there. Requires: an address, and a result.
 * Returns 0, also where there is nothing to store, or -1 when it did not fit. */
int store_picture(const struct frame* frame, const struct channel_slot* channel, uint32_t number,
                  uint64_t end);

/* ---- The writing thread ---- */

/* Returns 0, or an errno. */
int writer_start(void);
/* Writes what is left and ends the file, unless that takes longer than two seconds. */
void writer_stop(void);

/* An address inside the library. */
const void* library_address(void);
/* Packs the variables that a recording keeps, before the thread starts. */
void keep_environment(void);
/* Packs the message that says what recorded, and on what. part counts the files before. */
void pack_about(struct packer* packer, uint32_t part, uint64_t now);
/* Packs the image annotations of a frame, whose entry begins at first_byte. */
void pack_annotations(struct packer* packer, const struct ring* ring, uint32_t first_byte);

#endif /* RECORDER_RECORDER_H */
