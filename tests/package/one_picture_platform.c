// SPDX-License-Identifier: Apache-2.0
/* one_picture_platform.c - a chip's library with one network and one picture: every frame shows the same two boxes.
 * C99, as an SDK's own would be; compiled against whichever platform headers come first. */
#include <stddef.h>
#include <string.h>

#include "qv_ipu.h"
#include "qv_sys.h"

#define WIDTH 256u
#define HEIGHT 128u
#define ROWS 2u
#define OUTPUTS 5u
#define FAILED 0x1001

static float boxes[ROWS * 4] = {8, 16, 40, 48, 100, 20, 150, 60};
static float classes[ROWS] = {2, 1};
static float scores[ROWS] = {0.75f, 0.625f};
static float indices[ROWS] = {0, 1};
static float count[1] = {2};

static const struct {
  const char* name;
  float* data;
  QV_U32 height, width, channels;
} outputs[OUTPUTS] = {{"boxes", boxes, 1, ROWS, 4},
                      {"classes", classes, 1, ROWS, 1},
                      {"scores", scores, 1, ROWS, 1},
                      {"indices", indices, ROWS, 1, 1},
                      {"count", count, 1, 1, 1}};
static int is_device_up, is_channel_open;

QV_S32 QV_IPU_CreateDevice(QV_IPU_DevAttr_s* attributes, QV_IPU_ReadFunc read, char* firmware,
                           QV_U32 reserved) {
  (void)attributes, (void)read, (void)firmware, (void)reserved;
  if (is_device_up) {
    return FAILED;
  }
  is_device_up = 1;
  return 0;
}

QV_S32 QV_IPU_DestroyDevice(void) {
  if (!is_device_up) {
    return FAILED;
  }
  is_channel_open = 0;
  is_device_up = 0;
  return 0;
}

QV_S32 QV_IPU_GetOfflineModeStaticInfo(QV_IPU_ReadFunc read, char* model,
                                       QV_IPU_OfflineModelStaticInfo_s* info) {
  char start[4];
  memset(info, 0, sizeof *info);
  info->u32VariableBufferSize = 4096;
  info->u32OfflineModelSize = sizeof start;
  return read == NULL || (read(start, 0, sizeof start, model) == 0 && memcmp(start, "QTNX", 4) == 0)
             ? 0
             : FAILED;
}

QV_S32 QV_IPU_CreateCHN(QV_U32* channel, QV_IPUChnAttr_s* attributes, QV_IPU_ReadFunc read,
                        char* model) {
  (void)attributes, (void)read, (void)model;
  if (!is_device_up || is_channel_open) {
    return FAILED;
  }
  *channel = 0;
  is_channel_open = 1;
  return 0;
}

QV_S32 QV_IPU_DestroyCHN(QV_U32 channel) {
  (void)channel;
  is_channel_open = 0;
  return 0;
}

static void describe(QV_IPU_TensorDesc_t* tensor, const char* name, QV_IPU_ELEMENT_FORMAT format,
                     QV_U32 height, QV_U32 width, QV_U32 channels, QV_U32 element) {
  tensor->u32TensorDim = 4;
  tensor->eElmFormat = format;
  tensor->u32TensorShape[0] = 1;
  tensor->u32TensorShape[1] = height;
  tensor->u32TensorShape[2] = width;
  tensor->u32TensorShape[3] = channels;
  strncpy(tensor->name, name, sizeof tensor->name - 1);
  tensor->fScalar = 1.0f;
  tensor->u32BufSize = height * width * channels * element;
  tensor->s32AlignedBufSize = (QV_S32)tensor->u32BufSize;
}

QV_S32 QV_IPU_GetInOutTensorDesc(QV_U32 channel, QV_IPU_SubNet_InputOutputDesc_t* description) {
  QV_U32 k;
  (void)channel;
  memset(description, 0, sizeof *description);
  description->u32InputTensorCount = 1;
  description->u32OutputTensorCount = OUTPUTS;
  describe(&description->astQV_InputTensorDescs[0], "picture", QV_IPU_FORMAT_GRAY, HEIGHT, WIDTH, 1,
           1);
  for (k = 0; k < OUTPUTS; ++k) {
    describe(&description->astQV_OutputTensorDescs[k], outputs[k].name, QV_IPU_FORMAT_FP32,
             outputs[k].height, outputs[k].width, outputs[k].channels, sizeof(float));
  }
  return 0;
}

QV_S32 QV_IPU_GetOutputTensors(QV_U32 channel, QV_IPU_TensorVector_t* tensors) {
  QV_U32 k;
  (void)channel;
  memset(tensors, 0, sizeof *tensors);
  tensors->u32TensorCount = OUTPUTS;
  for (k = 0; k < OUTPUTS; ++k) {
    tensors->astArrayTensors[k].ptTensorData[0] = outputs[k].data;
  }
  return 0;
}

QV_S32 QV_IPU_PutOutputTensors(QV_U32 channel, QV_IPU_TensorVector_t* tensors) {
  (void)channel, (void)tensors;
  return 0;
}

QV_S32 QV_IPU_Invoke(QV_U32 channel, QV_IPU_TensorVector_t* input, QV_IPU_TensorVector_t* output) {
  (void)channel, (void)output;
  return input->astArrayTensors[0].ptTensorData[0] != NULL ? 0 : FAILED;
}

QV_S32 QV_SYS_FlushInvCache(void* address, QV_U32 size) {
  (void)address, (void)size;
  return 0;
}
