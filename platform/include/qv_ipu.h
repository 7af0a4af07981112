// SPDX-License-Identifier: Apache-2.0
/* qv_ipu.h - the chip's neural-network accelerator (the IPU): device, channels, tensors, invocation.
 *
 * C99 and C++11. This is the whole of what the detection library asks of a chip; docs/platform.md
 * says what an implementation has to supply. Conventions that hold for every call:
 *
 *   - The result is 0 on success. Any other value is the platform's own code; the library passes it
 *     on unchanged and knows no particular one.
 *   - One device per process. A channel belongs to the device and holds one network.
 *   - Records are filled by the caller unless a comment says "out"; the platform keeps no pointer
 *     to them after the call, except to the buffers that it hands out itself.
 *   - Calls on different channels may come from different threads at once; calls on one channel
 *     may not. */
#ifndef QV_IPU_H
#define QV_IPU_H

#include "qv_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Element type of a tensor; for an input tensor also the picture format that the camera delivers. */
/* clang-format off */
typedef enum QV_IPU_ELEMENT_FORMAT
#ifdef __cplusplus
    : uint32_t /* so that it can hold whatever number a platform reports */
#endif
{
  QV_IPU_FORMAT_U8 = 0,           /* 8-bit unsigned; as a picture: three interleaved channels */
  QV_IPU_FORMAT_NV12 = 1,         /* a plane of Y, then one of interleaved U and V at half size */
  QV_IPU_FORMAT_INT16 = 2,        /* 16-bit signed, real value = integer x fScalar */
  QV_IPU_FORMAT_INT32 = 3,        /* 32-bit signed */
  QV_IPU_FORMAT_INT8 = 4,         /* 8-bit signed */
  QV_IPU_FORMAT_FP32 = 5,         /* 32-bit IEEE 754 */
  QV_IPU_FORMAT_UNKNOWN = 6,
  QV_IPU_FORMAT_ARGB8888 = 7,     /* 32-bit word A-R-G-B from the top: bytes B, G, R, A in memory */
  QV_IPU_FORMAT_ABGR8888 = 8,     /* 32-bit word A-B-G-R from the top: bytes R, G, B, A in memory */
  QV_IPU_FORMAT_GRAY = 9,         /* one 8-bit channel */
  QV_IPU_FORMAT_COMPLEX64 = 10    /* two 32-bit floats */
} QV_IPU_ELEMENT_FORMAT;

/* Order of the dimensions in a tensor shape. */
typedef enum QV_IPU_LAYOUT_TYPE
#ifdef __cplusplus
    : uint32_t
#endif
{
  QV_IPU_LAYOUT_NHWC = 0, /* channels innermost; what this library expects everywhere */
  QV_IPU_LAYOUT_NCHW = 1
} QV_IPU_LAYOUT_TYPE;
/* clang-format on */

/* Read callback: copies size bytes at offset of whatever ctx names to dst. Returns 0 when all bytes
 * were delivered, anything else on failure. For the library's own callback ctx is the address of
 * the offline model's first byte in memory and offset counts from there. */
typedef int (*QV_IPU_ReadFunc)(void* dst, int offset, int size, char* ctx);

/* Device attributes. Set what is needed, leave the rest 0. */
typedef struct QV_IPU_DevAttr_s {
  QV_U32 u32MaxVariableBufSize;       /* bytes; the largest variable buffer of all models to come */
  QV_U32 u32YUV420_W_Pitch_Alignment; /* bytes; each NV12 row starts at a multiple of this */
  QV_U32 u32YUV420_H_Pitch_Alignment; /* rows; the Y plane's row count is rounded up to this */
  QV_U32 u32XRGB_W_Pitch_Alignment; /* bytes; each 4-byte-pixel row starts at a multiple of this */
  QV_U32 u32VariableGroup;
  QV_U32 u32CoreMask;
  QV_U32 au32Reserve[6];
} QV_IPU_DevAttr_s;
typedef QV_IPU_DevAttr_s QV_IPU_DevAttr_t;

/* What is known of a model before a channel is opened for it. */
typedef struct QV_IPU_OfflineModelStaticInfo_s {
  QV_U32 u32VariableBufferSize; /* bytes of working memory that the model needs */
  QV_U32 u32OfflineModelSize;   /* bytes of the offline model */
  QV_U32 eBatchMode;
  QV_U32 u32TotalBatchNumTypes;
  QV_U32 au32BatchNumTypes[10];
  QV_U32 eIpuWorkMode;
  QV_U32 au32Reserve[8];
} QV_IPU_OfflineModelStaticInfo_s;
typedef QV_IPU_OfflineModelStaticInfo_s QV_IPU_OfflineModelStaticInfo_t;

/* Channel attributes. */
typedef struct QV_IPUChnAttr_s {
  QV_U32 u32SubNetId;       /* 0: the first network of the model */
  QV_U32 u32OutputBufDepth; /* output buffers that the channel owns; the library asks for 1 */
  QV_U32 u32InputBufDepth;  /* input buffers; 0: the caller brings its own, as here */
  QV_U32 u32BatchMax;
  QV_U32 au32Reserve[8];
} QV_IPUChnAttr_s;
typedef QV_IPUChnAttr_s QV_IPUChnAttr_t;

