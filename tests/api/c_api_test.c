/* c_api_test.c - the public interface as a C program uses it: a whole life of a handle.
 * scripted_scene.cpp is the camera; public_api_test.cpp has the finer cases. */
#include <stdio.h>

#include "olvex_det.h"

int next_frame(const InputAttr_t* format, ALGO_Input_t* frame);

static int failures = 0;

#define CHECK(condition)                                              \
  do {                                                                \
    if (!(condition)) {                                               \
      fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition); \
      ++failures;                                                     \
    }                                                                 \
  } while (0)

int main(int argc, char** argv) {
  Box_t boxes[ALGO_DET_MAX_BOXES];
  const DetTrackParams_t track = {1, 0, 0.5f, 1, 0.25f, 2};
  const DetStrictModeParams_t relaxed = {0};
  DetectionInfo_t info = {"", "", 0.9f, {1024, 256}, 0};
  DetectionInfo2_t from_memory = {NULL, 0, 0.9f, {256, 128}, 0};
  InputAttr_t format = {0, 0, QV_IPU_FORMAT_UNKNOWN};
  ALGO_Input_t frame;
  QV_S32 count = -1;
  void* handle = NULL;

  if (argc != 2)
    return 2;
  snprintf(info.model, sizeof info.model, "%s", argv[1]);
  CHECK(ALGO_DET_InitHandle2(NULL, &from_memory) == E_ALGO_HANDLE_NULL);
  CHECK(ALGO_DET_CreateHandle(&handle) == E_ALGO_SUCCESS);
  CHECK(ALGO_DET_InitHandle(handle, &info) == E_ALGO_SUCCESS);
  CHECK(ALGO_DET_GetInputAttr(handle, &format) == E_ALGO_SUCCESS);
  CHECK(format.width == 256 && format.height == 128 && format.format == QV_IPU_FORMAT_GRAY);
  CHECK(ALGO_DET_SetThreshold(handle, 0.5f) == E_ALGO_SUCCESS);
  CHECK(ALGO_DET_SetStrictMode(handle, relaxed) == E_ALGO_SUCCESS);
  CHECK(ALGO_DET_SetTracker2(handle, track) == E_ALGO_SUCCESS);
  CHECK(next_frame(&format, &frame));
  /* Records by value arrive whole: with ignore_frame_number 2 the first sight is not reported. */
  CHECK(ALGO_DET_Run(handle, &frame, boxes, &count) == E_ALGO_SUCCESS && count == 0);

  CHECK(ALGO_DET_SetTracker(handle, 0, 0) == E_ALGO_SUCCESS);
  CHECK(ALGO_DET_SetStableBox(handle, 0) == E_ALGO_SUCCESS);
  CHECK(ALGO_DET_Run(handle, &frame, boxes, &count) == E_ALGO_SUCCESS && count == 1);
  CHECK(boxes[0].x == 32 && boxes[0].y == 32 && boxes[0].width == 96 && boxes[0].height == 64);
  CHECK(boxes[0].class_id == 2 && boxes[0].score == 0.75f && boxes[0].pts == frame.pts);
  CHECK(ALGO_DET_DeinitHandle(handle) == E_ALGO_SUCCESS);
  CHECK(ALGO_DET_ReleaseHandle(handle) == E_ALGO_SUCCESS);
  return failures == 0 ? 0 : 1;
}
