// SPDX-License-Identifier: Apache-2.0
/* camera_service.c - a camera's application in one source: two models on every frame over a device of its own,
 * options that change between frames, failures, models that are exchanged, a clean end on SIGTERM.
 * Usage: camera_service MODEL MODEL [FRAMES [PICTURES [BOXES]]]
 *   PICTURES: raw gray or NV12 as the models take them, - for standard input, "made" for pictures that are made
 *   BOXES: a file for them. It logs to syslog and to standard error
 * A frame that cannot be dumped is lost, and options that contradict each other are set again. A platform failure
 * is retried on a new handle, as the library has closed the channel, then with everything rebuilt. That also
 * follows where a handle cannot be initialised, as the library may have destroyed the device. A model whose outputs no decoder takes, or that fails
 * three times in a row, is given up; without a model or a device the service ends with code 1. A lack of memory
 * is an exception of C++ and ends it. MODEL.new takes MODEL's place when it runs a frame, or becomes MODEL.bad. */
#define _DEFAULT_SOURCE
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include "olvex_det.h"

enum { MODELS = 2, TRIES = 3, PAUSE_MS = 20, FRAMES_PER_PROFILE = 50, FRAMES_PER_LOOK = 25 };

/* By day and by night. */
static const QV_FLOAT kThresholds[] = {0.5f, 0.4f};
static const DetTrackParams_t kTracking[] = {{1, 0, 0.0f, 0, 0.0f, 1}, {1, 0, 0.9f, 1, 0.7f, 2}};

struct model {
  const char* path;
  void* handle;      /* NULL: not open */
  unsigned failures; /* in a row */
  int is_given_up;
};

struct service {
  struct model models[MODELS];
  int has_device;
  QV_U32 working_memory;  /* bytes that the device was created for */
  InputAttr_t input;      /* of all models */
  QV_U32 pitch;           /* bytes of a row of pixels */
  unsigned char* picture; /* NULL until the first model is open */
  QV_U32 picture_size;    /* bytes */
  unsigned long frames;
  FILE* pictures; /* NULL: they are made */
  FILE* boxes;
};

static volatile sig_atomic_t is_stopping;

static void stop(int number) {
  (void)number;
  is_stopping = 1;
}

static void set_options(const struct service* service, const struct model* model) {
  const unsigned long profile = service->frames / FRAMES_PER_PROFILE % 2;
  ALGO_DET_SetThreshold(model->handle, kThresholds[profile]);
  ALGO_DET_SetTracker2(model->handle, kTracking[profile]);
}

static void close_model(struct model* model) {
  if (model->handle != NULL) {
    ALGO_DET_DeinitHandle(model->handle);
    model->handle = NULL;
  }
}

static void give_up(struct model* model, const char* why) {
  syslog(LOG_ERR, "%s is given up: %s", model->path, why);
  close_model(model);
  model->is_given_up = 1;
}

/* Waits longer each time, or gives the model up. Returns whether to try again. */
static int try_again(struct model* model) {
  syslog(LOG_WARNING, "%s fails", model->path);
  if (++model->failures >= TRIES) {
    give_up(model, "it fails again and again");
    return 0;
  }
  const struct timespec pause = {0, (long)model->failures * PAUSE_MS * 1000000};
  nanosleep(&pause, NULL); /* a signal may end it */
  return 1;
}

/* The first model says how large pictures are, and the others have to agree. */
static int takes_pictures(struct service* service, const InputAttr_t* input) {
  if (service->picture != NULL) {
    return memcmp(&service->input, input, sizeof *input) == 0;
  }
  const int is_nv12 = input->format == QV_IPU_FORMAT_NV12;
  service->input = *input;
  service->pitch = is_nv12 ? (input->width + 15) / 16 * 16 : input->width;
  service->picture_size = service->pitch * input->height * (is_nv12 ? 3 : 2) / 2;
  service->picture = calloc(1, service->picture_size);
  return service->picture != NULL && (is_nv12 || input->format == QV_IPU_FORMAT_GRAY);
}

