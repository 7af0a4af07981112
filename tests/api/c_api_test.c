/* c_api_test.c - the public interface as a C program uses it: a whole life from a file and one from
 * memory. scripted_scene.h stands in for the camera; public_api_test.cpp has the finer cases. */
#define _POSIX_C_SOURCE 200809L

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "olvex_det.h"
#include "tests/api/scripted_scene.h"

static int failures = 0;

#define CHECK(condition)                                              \
  do {                                                                \
    if (!(condition)) {                                               \
      fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition); \
      ++failures;                                                     \
    }                                                                 \
  } while (0)

/* Options, one frame, end of life: the same for both ways to initialise. */
static void run_and_deinit(void* handle, QV_U32 width, QV_U32 height) {
  Box_t boxes[ALGO_DET_MAX_BOXES];
  const DetTrackParams_t track = {1, 0, 0.5f, 1, 0.25f, 2};
  const DetStrictModeParams_t relaxed = {0};
  InputAttr_t format = {0, 0, QV_IPU_FORMAT_UNKNOWN};
  ALGO_Input_t frame;
  QV_S32 count = -1;

  CHECK(ALGO_DET_GetInputAttr(handle, &format) == E_ALGO_SUCCESS);
  CHECK(format.width == 256 && format.height == 128 && format.format == QV_IPU_FORMAT_GRAY);
  CHECK(ALGO_DET_SetThreshold(handle, 0.5f) == E_ALGO_SUCCESS);
  CHECK(ALGO_DET_SetStrictMode(handle, relaxed) == E_ALGO_SUCCESS);
  CHECK(ALGO_DET_SetTracker2(handle, track) == E_ALGO_SUCCESS);

  CHECK(next_frame(&format, &frame));
  /* Records by value arrive whole: with ignore_frame_number 2 the first sight is not reported. */
  CHECK(ALGO_DET_Run(handle, &frame, boxes, &count) == E_ALGO_SUCCESS);
  CHECK(count == 0);

  CHECK(ALGO_DET_SetTracker(handle, 0, 0) == E_ALGO_SUCCESS);
  CHECK(ALGO_DET_SetStableBox(handle, 0) == E_ALGO_SUCCESS);
  CHECK(ALGO_DET_Run(handle, &frame, boxes, &count) == E_ALGO_SUCCESS);
  CHECK(count == 1);
  CHECK(boxes[0].x == 8 * width / 256 && boxes[0].width == 24 * width / 256);
  CHECK(boxes[0].y == 16 * height / 128 && boxes[0].height == 32 * height / 128);
  CHECK(boxes[0].class_id == 2 && boxes[0].score == 0.75f && boxes[0].pts == frame.pts);

  CHECK(ALGO_DET_DeinitHandle(handle) == E_ALGO_SUCCESS);
  CHECK(ALGO_DET_ReleaseHandle(handle) == E_ALGO_SUCCESS);
  CHECK(scene_leftovers() == 0);
}

int main(int argc, char** argv) {
  void* handle = NULL;
  DetectionInfo_t from_file;
  DetectionInfo2_t from_memory;
  int file;

  if (argc != 2)
    return 2;
  memset(&from_file, 0, sizeof from_file);
  snprintf(from_file.model, sizeof from_file.model, "%s", argv[1]);
  from_file.threshold = 0.9f;
  from_file.disp_size.width = 1024;
  from_file.disp_size.height = 256;
  CHECK(ALGO_DET_CreateHandle(&handle) == E_ALGO_SUCCESS);
  CHECK(ALGO_DET_InitHandle(NULL, &from_file) == E_ALGO_HANDLE_NULL);
  CHECK(ALGO_DET_InitHandle(handle, &from_file) == E_ALGO_SUCCESS);
  run_and_deinit(handle, 1024, 256);

  memset(&from_memory, 0, sizeof from_memory);
  file = open(argv[1], O_RDONLY);
  from_memory.model_buffer_len = (QV_U32)lseek(file, 0, SEEK_END);
  from_memory.model_buffer =
      mmap(NULL, from_memory.model_buffer_len, PROT_READ, MAP_PRIVATE, file, 0);
  close(file);
  from_memory.disp_size.width = 256;
  from_memory.disp_size.height = 128;
  CHECK(from_memory.model_buffer != MAP_FAILED);
  CHECK(ALGO_DET_CreateHandle(&handle) == E_ALGO_SUCCESS);
  CHECK(ALGO_DET_InitHandle2(handle, NULL) == E_ALGO_INPUT_DATA_NULL);
  CHECK(ALGO_DET_InitHandle2(handle, &from_memory) == E_ALGO_SUCCESS);
  run_and_deinit(handle, 256, 128);

  CHECK(scene_violations() == 0);
  return failures == 0 ? 0 : 1;
}
