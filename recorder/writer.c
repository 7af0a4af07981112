// SPDX-License-Identifier: Apache-2.0
/* writer.c - the thread of low priority that follows the ring: waits for triggers, begins files, writes chunks,
 * and ends files. Nothing that a frame does waits for it. */
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "recorder/packer.h"
#include "recorder/recorder.h"
#include "recorder/recording_file.h"

#define TICK_NS 50000000
#define SECOND ((uint64_t)1000000000)
#define RETRY_NS (5 * SECOND)
#define STOP_TICKS 40 /* two seconds */
#define STACK_BYTES (256u * 1024u)
#define CONTAINER_BYTES (64u * 1024u) /* of the scratch, for the file's own records */
#define LOWEST_PRIORITY 19

static struct {
  pthread_t thread;
  uint32_t stops;   /* set from outside */
  uint32_t stopped; /* set by the thread */
  struct recording_file file;
  int is_wanted;     /* a file is open, or to be opened as soon as that works */
  uint64_t from;     /* frames that ended before are left out */
  uint64_t until;    /* UINT64_MAX: for ever */
  uint64_t retry_at; /* after a failure */
  uint64_t triggered_until;
  uint32_t position; /* in the ring, of the next entry */
  int continues;     /* from position on, not by time */
  uint32_t parts;
  uint32_t failures;
  uint32_t said; /* kinds of failures, a bit each */
  char reason[64];
} writer;

enum failure { CANNOT_OPEN = 0, CANNOT_WRITE = 1, NO_SPACE = 2 };

static int may_go_on(void) {
  return __atomic_load_n(&writer.stops, __ATOMIC_SEQ_CST) == 0;
}

static void fail(enum failure failure, int code) {
  static const char* const kTexts[] = {"cannot open the file of", "cannot write to the file of"};
  ++writer.failures;
  if ((writer.said & 1u << failure) == 0) {
    writer.said |= 1u << failure;
    say(kTexts[failure], "OLVEX_RECORDER_FILE", code);
  }
}

/* ---- The first chunk ---- */

static void pack_event(struct packer* packer, enum recording_event kind, const char* text) {
  const struct recorder* const recorder = the_recorder;
  const uint64_t now = monotonic_now();
  const uint32_t begun = message_begin(packer, RECORDING_EVENT, 0, now, clock_offset());
  pack8(packer, kind);
  pack64(packer, now);
  pack64(packer, __atomic_load_n(&recorder->lost_frames, __ATOMIC_RELAXED));
  pack64(packer, __atomic_load_n(&recorder->lost_calls, __ATOMIC_RELAXED));
  pack32(packer, writer.failures + __atomic_load_n(&recorder->lost_pictures, __ATOMIC_RELAXED));
  pack_string(packer, text);
  record_end(packer, begun);
}

static int add_packed(struct packer* packer) {
  const struct iovec piece = {packer->buffer, packer->used};
  return packer->overflowed ? ENOBUFS : file_add_chunk(&writer.file, &piece, 1);
}

static int add_event(enum recording_event kind, const char* text) {
  struct packer packer;
  packer_start(&packer, the_recorder->scratch + CONTAINER_BYTES, SCRATCH_BYTES - CONTAINER_BYTES,
               NULL);
  pack_event(&packer, kind, text);
  return add_packed(&packer);
}

/* Packs the calls between the oldest entry and the first frame to be written, into more chunks where one does
 * not hold them. */
static int pack_calls_before(struct packer* packer, uint32_t position) {
  const struct ring* const ring = &the_recorder->ring;
  const int continues = writer.continues && ring_holds(ring, position, writer.position);
  struct ring_entry entry;
  uint32_t first_byte;
  uint32_t next = position;
  int code = 0;
  while (code == 0 && !(continues && position == writer.position) &&
         ring_next(ring, &next, &entry, &first_byte) && (continues || entry.time < writer.from)) {
    if (entry.kind == RING_CALL) {
      if (entry.size > packer->capacity - packer->used) {
        code = add_packed(packer);
        packer->used = 0;
      }
      carried_pack_entry(ring, first_byte, entry.size, packer);
    }
    position = next;
  }
  writer.position = position;
  return code;
}

/* Writes what recorded, why, and the calls in force. The ring is pinned at its oldest entry meanwhile: the
 * calls in force do not change as long as nothing leaves it. */