/* One tensor of a network. */
typedef struct QV_IPU_TensorDesc_t {
  QV_U32 u32TensorDim;              /* entries of the shape in use; the rest are 0 */
  QV_IPU_ELEMENT_FORMAT eElmFormat; /* element type */
  QV_U32 u32TensorShape[10];        /* N, H, W, C in elements 0 to 3 */
  char name[256];                   /* terminated when shorter than the array */
  QV_U32 u32InnerMostStride;        /* bytes from one innermost run to the next */
  QV_FLOAT fScalar;                 /* real value of 1 for an integer tensor */
  QV_S64 s64ZeroPoint;              /* integer that stands for 0.0 */
  QV_S32 s32AlignedBufSize;         /* bytes of the buffer with its row padding */
  QV_U32 u32BufSize;                /* bytes of the elements alone */
  QV_U32 u32InputWidthAlignment;    /* of an input: alignment of a row, see DevAttr */
  QV_U32 u32InputHeightAlignment;   /* of an input: alignment of the row count */
  QV_IPU_LAYOUT_TYPE eLayoutType;   /* order of the dimensions */
} QV_IPU_TensorDesc_t;
typedef QV_IPU_TensorDesc_t QV_IPU_TensorDesc_s;

/* Inputs and outputs of one network. */
typedef struct QV_IPU_SubNet_InputOutputDesc_t {
  QV_U32 u32InputTensorCount;
  QV_U32 u32OutputTensorCount;
  QV_IPU_TensorDesc_t astQV_InputTensorDescs[60];
  QV_IPU_TensorDesc_t astQV_OutputTensorDescs[60];
} QV_IPU_SubNet_InputOutputDesc_t;
typedef QV_IPU_SubNet_InputOutputDesc_t QV_IPU_SubNet_InputOutputDesc_s;

/* The buffers of one tensor. */
typedef struct QV_IPU_Tensor_t {
  void* ptTensorData[2];   /* virtual addresses; [0] is the tensor */
  QV_PHY phyTensorAddr[2]; /* physical addresses of the same */
} QV_IPU_Tensor_t;
typedef QV_IPU_Tensor_t QV_IPU_Tensor_s;

/* The tensors of one side of an invocation. */
typedef struct QV_IPU_TensorVector_t {
  QV_U32 u32TensorCount;
  QV_IPU_Tensor_t astArrayTensors[60];
} QV_IPU_TensorVector_t;
typedef QV_IPU_TensorVector_t QV_IPU_TensorVector_s;

/* Brings the accelerator up.
 *   attributes     the device attributes
 *   read           reads the firmware, with firmware_path as its context; NULL: the path is a file
 *   firmware_path  terminated path
 *   reserved       0
 * Returns 0, or a code when the firmware cannot be read or a device exists already.
 * Leaves one device up; undo with QV_IPU_DestroyDevice. */
QV_S32 QV_IPU_CreateDevice(QV_IPU_DevAttr_s* attributes, QV_IPU_ReadFunc read, char* firmware_path,
                           QV_U32 reserved);

/* Takes the accelerator down, channels that are still open included.
 * Returns 0, or a code when no device is up. */
QV_S32 QV_IPU_DestroyDevice(void);

/* Reports a model's memory needs. Needs no device.
 *   read             NULL: path_or_context is the path of a model file; else path_or_context is
 *                    handed to read as its context
 *   path_or_context  see above
 *   info             out
 * Returns 0, or a code when the model cannot be read or is not one of this platform's. */
QV_S32 QV_IPU_GetOfflineModeStaticInfo(QV_IPU_ReadFunc read, char* path_or_context,
                                       QV_IPU_OfflineModelStaticInfo_s* info);

/* Opens a channel and loads a model into it. Needs a device.
 *   channel     out: id of the channel
 *   attributes  see QV_IPUChnAttr_s
 *   read, path_or_context  as for QV_IPU_GetOfflineModeStaticInfo; not used after the call
 * Returns 0, or a code when there is no device or the model cannot be loaded. */
QV_S32 QV_IPU_CreateCHN(QV_U32* channel, QV_IPUChnAttr_s* attributes, QV_IPU_ReadFunc read,
                        char* path_or_context);

/* Closes a channel; its output buffers are freed.
 * Returns 0, or a code for an unknown channel. */
QV_S32 QV_IPU_DestroyCHN(QV_U32 channel);

/* Describes the inputs and outputs of a channel's network.
 *   description  out
 * Returns 0, or a code for an unknown channel. */
QV_S32 QV_IPU_GetInOutTensorDesc(QV_U32 channel, QV_IPU_SubNet_InputOutputDesc_t* description);

/* Hands out the channel's output buffers, one per output tensor, each at least s32AlignedBufSize
 * bytes and at an address that is a multiple of its element's size (4 for FP32, 2 for INT16): the
 * library reads elements where they stand, and 32-bit ARM ends the process (SIGBUS) where that is
 * not so. They stay the platform's and valid until they are put back or the channel is closed.
 *   tensors  out
 * Returns 0, or a code for an unknown channel or when all buffers are out. */
QV_S32 QV_IPU_GetOutputTensors(QV_U32 channel, QV_IPU_TensorVector_t* tensors);

/* Gives buffers back that QV_IPU_GetOutputTensors handed out.
 * Returns 0, or a code for an unknown channel or for buffers that were never handed out. */
QV_S32 QV_IPU_PutOutputTensors(QV_U32 channel, QV_IPU_TensorVector_t* tensors);

/* Runs the network once and waits for the end.
 *   input   the frame: astArrayTensors[0] carries its addresses. u32TensorCount may be 0, which
 *           stands for the network's own number of inputs; the detection library leaves it 0
 *   output  buffers from QV_IPU_GetOutputTensors; their contents are replaced
 * Returns 0, or a code; after a failure the contents of the output are not to be used. */
QV_S32 QV_IPU_Invoke(QV_U32 channel, QV_IPU_TensorVector_t* input, QV_IPU_TensorVector_t* output);

#ifdef __cplusplus
}
#endif

#endif /* QV_IPU_H */
