// SPDX-License-Identifier: Apache-2.0
/* calls_det.c - the twelve functions of olvex_det.h, in front of the library. Each hands its arguments on as
 * they are and returns what the library returns. The SHA-256 of a model, and the key/value pairs in front of it, are
 * looked at before. */
#ifndef OLVEX_RECORDER_WRAP
#include <dlfcn.h>
#endif
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "recorder/attachment.h"
#include "recorder/recorder.h"

DECLARE_WRAPPED(ALGO_DET_CreateHandle);
DECLARE_WRAPPED(ALGO_DET_ReleaseHandle);
DECLARE_WRAPPED(ALGO_DET_GetInputAttr);
DECLARE_WRAPPED(ALGO_DET_SetStableBox);
DECLARE_WRAPPED(ALGO_DET_InitHandle);
DECLARE_WRAPPED(ALGO_DET_InitHandle2);
DECLARE_WRAPPED(ALGO_DET_SetTracker);
DECLARE_WRAPPED(ALGO_DET_SetTracker2);
DECLARE_WRAPPED(ALGO_DET_SetThreshold);
DECLARE_WRAPPED(ALGO_DET_Run);
DECLARE_WRAPPED(ALGO_DET_DeinitHandle);
DECLARE_WRAPPED(ALGO_DET_SetStrictMode);

/* NULL when the loader does not find it from here. */
const void* library_address(void) {
#ifdef OLVEX_RECORDER_WRAP
  return (const void*)(uintptr_t)REAL(ALGO_DET_Run);
#else
  return dlsym(RTLD_NEXT, "ALGO_DET_Run");
#endif
}

QV_S32 INTERPOSED(ALGO_DET_CreateHandle)(void** handle) {
  struct call call;
  call_begin(&call, RECORDING_CREATE_HANDLE, NULL);
  call.result = REAL(ALGO_DET_CreateHandle)(handle);
  call.handle = call.result == 0 ? *handle : NULL;
  return call_end(&call);
}

QV_S32 INTERPOSED(ALGO_DET_ReleaseHandle)(void* handle) {
  struct call call;
  call_begin(&call, RECORDING_RELEASE_HANDLE, handle);
  call.result = REAL(ALGO_DET_ReleaseHandle)(handle);
  return call_end(&call);
}

QV_S32 INTERPOSED(ALGO_DET_GetInputAttr)(void* handle, InputAttr_t* input_attr) {
  struct call call;
  call_begin(&call, RECORDING_GET_INPUT_ATTR, handle);
  call.result = REAL(ALGO_DET_GetInputAttr)(handle, input_attr);
  if (input_attr != NULL) {
    call_words(&call, input_attr, sizeof *input_attr);
  }
  return call_end(&call);
}

QV_S32 INTERPOSED(ALGO_DET_SetStableBox)(void* handle, QV_BOOL stable) {
  struct call call;
  call_begin(&call, RECORDING_SET_STABLE_BOX, handle);
  call_word(&call, stable);
  call.result = REAL(ALGO_DET_SetStableBox)(handle, stable);
  return call_end(&call);
}

static void add_init_words(struct call* call, QV_FLOAT threshold, Rect_t display,
                           QV_BOOL had_create_device) {
  call_words(call, &threshold, sizeof threshold);
  call_word(call, display.width);
  call_word(call, display.height);
  call_word(call, had_create_device);
}

/* ---- The model ---- */

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

/* A model in memory has no pairs in front of it. has_hash is set by the caller, here and below: whether it is wanted. A
 * file is read to its end for it, else the header alone. */