static int begin_part(void) {
  struct packer packer;
  uint32_t oldest;
  while (ring_pin(&the_recorder->ring, &oldest) != 0) {
    const struct timespec moment = {0, 1000000};
    nanosleep(&moment, NULL);
  }
  packer_start(&packer, the_recorder->scratch + CONTAINER_BYTES, SCRATCH_BYTES - CONTAINER_BYTES,
               NULL);
  pack_about(&packer, writer.parts, monotonic_now());
  pack_event(&packer, RECORDING_EVENT_TRIGGER, writer.reason);
  carried_pack(&the_recorder->carried, &packer);
  const int code = pack_calls_before(&packer, oldest);
  ring_pin_forward(&the_recorder->ring, writer.position);
  return code != 0 || packer.used == 0 ? code : add_packed(&packer);
}

static void drop_file(int code) {
  fail(CANNOT_WRITE, code);
  if (writer.file.descriptor >= 0) {
    file_end(&writer.file);
  }
  ring_unpin(&the_recorder->ring);
  writer.retry_at = monotonic_now() + RETRY_NS;
  writer.is_wanted = the_recorder->options.always != 0;
}

static void open_part(void) {
  int is_ours = 0;
  if (monotonic_now() < writer.retry_at) {
    return;
  }
  const int descriptor = open_destination(writer.parts, &is_ours);
  if (descriptor < 0) {
    if (errno != ENXIO) {
      fail(CANNOT_OPEN, errno);
    }
    /* Without a file new frames replace old ones; calls that are replaced stay in force. */
    ring_unpin(&the_recorder->ring);
    writer.retry_at = monotonic_now() + SECOND;
    return;
  }
  int code = file_begin(&writer.file, descriptor, is_ours, the_recorder->scratch, CONTAINER_BYTES,
                        may_go_on);
  code = code != 0 ? code : begin_part();
  if (code != 0) {
    drop_file(code);
    return;
  }
  ++writer.parts;
}

/* The ring stays pinned where the next file is to go on. */
static void end_part(void) {
  int code = add_event(RECORDING_EVENT_END, "");
  code = code != 0 ? code : file_end(&writer.file);
  if (code != 0) {
    drop_file(code);
  }
}

/* ---- Entries ---- */

static int add_entry(const struct ring_entry* entry, uint32_t first_byte) {
  struct packer packer;
  struct iovec pieces[MOST_PIECES];
  int count = ring_pieces(&the_recorder->ring, first_byte, entry->size, pieces);
  if (entry->kind == RING_FRAME && the_recorder->options.annotations) {
    packer_start(&packer, the_recorder->scratch + CONTAINER_BYTES, SCRATCH_BYTES - CONTAINER_BYTES,
                 NULL);
    pack_annotations(&packer, &the_recorder->ring, first_byte);
    pieces[count].iov_base = packer.buffer;
    pieces[count].iov_len = packer.used;
    ++count;
  }
  return file_add_chunk(&writer.file, pieces, count);
}

/* Writes what has come. Begins the next file where one is full. */
static void follow(void) {
  struct ring* const ring = &the_recorder->ring;
  const uint64_t limit = (uint64_t)the_recorder->options.file_mb << 20;
  struct ring_entry entry;
  uint32_t first_byte;
  uint32_t next = writer.position;
  while (ring_next(ring, &next, &entry, &first_byte) && entry.time <= writer.until) {
    const int code = add_entry(&entry, first_byte);
    if (code != 0) {
      drop_file(code);
      return;
    }
    writer.position = next;
    ring_pin_forward(ring, next);
    if (writer.file.can_seek && writer.file.size > limit) {
      writer.continues = 1;
      end_part();
      open_part();
      next = writer.position;
      if (writer.file.descriptor < 0) {
        return;
      }
    }
  }
}

/* ---- Triggers ---- */

static int trigger_file_has_appeared(void) {
  static int was_there = -1;
  const char* const name = the_recorder->options.trigger_file;
  struct stat status;
  if (name[0] == 0) {
    return 0;
  }
  const int is_there = lstat(name, &status) == 0;
  const int has_appeared = is_there && was_there == 0;
  was_there = is_there;
  return has_appeared;
}

