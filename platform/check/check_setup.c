// SPDX-License-Identifier: Apache-2.0
/* check_setup.c - static information, the device, and what they refuse. */
#include <stdio.h>
#include <string.h>

#include "checks.h"
#include "report.h"
#include "watched_calls.h"

#define LONGEST_PATH 4096

/* Reports a call that succeeds although it cannot work. Returns 1 when it was refused. */
static int refused(QV_S32 result, const char* what) {
  if (result == 0) {
    finding(FAULT_NOT_REFUSED, "%s", what);
  }
  return result != 0;
}

static int compare_infos(struct session* session, const struct model_image* image) {
  QV_IPU_OfflineModelStaticInfo_s by_callback;
  QV_IPU_OfflineModelStaticInfo_s by_path;
  QV_S32 result = static_info(read_model, image->model, &by_callback);
  if (result != 0) {
    finding(FAULT_CALL_FAILS,
            "QV_IPU_GetOfflineModeStaticInfo by callback, without a device: %d (0x%x)", (int)result,
            (unsigned)result);
    return 0;
  }
  session->variable_size = by_callback.u32VariableBufferSize;
  result = static_info(NULL, session->path, &by_path);
  if (result != 0) {
    finding(FAULT_CALL_FAILS, "QV_IPU_GetOfflineModeStaticInfo by path: %d (0x%x)", (int)result,
            (unsigned)result);
  } else if (by_path.u32VariableBufferSize != by_callback.u32VariableBufferSize ||
             by_path.u32OfflineModelSize != by_callback.u32OfflineModelSize) {
    finding(FAULT_STATIC_INFO,
            "%u bytes of working memory and %u of model by path, %u and %u by callback",
            by_path.u32VariableBufferSize, by_path.u32OfflineModelSize,
            by_callback.u32VariableBufferSize, by_callback.u32OfflineModelSize);
  } else if (by_callback.u32OfflineModelSize > image->size) {
    finding(FAULT_STATIC_INFO, "a model of %u bytes, where the file has %zu",
            by_callback.u32OfflineModelSize, image->size);
  } else {
    proven("static information without a device, the same by path and by callback: %u bytes",
           session->variable_size);
  }
  return 1;
}

static void check_calls_without_device(const struct model_image* image) {
  QV_U32 channel = 0;
  const int no_device = refused(destroy_device(), "QV_IPU_DestroyDevice without a device");
  const int no_channel = refused(create_channel(&channel, read_model, image->model),
                                 "QV_IPU_CreateCHN without a device");
  if (no_device && no_channel) {
    proven("calls that need a device are refused without one");
  }
}

int check_model(struct session* session) {
  struct model_image image;
  report_stage(FAULT_CALL_FAILS, "the model's static information");
  if (map_model(session->path, &image) != NULL) {
    finding(FAULT_CALL_FAILS, "%s cannot be read any more", session->path);
    return 0;
  }
  const int goes_on = compare_infos(session, &image);
  if (goes_on) {
    report_stage(FAULT_NOT_REFUSED, "calls without a device");
    check_calls_without_device(&image);
  } else {
    not_proven("all that needs a model");
  }
  unmap_model(&image);
  return goes_on;
}

int check_device(struct session* session) {
  report_stage(FAULT_CALL_FAILS, "the device");
  const QV_S32 result = create_device(session->variable_size, session->firmware);
  if (result != 0) {
    finding(FAULT_CALL_FAILS, "QV_IPU_CreateDevice returned %d (0x%x)", (int)result,
            (unsigned)result);
    not_proven("all that needs a device");
    return 0;
  }
  if (create_device(session->variable_size, session->firmware) == 0) {
    finding(FAULT_SECOND_DEVICE, "QV_IPU_CreateDevice returned 0 for a second one");
  } else {
    proven("a device, and no second one");
  }
  return 1;
}

/* Returns 1 when neither call takes the model. */
static int is_refused(QV_IPU_ReadFunc read, char* path_or_context, const char* what) {
  QV_IPU_OfflineModelStaticInfo_s info;
  QV_U32 channel = 0;
  char text[80];
  snprintf(text, sizeof text, "QV_IPU_GetOfflineModeStaticInfo with %s", what);
  const int without_info = refused(static_info(read, path_or_context, &info), text);
  snprintf(text, sizeof text, "QV_IPU_CreateCHN with %s", what);
  const QV_S32 result = create_channel(&channel, read, path_or_context);
  if (result == 0) {
    destroy_channel(channel);
  }
  return refused(result, text) && without_info;
}

void check_refused_models(struct session* session) {
  struct model_image image;
  char missing[LONGEST_PATH];
  report_stage(FAULT_NOT_REFUSED, "models that cannot be read");
  if (map_model(session->path, &image) != NULL) {
    not_proven("models that cannot be read");
    return;
  }
  snprintf(missing, sizeof missing, "%s.missing", session->path);
  int all = is_refused(NULL, missing, "a path that names no file");
  all &= is_refused(read_nothing, image.model, "a callback that fails");
  image.model[0] = '?';
  all &= is_refused(read_model, image.model, "no start pattern");
  unmap_model(&image);
  if (all) {
    proven("models that cannot be read, or are none, are refused");
  }
}
