// SPDX-License-Identifier: Apache-2.0
/* watched_calls.c - one wrapper per call of the platform; the mapping of the model's file, and the bounds of what is
 * read of it. */
#define _POSIX_C_SOURCE 200809L
#define _DEFAULT_SOURCE
#include "watched_calls.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "../contract/olvex_platform.h"
#include "report.h"

#define LONGEST_CALL 60u /* seconds */
#define KEPT_TIMES 2000u /* of each call; the median is that of the first ones */
#define LAST_LIBRARY_CODE 13

enum call {
  CREATE_DEVICE,
  DESTROY_DEVICE,
  STATIC_INFO,
  CREATE_CHANNEL,
  DESTROY_CHANNEL,
  DESCRIBE,
  GET_OUTPUTS,
  PUT_OUTPUTS,
  INVOKE,
  FLUSH,
  CALL_COUNT
};

static const char* const kCallNames[CALL_COUNT] = {
    "QV_IPU_CreateDevice",     "QV_IPU_DestroyDevice",    "QV_IPU_GetOfflineModeStaticInfo",
    "QV_IPU_CreateCHN",        "QV_IPU_DestroyCHN",       "QV_IPU_GetInOutTensorDesc",
    "QV_IPU_GetOutputTensors", "QV_IPU_PutOutputTensors", "QV_IPU_Invoke",
    "QV_SYS_FlushInvCache"};

struct statistics {
  unsigned count;
  float longest; /* milliseconds */
  float times[KEPT_TIMES];
  QV_S32 small_code; /* 0: none was seen */
};

static struct statistics statistics[CALL_COUNT];
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;

static struct timespec begin(enum call call) {
  struct timespec now;
  pthread_mutex_lock(&lock);
  report_call(kCallNames[call]);
  pthread_mutex_unlock(&lock);
  alarm(LONGEST_CALL);
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now;
}

static QV_S32 end(enum call call, struct timespec start, QV_S32 result) {
  struct timespec now;
  struct statistics* const of_call = &statistics[call];
  clock_gettime(CLOCK_MONOTONIC, &now);
  const float milliseconds =
      (float)(now.tv_sec - start.tv_sec) * 1e3f + (float)(now.tv_nsec - start.tv_nsec) / 1e6f;
  pthread_mutex_lock(&lock);
  report_call(NULL);
  if (of_call->count < KEPT_TIMES) {
    of_call->times[of_call->count] = milliseconds;
  }
  ++of_call->count;
  if (milliseconds > of_call->longest) {
    of_call->longest = milliseconds;
  }
  if (result >= 1 && result <= LAST_LIBRARY_CODE) {
    of_call->small_code = result;
  }
  pthread_mutex_unlock(&lock);
  return result;
}

QV_S32 create_device(QV_U32 variable_size, char* firmware) {
  QV_IPU_DevAttr_s attributes;
  memset(&attributes, 0, sizeof attributes);
  attributes.u32MaxVariableBufSize = variable_size;
  attributes.u32YUV420_W_Pitch_Alignment = 16;
  attributes.u32YUV420_H_Pitch_Alignment = 2;
  attributes.u32XRGB_W_Pitch_Alignment = 16;
  const struct timespec start = begin(CREATE_DEVICE);
  return end(CREATE_DEVICE, start, QV_IPU_CreateDevice(&attributes, NULL, firmware, 0));
}

QV_S32 destroy_device(void) {
  const struct timespec start = begin(DESTROY_DEVICE);
  return end(DESTROY_DEVICE, start, QV_IPU_DestroyDevice());
}

QV_S32 static_info(QV_IPU_ReadFunc read, char* path_or_context,
                   QV_IPU_OfflineModelStaticInfo_s* info) {
  memset(info, 0, sizeof *info);
  const struct timespec start = begin(STATIC_INFO);
  return end(STATIC_INFO, start, QV_IPU_GetOfflineModeStaticInfo(read, path_or_context, info));
}

QV_S32 create_channel(QV_U32* channel, QV_IPU_ReadFunc read, char* path_or_context) {
  QV_IPUChnAttr_s attributes;
  memset(&attributes, 0, sizeof attributes);
  attributes.u32OutputBufDepth = 1;
  const struct timespec start = begin(CREATE_CHANNEL);
  return end(CREATE_CHANNEL, start, QV_IPU_CreateCHN(channel, &attributes, read, path_or_context));
}

QV_S32 destroy_channel(QV_U32 channel) {
  const struct timespec start = begin(DESTROY_CHANNEL);
  return end(DESTROY_CHANNEL, start, QV_IPU_DestroyCHN(channel));
}

QV_S32 describe(QV_U32 channel, QV_IPU_SubNet_InputOutputDesc_t* description) {
  memset(description, 0, sizeof *description);
  const struct timespec start = begin(DESCRIBE);
  return end(DESCRIBE, start, QV_IPU_GetInOutTensorDesc(channel, description));
}

QV_S32 get_outputs(QV_U32 channel, QV_IPU_TensorVector_t* tensors) {
  memset(tensors, 0, sizeof *tensors);
  const struct timespec start = begin(GET_OUTPUTS);
  return end(GET_OUTPUTS, start, QV_IPU_GetOutputTensors(channel, tensors));
}

QV_S32 put_outputs(QV_U32 channel, QV_IPU_TensorVector_t* tensors) {
  const struct timespec start = begin(PUT_OUTPUTS);
  return end(PUT_OUTPUTS, start, QV_IPU_PutOutputTensors(channel, tensors));
}

