// SPDX-License-Identifier: Apache-2.0
/* check_channels.c - two channels at once, first one after the other, then in two threads; how channels and the device
 * end, in each order, and that nothing stays behind. */
#define _POSIX_C_SOURCE 200809L
#include <dirent.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "checks.h"
#include "report.h"
#include "watched_calls.h"

#define ROUNDS 40u
#define ROUNDS_OF_A_PASSING_CHANNEL 10u

struct runner {
  const struct session* session;
  struct channel* channel;
  struct frame frame;
  unsigned char* alone; /* the outputs without another channel */
  int different;        /* rounds with other outputs */
  int failed;
  struct channel passing;
};

static int make_runner(const struct session* session, struct channel* channel, unsigned level,
                       struct runner* runner) {
  runner->session = session;
  runner->channel = channel;
  if (!frame_shape(&runner->frame, channel->description.astQV_InputTensorDescs)) {
    return 0;
  }
  runner->frame.data = frame_memory(runner->frame.size, &runner->frame.physical);
  if (runner->frame.data == NULL) {
    return 0;
  }
  fill_gray(&runner->frame, level);
  /* Twice, as the first one may show the frame before. */
  if (!run_or_report(channel, &runner->frame) || !run_or_report(channel, &runner->frame)) {
    return 0;
  }
  runner->alone = copy_outputs(channel);
  return runner->alone != NULL;
}

static int differs(const struct runner* runner) {
  unsigned char* const now = copy_outputs(runner->channel);
  const int is_other = now == NULL || memcmp(now, runner->alone, output_size(runner->channel)) != 0;
  free(now);
  return is_other;
}

/* The mapping of the model that open_channel makes is one for all: threads take turns. */
static pthread_mutex_t opening = PTHREAD_MUTEX_INITIALIZER;

static int pass_channel(struct runner* runner) {
  pthread_mutex_lock(&opening);
  const QV_S32 result = open_channel(runner->session->path, &runner->passing);
  pthread_mutex_unlock(&opening);
  return result == 0 && runner->passing.id != runner->channel->id &&
         close_channel(&runner->passing) == 0;
}

static void* run_rounds(void* argument) {
  struct runner* const runner = argument;
  for (unsigned k = 0; k < ROUNDS; ++k) {
    if (k % ROUNDS_OF_A_PASSING_CHANNEL == 0) {
      runner->failed += !pass_channel(runner);
    }
    runner->failed += run_frame(runner->channel, &runner->frame, 1) != 0;
    runner->different += differs(runner);
  }
  return NULL;
}

static void run_in_threads(struct runner* runners) {
  pthread_t thread;
  if (pthread_create(&thread, NULL, run_rounds, &runners[1]) != 0) {
    not_proven("two channels in two threads: no thread");
    return;
  }
  run_rounds(&runners[0]);
  pthread_join(thread, NULL);
  const int failed = runners[0].failed + runners[1].failed;
  const int different = runners[0].different + runners[1].different;
  if (failed != 0 || different != 0) {
    finding(FAULT_CHANNELS_MIX,
            "in two threads, %d of %u calls fail and %d of %u outputs are others", failed,
            2 * ROUNDS, different, 2 * ROUNDS);
  } else {
    proven("two channels in two threads have the outputs that each has alone, %u times",
           2 * ROUNDS);
  }
}

static int shares_buffers(const struct channel* first, const struct channel* second) {
  for (QV_U32 k = 0; k < first->outputs.u32TensorCount; ++k) {
    if (first->outputs.astArrayTensors[k].ptTensorData[0] ==
        second->outputs.astArrayTensors[k].ptTensorData[0]) {
      return 1;
    }
  }
  return 0;
}

static void compare_channels(struct session* session, struct channel* second) {
  static struct runner runners[2];
  if (second->id == session->channel.id || shares_buffers(&session->channel, second)) {
    finding(FAULT_CHANNELS_MIX, "two channels have one id, or one output buffer");
    return;
  }
  if (!make_runner(session, &session->channel, kLevels[0], &runners[0]) ||
      !make_runner(session, second, kLevels[LEVEL_COUNT - 1], &runners[1])) {
    not_proven("two channels: no memory, no picture, or an invocation fails");
    return;
  }
  if (differs(&runners[0])) {
    finding(FAULT_CHANNELS_MIX, "an invocation changes the outputs of another channel");
  } else {
    run_in_threads(runners);
  }
  free(runners[0].alone);
  free(runners[1].alone);
}

void check_two_channels(struct session* session) {
  static struct channel second;
  report_stage(FAULT_CHANNELS_MIX, "two channels are open");
  if (open_channel(session->second_path, &second) != 0) {
    not_proven("two channels at once");
    return;
  }
  compare_channels(session, &second);
  if (close_channel(&second) != 0) {
    finding(FAULT_CALL_FAILS, "a second channel cannot be closed");
  }
}

/* ---- Ends ---- */

#define NO_CHANNEL 0x7ffffff0u
#define MOST_GROWTH 262144L        /* bytes: what pools and caches may still take */
#define MOST_GROWTH_OF_A_CYCLE 32L /* bytes on average: the system counts whole pages */

/* Counts the calls on a channel that is not open and succeed all the same. */
static int accepted_calls(struct channel* closed, const struct frame* frame) {
  QV_IPU_TensorVector_t tensors;
  static QV_IPU_SubNet_InputOutputDesc_t description;
  int accepted = describe(closed->id, &description) == 0;
  accepted += get_outputs(closed->id, &tensors) == 0;
  accepted += put_outputs(closed->id, &closed->outputs) == 0;
  accepted += frame->data != NULL && run_frame(closed, frame, 1) == 0;
  accepted += destroy_channel(closed->id) == 0;
  return accepted;
}