static void note_trigger(const char* reason) {
  const struct recorder_options* const options = &the_recorder->options;
  const uint64_t now = monotonic_now();
  const uint64_t before = options->before_s * SECOND;
  const int has_file = writer.file.descriptor >= 0;
  snprintf(writer.reason, sizeof writer.reason, "%s", reason);
  writer.triggered_until = now + options->after_s * SECOND;
  __atomic_store_n(&the_recorder->is_triggered, 1, __ATOMIC_SEQ_CST);
  if (!options->always) {
    writer.until = writer.triggered_until;
    if (!has_file) {
      writer.from = now > before ? now - before : 0;
      writer.continues = 0;
    }
  }
  writer.is_wanted = 1;
  const int code = has_file ? add_event(RECORDING_EVENT_TRIGGER, writer.reason) : 0;
  if (code != 0) {
    drop_file(code);
  }
}

static void look_for_triggers(void) {
  static const char* const kReasons[] = {"",         "signal", "file", "error", "too many boxes",
                                         "no boxes", "latency"};
  const enum trigger_reason reason = take_trigger();
  if (reason != TRIGGER_NONE) {
    note_trigger(kReasons[reason]);
  }
  if (trigger_file_has_appeared()) {
    note_trigger(kReasons[TRIGGER_FILE]);
  }
  if (__atomic_load_n(&the_recorder->has_reason, __ATOMIC_ACQUIRE) != 0) {
    note_trigger(the_recorder->reason);
    __atomic_store_n(&the_recorder->has_reason, 0, __ATOMIC_RELEASE);
  }
}

static void look_at_losses(void) {
  if (__atomic_load_n(&the_recorder->lost_pictures, __ATOMIC_RELAXED) != 0 &&
      (writer.said & 1u << NO_SPACE) == 0) {
    writer.said |= 1u << NO_SPACE;
    say("pictures do not fit", "OLVEX_RECORDER_RING_MB", 0);
  }
}

/* ---- The thread ---- */

static void turn(void) {
  /* Before triggers are looked for: one that comes meanwhile must not be cleared. */
  if (writer.triggered_until != 0 && monotonic_now() > writer.triggered_until) {
    writer.triggered_until = 0;
    __atomic_store_n(&the_recorder->is_triggered, 0, __ATOMIC_SEQ_CST);
  }
  look_for_triggers();
  look_at_losses();
  if (writer.is_wanted && writer.file.descriptor < 0) {
    open_part();
  }
  if (writer.file.descriptor >= 0) {
    follow();
  }
  if (writer.file.descriptor >= 0 && monotonic_now() > writer.until) {
    end_part();
    ring_unpin(&the_recorder->ring);
    writer.is_wanted = 0;
  }
}

static void* run_writer(void* context) {
  const struct timespec tick = {0, TICK_NS};
  (void)context;
  setpriority(PRIO_PROCESS, (id_t)syscall(SYS_gettid), LOWEST_PRIORITY);
  writer.file.descriptor = -1;
  if (the_recorder->options.always) {
    writer.until = UINT64_MAX;
    writer.continues = 1;
    writer.is_wanted = 1;
    snprintf(writer.reason, sizeof writer.reason, "start");
  }
  while (may_go_on()) {
    turn();
    nanosleep(&tick, NULL);
  }
  turn();
  if (writer.file.descriptor >= 0) {
    end_part();
  }
  __atomic_store_n(&writer.stopped, 1, __ATOMIC_SEQ_CST);
  return NULL;
}

int writer_start(void) {
  pthread_attr_t attributes;
  sigset_t all;
  sigset_t before;
  uint32_t oldest;
  /* The first turn may come late: what does not fit until then is left out and counted, never replaced. */
  if (the_recorder->options.always) {
    ring_pin(&the_recorder->ring, &oldest);
  }
  int code = pthread_attr_init(&attributes);
  if (code != 0) {
    return code;
  }
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_attr_setstacksize(&attributes, STACK_BYTES);
  /* The application's signals are for its own threads. */
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  code = pthread_create(&writer.thread, &attributes, run_writer, NULL);
  pthread_sigmask(SIG_SETMASK, &before, NULL);
  pthread_attr_destroy(&attributes);
  return code;
}

void writer_stop(void) {
  const struct timespec tick = {0, TICK_NS};
  __atomic_store_n(&writer.stops, 1, __ATOMIC_SEQ_CST);
  for (int k = 0; k < STOP_TICKS && __atomic_load_n(&writer.stopped, __ATOMIC_SEQ_CST) == 0; ++k) {
    nanosleep(&tick, NULL);
  }
}