/* Opens the file as the model; returns a code of the library. */
static QV_S32 open_model(struct service* service, struct model* model, const char* path) {
  DetectionInfo_t info = {.disp_size = {1920, 1080}, .had_create_device = 1};
  InputAttr_t input = {0, 0, QV_IPU_FORMAT_UNKNOWN};
  snprintf(info.model, sizeof info.model, "%s", path);
  QV_S32 result = ALGO_DET_CreateHandle(&model->handle);
  if (result == E_ALGO_SUCCESS) {
    result = ALGO_DET_InitHandle(model->handle, &info);
  }
  if (result == E_ALGO_SUCCESS) {
    ALGO_DET_GetInputAttr(model->handle, &input);
    set_options(service, model);
    result = takes_pictures(service, &input) ? E_ALGO_SUCCESS : E_ALGO_INVALID_INPUT_SIZE;
  }
  if (result != E_ALGO_SUCCESS) {
    syslog(LOG_WARNING, "%s cannot be opened, code %d", path, result);
    close_model(model);
  }
  return result;
}

/* Bytes; 0 for a file that is no model here. */
static QV_U32 working_memory_of(const char* path) {
  QV_IPU_OfflineModelStaticInfo_s info = {0};
  QV_IPU_GetOfflineModeStaticInfo(NULL, (char*)path, &info);
  return info.u32VariableBufferSize;
}

/* One device for all models, so that they can come and go in any order. */
static int create_device(struct service* service) {
  static char firmware[] = "/config/dla/ipu_firmware.bin";
  /* How frames lie in memory, the same as when the library creates the device. */
  QV_IPU_DevAttr_s attributes = {.u32YUV420_W_Pitch_Alignment = 16,
                                 .u32YUV420_H_Pitch_Alignment = 2,
                                 .u32XRGB_W_Pitch_Alignment = 16};
  for (int k = 0; k < MODELS; ++k) {
    const QV_U32 bytes = working_memory_of(service->models[k].path);
    service->working_memory = bytes > service->working_memory ? bytes : service->working_memory;
  }
  attributes.u32MaxVariableBufSize = service->working_memory;
  service->has_device = QV_IPU_CreateDevice(&attributes, NULL, firmware, 0) == 0;
  return service->has_device;
}

static void take_down(struct service* service) {
  for (int k = 0; k < MODELS; ++k) {
    close_model(&service->models[k]);
  }
  if (service->has_device) {
    QV_IPU_DestroyDevice(); /* fails where the library has done it, which is as good */
  }
  service->has_device = 0;
}

/* Device and models from the start. Returns 0 when the service has to end. */
static int bring_up(struct service* service) {
  struct model device = {"the device", NULL, 0, 0};
  while (!is_stopping && !device.is_given_up) {
    int open_models = 0;
    take_down(service);
    struct model* failed = create_device(service) ? NULL : &device;
    for (int k = 0; k < MODELS && failed == NULL; ++k) {
      struct model* const model = &service->models[k];
      if (!model->is_given_up && open_model(service, model, model->path) != E_ALGO_SUCCESS) {
        failed = model;
      }
      open_models += model->handle != NULL;
    }
    if (failed == NULL) {
      return open_models > 0;
    }
    try_again(failed);
  }
  return 0;
}

/* After a frame that ended with the code. Returns 0 when the service has to end. */
static int recover(struct service* service, struct model* model, QV_S32 code) {
  syslog(LOG_WARNING, "frame %lu of %s failed, code %d", service->frames, model->path, code);
  if (code == E_ALGO_FILEIO_ERROR || code == E_ALGO_INVALID_PARAM) {
    set_options(service, model);
    return 1;
  }
  if (code == E_ALGO_LOADMODEL_FAIL || code == E_ALGO_INVALID_OUTPUT_SIZE ||
      code == E_ALGO_INVALID_DECODE_MODE) {
    give_up(model, "its outputs cannot be decoded");
    return 1;
  }
  close_model(model);
  return !try_again(model) ||
         (model->failures == 1 && open_model(service, model, model->path) == E_ALGO_SUCCESS) ||
         bring_up(service);
}

/* A bright square on its way. */
static int make_picture(struct service* service) {
  const QV_U32 side = service->input.height / 4;
  const size_t left = service->frames * 4 % (service->input.width / 2);
  memset(service->picture, 96, service->picture_size);
  for (QV_U32 row = side; row < 2 * side; ++row) {
    memset(service->picture + (size_t)row * service->pitch + left, 220, side);
  }
  return 1;
}

