// SPDX-License-Identifier: Apache-2.0
/* smallest.c - the smallest application in C: boxes of one raw frame.
 *
 * Usage: smallest MODEL FRAME.bin
 * FRAME.bin is one picture in the model's own input format, as the library's frame dumps are. The
 * boxes go to standard error, as the library's diagnostics use standard output. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "olvex_det.h"

/* Reads a whole file; the caller frees it. NULL when it cannot be read. */
static void* read_file(const char* path, QV_U32* size) {
  FILE* file = fopen(path, "rb");
  void* bytes = NULL;
  long length;

  if (file == NULL) {
    return NULL;
  }
  if (fseek(file, 0, SEEK_END) == 0 && (length = ftell(file)) > 0 &&
      fseek(file, 0, SEEK_SET) == 0 && (bytes = malloc((size_t)length)) != NULL) {
    *size = (QV_U32)fread(bytes, 1, (size_t)length, file);
  }
  fclose(file);
  return bytes;
}

int main(int argc, char** argv) {
  static Box_t boxes[ALGO_DET_MAX_BOXES];
  DetectionInfo_t info;
  ALGO_Input_t frame;
  void* detector = NULL;
  QV_S32 count = 0;
  QV_S32 result;
  QV_S32 i;

  if (argc != 3) {
    fprintf(stderr, "usage: %s MODEL FRAME.bin\n", argv[0]);
    return 2;
  }
  memset(&frame, 0, sizeof(frame));
  frame.p_vir_addr = read_file(argv[2], &frame.buf_size);
  if (frame.p_vir_addr == NULL) {
    fprintf(stderr, "%s: cannot read the frame %s\n", argv[0], argv[2]);
    return 1;
  }
  memset(&info, 0, sizeof(info));
  snprintf(info.model, sizeof(info.model), "%s", argv[1]);
  info.threshold = 0.5f;
  info.disp_size.width = 1920;
  info.disp_size.height = 1080;

  ALGO_DET_CreateHandle(&detector);
  result = ALGO_DET_InitHandle(detector, &info);
  if (result == E_ALGO_SUCCESS) {
    result = ALGO_DET_Run(detector, &frame, boxes, &count);
  }
  for (i = 0; i < count; ++i) {
    fprintf(stderr, "class %u score %.2f at %u,%u size %ux%u\n", boxes[i].class_id,
            (double)boxes[i].score, boxes[i].x, boxes[i].y, boxes[i].width, boxes[i].height);
  }
  if (result != E_ALGO_SUCCESS) {
    fprintf(stderr, "%s: failed with code %d, see algo_types.h\n", argv[0], result);
  }
  ALGO_DET_DeinitHandle(detector);
  free(frame.p_vir_addr);
  return result == E_ALGO_SUCCESS ? 0 : 1;
}
