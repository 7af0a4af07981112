// SPDX-License-Identifier: Apache-2.0
/* olvex_platform.h - the chip's headers with the limits and numbers that this library relies on, in C99 and C++11.
 *
 * The chip's headers (qv_types.h, qv_sys.h, qv_ipu.h) come from platform/include or, with
 * OLVEX_PLATFORM_INCLUDE, from the chip maker's SDK. What a platform library was compiled with and what this
 * library is compiled with must agree to the byte: every value, size and offset below is compared, and a
 * difference ends the compilation with the name of what differs. */
#ifndef OLVEX_PLATFORM_H
#define OLVEX_PLATFORM_H

#include "olvex_layout.h"
#include "qv_ipu.h"
#include "qv_sys.h"
#include "qv_types.h"

#define OLVEX_MAX_TENSORS 60u       /* tensors that one description or vector can hold */
#define OLVEX_MAX_DIMENSIONS 10u    /* entries of a tensor shape */
#define OLVEX_TENSOR_NAME_SIZE 256u /* bytes of a tensor name; the last one may be in use too */

/* The bytes with which an offline model starts. */
#define OLVEX_OFFLINE_MODEL_START "QTNX"

/* How pictures lie in memory with the device that the library creates: bytes to whose multiples the rows
 * of NV12 and of the 4-byte formats are padded, and rows to which the Y plane of NV12 is. */
#define OLVEX_ROW_ALIGNMENT 16
#define OLVEX_NV12_ROWS_ALIGNMENT 2