static QV_S32 run_frame(const struct service* service, const struct model* model, FILE* file) {
  Box_t boxes[ALGO_DET_MAX_BOXES];
  const ALGO_Input_t frame = {service->picture, 0, service->picture_size, service->frames * 40000};
  QV_S32 count = 0;
  const QV_S32 result = ALGO_DET_Run(model->handle, &frame, boxes, &count);
  for (const Box_t* box = boxes; file != NULL && box != boxes + count; ++box) {
    fprintf(file, "%lu %s %u %u %u %u %u %.9g\n", service->frames, model->path, box->class_id,
            box->x, box->y, box->width, box->height, (double)box->score);
  }
  return result;
}

/* Exchanges a model that has a new file. Returns 0 when the service has to end. */
static int look_for_new_model(struct service* service, struct model* model) {
  struct model candidate = {model->path, NULL, 0, 0};
  char path[256], bad_path[256];
  QV_S32 opened = E_ALGO_SUCCESS;
  snprintf(path, sizeof path, "%s.new", model->path);
  snprintf(bad_path, sizeof bad_path, "%s.bad", model->path);
  if (access(path, F_OK) != 0) {
    return 1;
  }
  /* What can be known before is, since a model that cannot be opened takes the device down. */
  const QV_U32 memory = working_memory_of(path);
  if (memory != 0 && memory <= service->working_memory) {
    opened = open_model(service, &candidate, path);
  }
  if (candidate.handle != NULL && run_frame(service, &candidate, NULL) == E_ALGO_SUCCESS &&
      rename(path, model->path) == 0) {
    syslog(LOG_INFO, "%s is exchanged", model->path);
    close_model(model);
    *model = candidate;
    return 1;
  }
  syslog(LOG_ERR, "%s does not run here, and is not taken", path);
  close_model(&candidate);
  rename(path, bad_path);
  return opened == E_ALGO_SUCCESS || bring_up(service);
}

/* Returns 0 when the service has to end. */
static int run_models(struct service* service) {
  int models_left = 0;
  for (int k = 0; k < MODELS; ++k) {
    struct model* const model = &service->models[k];
    if (service->frames % FRAMES_PER_LOOK == 0 && !look_for_new_model(service, model)) {
      return 0;
    }
    if (service->frames % FRAMES_PER_PROFILE == 0 && model->handle != NULL) {
      set_options(service, model);
    }
    const QV_S32 result = model->is_given_up ? 0 : run_frame(service, model, service->boxes);
    if (result != 0 && !recover(service, model, result)) {
      return 0;
    }
    model->failures = result == 0 ? 0 : model->failures;
    models_left += !model->is_given_up;
  }
  return models_left > 0;
}

int main(int argc, char** argv) {
  const struct sigaction action = {.sa_handler = stop};
  openlog("camera_service", LOG_PERROR, LOG_DAEMON);
  if (argc < 3 || argc > 6) {
    syslog(LOG_ERR, "usage: camera_service MODEL MODEL [FRAMES [PICTURES [BOXES]]]");
    return 2;
  }
  struct service service = {.models = {{.path = argv[1]}, {.path = argv[2]}}};
  const unsigned long most_frames = argc > 3 ? strtoul(argv[3], NULL, 10) : ULONG_MAX;
  const int is_made = argc < 5 || strcmp(argv[4], "made") == 0;
  if (!is_made) {
    service.pictures = strcmp(argv[4], "-") == 0 ? stdin : fopen(argv[4], "rb");
  }
  service.boxes = argc > 5 ? fopen(argv[5], "w") : NULL;
  if ((!is_made && service.pictures == NULL) || (argc > 5 && service.boxes == NULL)) {
    syslog(LOG_ERR, "PICTURES or BOXES cannot be opened: %m");
    return 2;
  }
  sigaction(SIGTERM, &action, NULL);
  sigaction(SIGINT, &action, NULL);
  /* The library's own lines: a reader that stops would stop the frames. */
  int is_running = freopen("/dev/null", "w", stdout) != NULL && bring_up(&service);
  while (is_running && !is_stopping && service.frames < most_frames &&
         (is_made ? make_picture(&service)
                  : fread(service.picture, service.picture_size, 1, service.pictures) == 1)) {
    is_running = run_models(&service);
    ++service.frames;
  }
  take_down(&service);
  if (service.boxes != NULL && fclose(service.boxes) != 0) {
    syslog(LOG_ERR, "the boxes cannot be written: %m");
  }
  free(service.picture);
  syslog(LOG_INFO, "%lu frames", service.frames);
  return is_running || is_stopping ? 0 : 1;
}