static void identify_buffer(struct model_identity* model, const void* buffer, uint32_t size) {
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
static void identify_file(struct model_identity* model, const char* path) {
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

/* Whether the model is looked at. The hash over it takes a moment, and can be left out. */
static int begin_model(const struct call* call, struct model_identity* model) {
  if (call->function == 0) {
    return 0;
  }
  model->has_hash = the_recorder->options.model_hash != 0;
  return 1;
}

/* ---- Initialisation, and what comes after it ---- */

QV_S32 INTERPOSED(ALGO_DET_InitHandle)(void* handle, DetectionInfo_t* init_info) {
  struct model_identity model;
  struct call call;
  call_begin(&call, RECORDING_INIT_HANDLE, handle);
  if (init_info != NULL) {
    add_init_words(&call, init_info->threshold, init_info->disp_size, init_info->had_create_device);
    call.texts[0] = init_info->ipu_firmware_path;
    call.texts[1] = init_info->model;
    if (begin_model(&call, &model) &&
        memchr(init_info->model, 0, sizeof init_info->model) != NULL) {
      identify_file(&model, init_info->model);
      call.model = &model;
    }
  }
  call.result = REAL(ALGO_DET_InitHandle)(handle, init_info);
  return call_end(&call);
}

QV_S32 INTERPOSED(ALGO_DET_InitHandle2)(void* handle, DetectionInfo2_t* init_info) {
  struct model_identity model;
  struct call call;
  call_begin(&call, RECORDING_INIT_HANDLE2, handle);
  if (init_info != NULL) {
    add_init_words(&call, init_info->threshold, init_info->disp_size, init_info->had_create_device);
    call_word(&call, init_info->model_buffer_len);
    if (begin_model(&call, &model) && init_info->model_buffer != NULL) {
      identify_buffer(&model, init_info->model_buffer, init_info->model_buffer_len);
      call.model = &model;
    }
  }
  call.result = REAL(ALGO_DET_InitHandle2)(handle, init_info);
  return call_end(&call);
}

QV_S32 INTERPOSED(ALGO_DET_SetTracker)(void* handle, QV_S32 tk_type, QV_S32 md_type) {
  struct call call;
  call_begin(&call, RECORDING_SET_TRACKER, handle);
  call_word(&call, (uint32_t)tk_type);
  call_word(&call, (uint32_t)md_type);
  call.result = REAL(ALGO_DET_SetTracker)(handle, tk_type, md_type);
  return call_end(&call);
}

QV_S32 INTERPOSED(ALGO_DET_SetTracker2)(void* handle, DetTrackParams_t track_params) {
  struct call call;
  call_begin(&call, RECORDING_SET_TRACKER2, handle);
  call_word(&call, track_params.enable);
  call_word(&call, track_params.ignore_static_objects);
  call_words(&call, &track_params.static_sensitive, sizeof track_params.static_sensitive);
  call_word(&call, track_params.stable_bbox);
  call_words(&call, &track_params.stable_sensitive, sizeof track_params.stable_sensitive);
  call_word(&call, (uint32_t)track_params.ignore_frame_number);
  call.result = REAL(ALGO_DET_SetTracker2)(handle, track_params);
  return call_end(&call);
}

QV_S32 INTERPOSED(ALGO_DET_SetThreshold)(void* handle, QV_FLOAT threshold) {
  struct call call;
  call_begin(&call, RECORDING_SET_THRESHOLD, handle);
  call_words(&call, &threshold, sizeof threshold);
  call.result = REAL(ALGO_DET_SetThreshold)(handle, threshold);
  return call_end(&call);
}

QV_S32 INTERPOSED(ALGO_DET_Run)(void* handle, const ALGO_Input_t* algo_input, Box_t* bboxes,
                                QV_S32* num_bboxes) {
  const int is_recorded = frame_begin(handle, algo_input, bboxes, num_bboxes);
  const QV_S32 result = REAL(ALGO_DET_Run)(handle, algo_input, bboxes, num_bboxes);
  if (is_recorded) {
    frame_end(result);
  }
  return result;
}

QV_S32 INTERPOSED(ALGO_DET_DeinitHandle)(void* handle) {
  struct call call;
  call_begin(&call, RECORDING_DEINIT_HANDLE, handle);
  call.result = REAL(ALGO_DET_DeinitHandle)(handle);
  return call_end(&call);
}

QV_S32 INTERPOSED(ALGO_DET_SetStrictMode)(void* handle, DetStrictModeParams_t params) {
  struct call call;
  call_begin(&call, RECORDING_SET_STRICT_MODE, handle);
  call_word(&call, params.enable);
  call.result = REAL(ALGO_DET_SetStrictMode)(handle, params);
  return call_end(&call);
}