QV_S32 invoke(QV_U32 channel, QV_IPU_TensorVector_t* input, QV_IPU_TensorVector_t* output) {
  const struct timespec start = begin(INVOKE);
  return end(INVOKE, start, QV_IPU_Invoke(channel, input, output));
}

QV_S32 flush(void* address, QV_U32 size) {
  const struct timespec start = begin(FLUSH);
  return end(FLUSH, start, QV_SYS_FlushInvCache(address, size));
}

void check_codes(void) {
  const unsigned before = report_findings();
  for (int k = 0; k < CALL_COUNT; ++k) {
    if (statistics[k].small_code != 0) {
      finding(FAULT_SMALL_CODE, "%s returned %d", kCallNames[k], (int)statistics[k].small_code);
    }
  }
  if (report_findings() == before) {
    proven("no call returns a code of 1 to %d", LAST_LIBRARY_CODE);
  }
}

static int compare_times(const void* left, const void* right) {
  const float a = *(const float*)left;
  const float b = *(const float*)right;
  return (a > b) - (a < b);
}

void print_times(void) {
  for (int k = 0; k < CALL_COUNT; ++k) {
    struct statistics* const of_call = &statistics[k];
    const unsigned kept = of_call->count < KEPT_TIMES ? of_call->count : KEPT_TIMES;
    if (kept != 0) {
      qsort(of_call->times, kept, sizeof of_call->times[0], compare_times);
      printf("%-12s%s: %u calls, median %.3f ms, longest %.3f ms\n", "time", kCallNames[k],
             of_call->count, (double)of_call->times[kept / 2], (double)of_call->longest);
    }
  }
}

/* ---- The model ---- */

static const struct model_image* mapped;
/* The last one: its addresses stay reserved, so that no other memory is read there. */
static struct model_image closed;
static pthread_mutex_t reads_lock = PTHREAD_MUTEX_INITIALIZER;
static unsigned reads;
static unsigned outside;
static unsigned late;
static unsigned strange; /* with another context than was given */
static int outside_offset;
static int outside_size;

static void set_mapped(const struct model_image* image) {
  pthread_mutex_lock(&reads_lock);
  mapped = image;
  pthread_mutex_unlock(&reads_lock);
}

static const char* find_model(struct model_image* image) {
  const size_t length = sizeof OLVEX_OFFLINE_MODEL_START - 1;
  for (size_t k = 0; k + length <= image->file_size; ++k) {
    if (memcmp(image->file + k, OLVEX_OFFLINE_MODEL_START, length) == 0) {
      image->model = image->file + k;
      image->size = image->file_size - k;
      return NULL;
    }
  }
  unmap_model(image);
  return "no start pattern \"" OLVEX_OFFLINE_MODEL_START "\" in it; give a model image";
}

static const char* map_file(int file, struct model_image* image) {
  struct stat status;
  if (fstat(file, &status) != 0) {
    return strerror(errno);
  }
  if (!S_ISREG(status.st_mode) || status.st_size == 0) {
    return "empty, or no file; give a model image";
  }
  image->file_size = (size_t)status.st_size;
  void* const memory = mmap(NULL, image->file_size, PROT_READ | PROT_WRITE, MAP_PRIVATE, file, 0);
  if (memory == MAP_FAILED) {
    return strerror(errno);
  }
  image->file = memory;
  set_mapped(image);
  return find_model(image);
}

static void release_closed(void) {
  if (closed.file != NULL) {
    munmap(closed.file, closed.file_size);
    closed.file = NULL;
  }
}

const char* map_model(const char* path, struct model_image* image) {
  release_closed();
  memset(image, 0, sizeof *image);
  const int file = open(path, O_RDONLY | O_CLOEXEC);
  if (file < 0) {
    return strerror(errno);
  }
  const char* const fault = map_file(file, image);
  close(file);
  return fault;
}

void unmap_model(struct model_image* image) {
  set_mapped(NULL);
  mmap(image->file, image->file_size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
  closed = *image;
  image->file = NULL;
  image->model = NULL;
}

static int read_locked(void* to, int offset, int size, const char* context) {
  ++reads;
  if (mapped == NULL) {
    ++late;
    return -1;
  }
  strange += context != mapped->model;
  if (offset < 0 || size < 0 || (size_t)offset > mapped->size ||
      (size_t)size > mapped->size - (size_t)offset) {
    ++outside;
    outside_offset = offset;
    outside_size = size;
    return -1;
  }
  memcpy(to, mapped->model + offset, (size_t)size);
  return 0;
}

int read_model(void* to, int offset, int size, char* context) {
  /* A platform may keep the callback, and then call it from any thread. */
  pthread_mutex_lock(&reads_lock);
  const int result = read_locked(to, offset, size, context);
  pthread_mutex_unlock(&reads_lock);
  return result;
}

int read_nothing(void* to, int offset, int size, char* context) {
  (void)to;
  (void)offset;
  (void)size;
  (void)context;
  return -1;
}

void check_reads(void) {
  if (outside != 0) {
    finding(FAULT_READS_OUTSIDE, "%u of %u reads, one of them of %d bytes at offset %d", outside,
            reads, outside_size, outside_offset);
  } else if (reads == 0) {
    not_proven("reads of the model: the callback was never called");
  } else {
    proven("all %u reads of the model are inside it", reads);
  }
  if (strange != 0) {
    finding(FAULT_CONTEXT, "%u of %u reads come with another context than was given", strange,
            reads);
  }
  if (late != 0) {
    finding(FAULT_MODEL_KEPT,
            "the read callback was called %u times after the call that it was given to", late);
  }
}
