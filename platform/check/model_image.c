// SPDX-License-Identifier: Apache-2.0
/* model_image.c - mapping of the model's file, and bounds of what is read of it. */
#define _DEFAULT_SOURCE
#define _POSIX_C_SOURCE 200809L
#include "model_image.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "../contract/olvex_platform.h"
#include "report.h"

static const struct model_image* mapped;
/* The last one: its addresses stay reserved, so that no other memory is read there. */
static struct model_image closed;
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static unsigned reads;
static unsigned outside;
static unsigned late;
static unsigned strange; /* with another context than was given */
static int outside_offset;
static int outside_size;

static void set_mapped(const struct model_image* image) {
  pthread_mutex_lock(&lock);
  mapped = image;
  pthread_mutex_unlock(&lock);
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
  pthread_mutex_lock(&lock);
  const int result = read_locked(to, offset, size, context);
  pthread_mutex_unlock(&lock);
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
