// SPDX-License-Identifier: Apache-2.0
/* check_channels.c - two channels at once, first one after the other, then in two threads. */
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

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