#define OLVEX_PLATFORM_VALUE(name, value) \
  OLVEX_LAYOUT_ASSERT((int)(name) == (value), "platform headers: " #name " is not " #value)
#define OLVEX_PLATFORM_SIZE(type, size) \
  OLVEX_LAYOUT_ASSERT(sizeof(type) == (size), "platform headers: sizeof(" #type ") is not " #size)
#define OLVEX_PLATFORM_MEMBER(type, member, offset)       \
  OLVEX_LAYOUT_ASSERT(offsetof(type, member) == (offset), \
                      "platform headers: " #type "." #member " is not at byte " #offset)

OLVEX_PLATFORM_SIZE(QV_BOOL, 1);
OLVEX_PLATFORM_SIZE(QV_S16, 2);
OLVEX_PLATFORM_SIZE(QV_U32, 4);
OLVEX_PLATFORM_SIZE(QV_S32, 4);
OLVEX_PLATFORM_SIZE(QV_U64, 8);
OLVEX_PLATFORM_SIZE(QV_S64, 8);
OLVEX_PLATFORM_SIZE(QV_PHY, 8);
OLVEX_PLATFORM_SIZE(QV_FLOAT, 4);
OLVEX_LAYOUT_ASSERT((QV_BOOL)-1 > 0, "platform headers: QV_BOOL is signed");
OLVEX_LAYOUT_ASSERT((QV_U32)-1 > 0, "platform headers: QV_U32 is signed");
OLVEX_LAYOUT_ASSERT((QV_U64)-1 > 0, "platform headers: QV_U64 is signed");
OLVEX_LAYOUT_ASSERT((QV_PHY)-1 > 0, "platform headers: QV_PHY is signed");
OLVEX_LAYOUT_ASSERT((QV_S16)-1 < 0, "platform headers: QV_S16 is unsigned");
OLVEX_LAYOUT_ASSERT((QV_S32)-1 < 0, "platform headers: QV_S32 is unsigned");
OLVEX_LAYOUT_ASSERT((QV_S64)-1 < 0, "platform headers: QV_S64 is unsigned");
#ifdef __cplusplus
OLVEX_LAYOUT_ASSERT((QV_FLOAT)0.5 > 0, "platform headers: QV_FLOAT has no fractions");
#endif

OLVEX_PLATFORM_SIZE(QV_IPU_ELEMENT_FORMAT, 4);
OLVEX_PLATFORM_VALUE(QV_IPU_FORMAT_U8, 0);
OLVEX_PLATFORM_VALUE(QV_IPU_FORMAT_NV12, 1);
OLVEX_PLATFORM_VALUE(QV_IPU_FORMAT_INT16, 2);
OLVEX_PLATFORM_VALUE(QV_IPU_FORMAT_INT32, 3);
OLVEX_PLATFORM_VALUE(QV_IPU_FORMAT_INT8, 4);
OLVEX_PLATFORM_VALUE(QV_IPU_FORMAT_FP32, 5);
OLVEX_PLATFORM_VALUE(QV_IPU_FORMAT_UNKNOWN, 6);
OLVEX_PLATFORM_VALUE(QV_IPU_FORMAT_ARGB8888, 7);
OLVEX_PLATFORM_VALUE(QV_IPU_FORMAT_ABGR8888, 8);
OLVEX_PLATFORM_VALUE(QV_IPU_FORMAT_GRAY, 9);
OLVEX_PLATFORM_VALUE(QV_IPU_FORMAT_COMPLEX64, 10);
OLVEX_PLATFORM_SIZE(QV_IPU_LAYOUT_TYPE, 4);
OLVEX_PLATFORM_VALUE(QV_IPU_LAYOUT_NHWC, 0);
OLVEX_PLATFORM_VALUE(QV_IPU_LAYOUT_NCHW, 1);

OLVEX_PLATFORM_SIZE(QV_IPU_DevAttr_s, 48);
OLVEX_PLATFORM_MEMBER(QV_IPU_DevAttr_s, u32MaxVariableBufSize, 0);
OLVEX_PLATFORM_MEMBER(QV_IPU_DevAttr_s, u32YUV420_W_Pitch_Alignment, 4);
OLVEX_PLATFORM_MEMBER(QV_IPU_DevAttr_s, u32YUV420_H_Pitch_Alignment, 8);
OLVEX_PLATFORM_MEMBER(QV_IPU_DevAttr_s, u32XRGB_W_Pitch_Alignment, 12);
OLVEX_PLATFORM_MEMBER(QV_IPU_DevAttr_s, u32VariableGroup, 16);
OLVEX_PLATFORM_MEMBER(QV_IPU_DevAttr_s, u32CoreMask, 20);
OLVEX_PLATFORM_MEMBER(QV_IPU_DevAttr_s, au32Reserve, 24);

OLVEX_PLATFORM_SIZE(QV_IPU_OfflineModelStaticInfo_s, 92);
OLVEX_PLATFORM_MEMBER(QV_IPU_OfflineModelStaticInfo_s, u32VariableBufferSize, 0);
OLVEX_PLATFORM_MEMBER(QV_IPU_OfflineModelStaticInfo_s, u32OfflineModelSize, 4);
OLVEX_PLATFORM_MEMBER(QV_IPU_OfflineModelStaticInfo_s, eBatchMode, 8);
OLVEX_PLATFORM_MEMBER(QV_IPU_OfflineModelStaticInfo_s, u32TotalBatchNumTypes, 12);
OLVEX_PLATFORM_MEMBER(QV_IPU_OfflineModelStaticInfo_s, au32BatchNumTypes, 16);
OLVEX_PLATFORM_MEMBER(QV_IPU_OfflineModelStaticInfo_s, eIpuWorkMode, 56);
OLVEX_PLATFORM_MEMBER(QV_IPU_OfflineModelStaticInfo_s, au32Reserve, 60);

OLVEX_PLATFORM_SIZE(QV_IPUChnAttr_s, 48);
OLVEX_PLATFORM_MEMBER(QV_IPUChnAttr_s, u32SubNetId, 0);
OLVEX_PLATFORM_MEMBER(QV_IPUChnAttr_s, u32OutputBufDepth, 4);
OLVEX_PLATFORM_MEMBER(QV_IPUChnAttr_s, u32InputBufDepth, 8);
OLVEX_PLATFORM_MEMBER(QV_IPUChnAttr_s, u32BatchMax, 12);
OLVEX_PLATFORM_MEMBER(QV_IPUChnAttr_s, au32Reserve, 16);

OLVEX_PLATFORM_SIZE(QV_IPU_TensorDesc_t, 344);
OLVEX_PLATFORM_MEMBER(QV_IPU_TensorDesc_t, u32TensorDim, 0);
OLVEX_PLATFORM_MEMBER(QV_IPU_TensorDesc_t, eElmFormat, 4);
OLVEX_PLATFORM_MEMBER(QV_IPU_TensorDesc_t, u32TensorShape, 8);
OLVEX_PLATFORM_MEMBER(QV_IPU_TensorDesc_t, name, 48);
OLVEX_PLATFORM_MEMBER(QV_IPU_TensorDesc_t, u32InnerMostStride, 304);
OLVEX_PLATFORM_MEMBER(QV_IPU_TensorDesc_t, fScalar, 308);
OLVEX_PLATFORM_MEMBER(QV_IPU_TensorDesc_t, s64ZeroPoint, 312);
OLVEX_PLATFORM_MEMBER(QV_IPU_TensorDesc_t, s32AlignedBufSize, 320);
OLVEX_PLATFORM_MEMBER(QV_IPU_TensorDesc_t, u32BufSize, 324);
OLVEX_PLATFORM_MEMBER(QV_IPU_TensorDesc_t, u32InputWidthAlignment, 328);
OLVEX_PLATFORM_MEMBER(QV_IPU_TensorDesc_t, u32InputHeightAlignment, 332);
OLVEX_PLATFORM_MEMBER(QV_IPU_TensorDesc_t, eLayoutType, 336);

OLVEX_PLATFORM_SIZE(QV_IPU_SubNet_InputOutputDesc_t, 41288);
OLVEX_PLATFORM_MEMBER(QV_IPU_SubNet_InputOutputDesc_t, u32InputTensorCount, 0);
OLVEX_PLATFORM_MEMBER(QV_IPU_SubNet_InputOutputDesc_t, u32OutputTensorCount, 4);
OLVEX_PLATFORM_MEMBER(QV_IPU_SubNet_InputOutputDesc_t, astQV_InputTensorDescs, 8);
OLVEX_PLATFORM_MEMBER(QV_IPU_SubNet_InputOutputDesc_t, astQV_OutputTensorDescs, 20648);

OLVEX_PLATFORM_SIZE(QV_IPU_Tensor_t, OLVEX_BY_POINTER_SIZE(32, 24));
OLVEX_PLATFORM_MEMBER(QV_IPU_Tensor_t, ptTensorData, 0);
OLVEX_PLATFORM_MEMBER(QV_IPU_Tensor_t, phyTensorAddr, OLVEX_BY_POINTER_SIZE(16, 8));

OLVEX_PLATFORM_SIZE(QV_IPU_TensorVector_t, OLVEX_BY_POINTER_SIZE(1928, 1448));
OLVEX_PLATFORM_MEMBER(QV_IPU_TensorVector_t, u32TensorCount, 0);
OLVEX_PLATFORM_MEMBER(QV_IPU_TensorVector_t, astArrayTensors, 8);

#ifdef __cplusplus /* the library alone has these records; in C an SDK may have only their tags */
OLVEX_PLATFORM_SIZE(QV_SYS_FrameData_s, OLVEX_BY_POINTER_SIZE(56, 48));
OLVEX_PLATFORM_MEMBER(QV_SYS_FrameData_s, pVirAddr, 0);
OLVEX_PLATFORM_MEMBER(QV_SYS_FrameData_s, phyAddr, OLVEX_BY_POINTER_SIZE(24, 16));
OLVEX_PLATFORM_MEMBER(QV_SYS_FrameData_s, u32BufSize, OLVEX_BY_POINTER_SIZE(48, 40));

OLVEX_PLATFORM_SIZE(QV_SYS_BufInfo_s, OLVEX_BY_POINTER_SIZE(64, 56));
OLVEX_PLATFORM_MEMBER(QV_SYS_BufInfo_s, u64Pts, 0);
OLVEX_PLATFORM_MEMBER(QV_SYS_BufInfo_s, stFrameData, 8);
#endif

#endif /* OLVEX_PLATFORM_H */
