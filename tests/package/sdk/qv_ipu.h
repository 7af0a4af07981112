// SPDX-License-Identifier: Apache-2.0
/* qv_ipu.h - the accelerator of a chip maker's SDK: plain enumerations, limits as macros, more calls than the
 * library uses. */
#ifndef __QV_IPU__
#define __QV_IPU__

#include "qv_types.h"

#define QV_IPU_MAX_TENSORS 60
#define QV_IPU_MAX_DIMENSIONS 10
#define QV_IPU_TENSOR_NAME_SIZE 256
#define QV_IPU_OFFLINE_MODEL_START "not the library's"

typedef enum {
  QV_IPU_FORMAT_U8,
  QV_IPU_FORMAT_NV12,
  QV_IPU_FORMAT_INT16,
  QV_IPU_FORMAT_INT32,
  QV_IPU_FORMAT_INT8,
  QV_IPU_FORMAT_FP32,
  QV_IPU_FORMAT_UNKNOWN,
  QV_IPU_FORMAT_ARGB8888,
  QV_IPU_FORMAT_ABGR8888,
  QV_IPU_FORMAT_GRAY,
  QV_IPU_FORMAT_COMPLEX64,
} QV_IPU_ELEMENT_FORMAT;

typedef enum { QV_IPU_LAYOUT_NHWC, QV_IPU_LAYOUT_NCHW } QV_IPU_LAYOUT_TYPE;

typedef int (*QV_IPU_ReadFunc)(void* dst_buf, int offset, int size, char* ctx);

typedef struct QV_IPU_DevAttr_s {
  QV_U32 u32MaxVariableBufSize;
  QV_U32 u32YUV420_W_Pitch_Alignment, u32YUV420_H_Pitch_Alignment, u32XRGB_W_Pitch_Alignment;
  QV_U32 u32VariableGroup, u32CoreMask;
  QV_U32 au32Reserve[6];
} QV_IPU_DevAttr_s;

typedef struct QV_IPU_OfflineModelStaticInfo_s {
  QV_U32 u32VariableBufferSize, u32OfflineModelSize;
  QV_U32 eBatchMode, u32TotalBatchNumTypes, au32BatchNumTypes[10], eIpuWorkMode;
  QV_U32 au32Reserve[8];
} QV_IPU_OfflineModelStaticInfo_s;

typedef struct QV_IPUChnAttr_s {
  QV_U32 u32SubNetId, u32OutputBufDepth, u32InputBufDepth, u32BatchMax;
  QV_U32 au32Reserve[8];
} QV_IPUChnAttr_s;

typedef struct QV_IPU_TensorDesc_s {
  QV_U32 u32TensorDim;
  QV_IPU_ELEMENT_FORMAT eElmFormat;
  QV_U32 u32TensorShape[QV_IPU_MAX_DIMENSIONS];
  char name[QV_IPU_TENSOR_NAME_SIZE];
  QV_U32 u32InnerMostStride;
  QV_FLOAT fScalar;
  QV_S64 s64ZeroPoint;
  QV_S32 s32AlignedBufSize;
  QV_U32 u32BufSize;
  QV_U32 u32InputWidthAlignment, u32InputHeightAlignment;
  QV_IPU_LAYOUT_TYPE eLayoutType;
} QV_IPU_TensorDesc_t;

typedef struct QV_IPU_SubNet_InputOutputDesc_s {
  QV_U32 u32InputTensorCount, u32OutputTensorCount;
  QV_IPU_TensorDesc_t astQV_InputTensorDescs[QV_IPU_MAX_TENSORS];
  QV_IPU_TensorDesc_t astQV_OutputTensorDescs[QV_IPU_MAX_TENSORS];
} QV_IPU_SubNet_InputOutputDesc_t;

typedef struct QV_IPU_Tensor_s {
  void* ptTensorData[2];
  QV_PHY phyTensorAddr[2];
} QV_IPU_Tensor_t;

typedef struct QV_IPU_TensorVector_s {
  QV_U32 u32TensorCount;
  QV_IPU_Tensor_t astArrayTensors[QV_IPU_MAX_TENSORS];
} QV_IPU_TensorVector_t;

#ifdef __cplusplus
extern "C" {
#endif
QV_S32 QV_IPU_CreateDevice(QV_IPU_DevAttr_s* attr, QV_IPU_ReadFunc read, char* firmware,
                           QV_U32 reserved);
QV_S32 QV_IPU_DestroyDevice(void);
QV_S32 QV_IPU_GetOfflineModeStaticInfo(QV_IPU_ReadFunc read, char* model,
                                       QV_IPU_OfflineModelStaticInfo_s* info);
QV_S32 QV_IPU_CreateCHN(QV_U32* channel, QV_IPUChnAttr_s* attr, QV_IPU_ReadFunc read, char* model);
QV_S32 QV_IPU_DestroyCHN(QV_U32 channel);
QV_S32 QV_IPU_GetInOutTensorDesc(QV_U32 channel, QV_IPU_SubNet_InputOutputDesc_t* desc);
QV_S32 QV_IPU_GetInputTensors(QV_U32 channel, QV_IPU_TensorVector_t* vector);
QV_S32 QV_IPU_GetOutputTensors(QV_U32 channel, QV_IPU_TensorVector_t* vector);
QV_S32 QV_IPU_PutOutputTensors(QV_U32 channel, QV_IPU_TensorVector_t* vector);
QV_S32 QV_IPU_Invoke(QV_U32 channel, QV_IPU_TensorVector_t* input, QV_IPU_TensorVector_t* output);
#ifdef __cplusplus
}
#endif

#endif
