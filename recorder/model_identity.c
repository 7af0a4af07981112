// SPDX-License-Identifier: Apache-2.0
/* model_identity.c - the SHA-256 of a model, and the key/value pairs in front of it. */
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "recorder/recorder.h"

/* Adds the memory by way of a pipe: the system refuses what cannot be read. The library itself never reads by the
 * length that an application gives, so a wrong one must not end the process here. */
static int add_readable(struct sha256* hash, const unsigned char* from, uint32_t size) {
  unsigned char part[4096];
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    return 0;
  }
  while (size != 0) {
    const uint32_t wanted = size < sizeof part ? size : (uint32_t)sizeof part;
    if (write(ends[1], from, wanted) != (ssize_t)wanted ||
        read(ends[0], part, wanted) != (ssize_t)wanted) {
      break;
    }
    sha256_add(hash, part, wanted);
    from += wanted;
    size -= wanted;
  }
  close(ends[0]);
  close(ends[1]);
  return size == 0;
}

/* A model in memory has no pairs in front of it. */
void identify_buffer(struct model_identity* model, const void* buffer, uint32_t size) {
  const int kept = errno;
  struct sha256 hash;
  sha256_start(&hash);
  model->has_hash = model->has_hash && add_readable(&hash, (const unsigned char*)buffer, size);
  sha256_end(&hash, model->sha256);
  model->bytes = size;
  model->header_size = 0;
  errno = kept;
}

/* Keeps the bytes before the start pattern. */
static void keep_header(struct model_identity* model, const unsigned char* text, uint32_t size) {
  const uint32_t pattern = (uint32_t)strlen(OLVEX_OFFLINE_MODEL_START);
  uint32_t end = 0;
  while (end + pattern <= size && memcmp(text + end, OLVEX_OFFLINE_MODEL_START, pattern) != 0) {
    ++end;
  }
  end = end + pattern <= size ? end : size;
  model->header_size = end < MODEL_HEADER_SIZE ? end : MODEL_HEADER_SIZE;
  memcpy(model->header, text, model->header_size);
}

/* Returns the bytes that the file has, 0 when it cannot be read. */
static uint64_t read_model(struct model_identity* model, int file) {
  unsigned char part[4096];
  struct sha256 hash;
  struct stat status;
  uint64_t bytes = 0;
  ssize_t size = 0;
  if (fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) {
    return 0;
  }
  sha256_start(&hash);
  while ((size = read(file, part, sizeof part)) > 0) {
    if (bytes == 0) {
      keep_header(model, part, (uint32_t)size);
    }
    bytes += (uint64_t)size;
    if (!model->has_hash) {
      return (uint64_t)status.st_size;
    }
    sha256_add(&hash, part, (size_t)size);
  }
  sha256_end(&hash, model->sha256);
  return size < 0 ? 0 : bytes;
}

/* What cannot be read is left to the library to complain about. */
void identify_file(struct model_identity* model, const char* path) {
  const int kept = errno;
  model->bytes = 0;
  model->header_size = 0;
  const int file = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (file >= 0) {
    model->bytes = read_model(model, file);
    close(file);
  }
  errno = kept;
}
