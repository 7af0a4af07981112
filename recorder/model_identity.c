/* model_identity.c - the SHA-256 of a model, and the key/value pairs in front of it. */
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "recorder/recorder.h"

void identify_buffer(struct model_identity* model, const void* buffer, uint32_t size) {
  struct sha256 hash;
  sha256_start(&hash);
  sha256_add(&hash, buffer, size);
  sha256_end(&hash, model->sha256);
  model->bytes = size;
  model->header_size = 0;
}

/* Bytes before the start pattern. */
static uint32_t header_size(const char* text, uint32_t size) {
  const uint32_t pattern = (uint32_t)strlen(OLVEX_OFFLINE_MODEL_START);
  for (uint32_t k = 0; k + pattern <= size; ++k) {
    if (memcmp(text + k, OLVEX_OFFLINE_MODEL_START, pattern) == 0) {
      return k;
    }
  }
  return size;
}

/* What cannot be read is left to the library to complain about. */
void identify_file(struct model_identity* model, const char* path) {
  const int kept = errno;
  unsigned char part[4096];
  struct sha256 hash;
  struct stat status;
  ssize_t size = 0;
  model->bytes = 0;
  model->header_size = 0;
  const int file = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (file >= 0 && fstat(file, &status) == 0 && S_ISREG(status.st_mode)) {
    sha256_start(&hash);
    while ((size = read(file, part, sizeof part)) > 0) {
      if (model->bytes == 0) {
        const uint32_t all = header_size((const char*)part, (uint32_t)size);
        model->header_size = all < MODEL_HEADER_SIZE ? all : MODEL_HEADER_SIZE;
        memcpy(model->header, part, model->header_size);
      }
      sha256_add(&hash, part, (size_t)size);
      model->bytes += (uint64_t)size;
    }
    sha256_end(&hash, model->sha256);
    model->bytes = size < 0 ? 0 : model->bytes;
  }
  if (file >= 0) {
    close(file);
  }
  errno = kept;
}