static void check_closed(struct channel* closed, const struct frame* frame, const char* what) {
  const int accepted = accepted_calls(closed, frame);
  if (accepted != 0) {
    finding(FAULT_TEARDOWN, "%d calls on %s succeed", accepted, what);
  } else {
    proven("calls on %s are refused", what);
  }
}

static int device_again(struct session* session) {
  const QV_S32 result = create_device(session->variable_size, session->firmware);
  if (result != 0) {
    finding(FAULT_TEARDOWN, "QV_IPU_CreateDevice after QV_IPU_DestroyDevice returned %d (0x%x)",
            (int)result, (unsigned)result);
  }
  return result == 0;
}

/* The device goes with a channel open, then the channel. */
static void check_device_first(struct session* session) {
  struct channel* const channel = &session->channel;
  if (open_channel(session->path, channel) != 0) {
    return;
  }
  if (destroy_device() != 0) {
    finding(FAULT_TEARDOWN, "QV_IPU_DestroyDevice fails with a channel open");
    return;
  }
  check_closed(channel, &session->frame, "a channel whose device is gone");
  if (destroy_device() == 0) {
    finding(FAULT_TEARDOWN, "QV_IPU_DestroyDevice succeeds twice");
  }
  if (device_again(session)) {
    check_closed(channel, &session->frame, "a channel of an earlier device");
  }
}

/* A failed invocation closes its channel at once and once more when the handle is freed. */
static void check_new_number(struct session* session) {
  struct channel* const channel = &session->channel;
  const QV_U32 closed = channel->id;
  if (open_channel(session->path, channel) != 0) {
    return;
  }
  if (channel->id == closed) {
    not_proven(
        "numbers of channels are used again: free a handle whose frame failed before another "
        "one is initialised");
  } else {
    proven("the number of a closed channel is not given to the next one");
  }
  close_channel(channel);
}

void check_teardown(struct session* session) {
  struct channel* const channel = &session->channel;
  report_stage(FAULT_TEARDOWN, "channels and the device are closed");
  if (close_channel(channel) != 0) {
    finding(FAULT_TEARDOWN,
            "QV_IPU_PutOutputTensors or QV_IPU_DestroyCHN fails for an open channel");
  }
  check_closed(channel, &session->frame, "a closed channel");
  check_new_number(session);
  channel->id = NO_CHANNEL;
  check_closed(channel, &session->frame, "a channel that never was");
  check_device_first(session);
}

#define MOST_SPACE \
  64L /* MiB: memory that is mapped and not touched, or the device's, is not resident */

/* Bytes of memory in use; 0: the system does not say. */
static long resident_bytes(long* addressed) {
  long all = 0;
  long pages = 0;
  FILE* const file = fopen("/proc/self/statm", "r");
  if (file != NULL) {
    if (fscanf(file, "%ld %ld", &all, &pages) != 2) {
      pages = 0;
    }
    fclose(file);
  }
  *addressed = all / 1024 * (sysconf(_SC_PAGESIZE) / 1024); /* MiB */
  return pages * sysconf(_SC_PAGESIZE);
}

static int open_descriptors(void) {
  int count = 0;
  DIR* const folder = opendir("/proc/self/fd");
  while (folder != NULL && readdir(folder) != NULL) {
    ++count;
  }
  if (folder != NULL) {
    closedir(folder);
  }
  return count;
}

static int run_cycles(struct session* session, unsigned cycles) {
  for (unsigned k = 0; k < cycles; ++k) {
    struct channel* const channel = &session->channel;
    if (open_channel(session->path, channel) != 0 ||
        (session->frame.data != NULL && !run_or_report(channel, &session->frame))) {
      return 0;
    }
    if (close_channel(channel) != 0) {
      finding(FAULT_TEARDOWN, "QV_IPU_PutOutputTensors or QV_IPU_DestroyCHN fails in cycle %u", k);
      return 0;
    }
  }
  return 1;
}

static void compare_growth(unsigned cycles, long memory, long space, int descriptors) {
  if (memory > MOST_GROWTH + MOST_GROWTH_OF_A_CYCLE * (long)cycles || space > MOST_SPACE ||
      descriptors > 0) {
    finding(
        FAULT_GROWTH,
        "%u channels, opened and closed, leave %ld KiB, %ld MiB of addresses and %d descriptors",
        cycles, memory / 1024, space, descriptors);
  } else {
    proven("%u channels, opened and closed, leave nothing behind (%ld KiB)", cycles,
           memory > 0 ? memory / 1024 : 0);
  }
}

void check_cycles(struct session* session) {
  long space = 0;
  long space_after = 0;
  report_stage(FAULT_GROWTH, "channels are opened and closed again and again");
  if (session->cycles == 0 || resident_bytes(&space) == 0) {
    not_proven("growth: %s", session->cycles == 0 ? "no cycles" : "there is no /proc/self/statm");
  } else if (run_cycles(session, session->cycles / 10 + 1)) {
    const long memory = resident_bytes(&space);
    const int descriptors = open_descriptors();
    if (run_cycles(session, session->cycles)) {
      const long grown = resident_bytes(&space_after) - memory;
      compare_growth(session->cycles, grown, space_after - space, open_descriptors() - descriptors);
    }
  }
  report_stage(FAULT_TEARDOWN, "the device ends");
  if (destroy_device() != 0) {
    finding(FAULT_TEARDOWN, "QV_IPU_DestroyDevice fails at the end");
  }
}
