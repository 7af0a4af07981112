// SPDX-License-Identifier: Apache-2.0
/* model_image.h - the model's file, mapped as the detection library maps it, and the callback that reads it. */
#ifndef PLATFORM_CHECK_MODEL_IMAGE_H
#define PLATFORM_CHECK_MODEL_IMAGE_H

#include <stddef.h>

/* One at a time: the callback has to know its bounds. */
struct model_image {
  char* file;
  size_t file_size;
  char* model; /* the start pattern, the callback's context */
  size_t size; /* bytes from there on */
};

/* Returns NULL, or why the file cannot be used. */
const char* map_model(const char* path, struct model_image* image);
/* From now on reading it is a crash, until the next one is mapped. */
void unmap_model(struct model_image* image);

/* Copies from the mapped model. Fails outside it, and where none is mapped, and counts both. */
int read_model(void* to, int offset, int size, char* context);
/* Fails. */
int read_nothing(void* to, int offset, int size, char* context);

/* Reports reads that were not inside the model, or came after QV_IPU_CreateCHN. */
void check_reads(void);

#endif /* PLATFORM_CHECK_MODEL_IMAGE_H */
