// SPDX-License-Identifier: Apache-2.0
/* watched_calls.h - the platform's calls, each timed and its code looked at, and the model that they read. A process in
 * which none of them begins for a minute is ended. */
#ifndef PLATFORM_CHECK_WATCHED_CALLS_H
#define PLATFORM_CHECK_WATCHED_CALLS_H

#include <stddef.h>

#include "qv_ipu.h"
#include "qv_sys.h"

/* Device attributes are those of the detection library. */
QV_S32 create_device(QV_U32 variable_size, char* firmware);
QV_S32 destroy_device(void);
QV_S32 static_info(QV_IPU_ReadFunc read, char* path_or_context,
                   QV_IPU_OfflineModelStaticInfo_s* info);
/* Channel attributes are those of the detection library: one output buffer, no input buffer. */
QV_S32 create_channel(QV_U32* channel, QV_IPU_ReadFunc read, char* path_or_context);
QV_S32 destroy_channel(QV_U32 channel);
QV_S32 describe(QV_U32 channel, QV_IPU_SubNet_InputOutputDesc_t* description);
QV_S32 get_outputs(QV_U32 channel, QV_IPU_TensorVector_t* tensors);
QV_S32 put_outputs(QV_U32 channel, QV_IPU_TensorVector_t* tensors);
QV_S32 invoke(QV_U32 channel, QV_IPU_TensorVector_t* input, QV_IPU_TensorVector_t* output);
QV_S32 flush(void* address, QV_U32 size);

/* Reports codes of 1 to 13. */
void check_codes(void);
/* Prints how long the calls took. */
void print_times(void);

/* ---- The model's file, mapped as the detection library maps it, and the callback that reads it ---- */

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

#endif /* PLATFORM_CHECK_WATCHED_CALLS_H */
