// SPDX-License-Identifier: Apache-2.0
/* calls_qv.c - the platform's functions that the library calls, in front of the platform. */
#include "qv_sys.h"

#include "recorder/attachment.h"
#include "recorder/recorder.h"

DECLARE_WRAPPED(QV_IPU_CreateDevice);
DECLARE_WRAPPED(QV_IPU_DestroyDevice);
DECLARE_WRAPPED(QV_IPU_GetOfflineModeStaticInfo);
DECLARE_WRAPPED(QV_IPU_CreateCHN);
DECLARE_WRAPPED(QV_IPU_DestroyCHN);
DECLARE_WRAPPED(QV_IPU_GetInOutTensorDesc);
DECLARE_WRAPPED(QV_IPU_GetOutputTensors);
DECLARE_WRAPPED(QV_IPU_PutOutputTensors);
DECLARE_WRAPPED(QV_IPU_Invoke);
DECLARE_WRAPPED(QV_SYS_FlushInvCache);

static uint32_t at_most(uint32_t count, uint32_t limit) {
  return count < limit ? count : limit;
}

QV_S32 INTERPOSED(QV_IPU_CreateDevice)(QV_IPU_DevAttr_s* attributes, QV_IPU_ReadFunc read,
                                       char* firmware_path, QV_U32 reserved) {
  struct call call;
  call_begin(&call, RECORDING_CREATE_DEVICE, NULL);
  call_word(&call, read != NULL);
  call_word(&call, reserved);
  if (attributes != NULL) {
    call_words(&call, attributes, sizeof *attributes);
  }
  call.texts[0] = firmware_path;
  call.result = REAL(QV_IPU_CreateDevice)(attributes, read, firmware_path, reserved);
  return call_end(&call);
}

QV_S32 INTERPOSED(QV_IPU_DestroyDevice)(void) {
  struct call call;
  call_begin(&call, RECORDING_DESTROY_DEVICE, NULL);
  call.result = REAL(QV_IPU_DestroyDevice)();
  return call_end(&call);
}

QV_S32 INTERPOSED(QV_IPU_GetOfflineModeStaticInfo)(QV_IPU_ReadFunc read, char* path_or_context,
                                                   QV_IPU_OfflineModelStaticInfo_s* info) {
  struct call call;
  call_begin(&call, RECORDING_GET_STATIC_INFO, NULL);
  call_word(&call, read != NULL);
  call.texts[0] = read == NULL ? path_or_context : NULL;
  call.result = REAL(QV_IPU_GetOfflineModeStaticInfo)(read, path_or_context, info);
  if (call.result == 0) {
    call_words(&call, info, sizeof *info);
  }
  return call_end(&call);
}

QV_S32 INTERPOSED(QV_IPU_CreateCHN)(QV_U32* channel, QV_IPUChnAttr_s* attributes,
                                    QV_IPU_ReadFunc read, char* path_or_context) {
  struct call call;
  call_begin(&call, RECORDING_CREATE_CHANNEL, NULL);
  call_word(&call, read != NULL);
  if (attributes != NULL) {
    call_words(&call, attributes, sizeof *attributes);
  }
  call.texts[0] = read == NULL ? path_or_context : NULL;
  call.result = REAL(QV_IPU_CreateCHN)(channel, attributes, read, path_or_context);
  call.channel = call.result == 0 ? *channel : 0;
  return call_end(&call);
}

QV_S32 INTERPOSED(QV_IPU_DestroyCHN)(QV_U32 channel) {
  struct call call;
  call_begin(&call, RECORDING_DESTROY_CHANNEL, NULL);
  call.channel = channel;
  call.result = REAL(QV_IPU_DestroyCHN)(channel);
  return call_end(&call);
}

QV_S32 INTERPOSED(QV_IPU_GetInOutTensorDesc)(QV_U32 channel,
                                             QV_IPU_SubNet_InputOutputDesc_t* description) {
  struct call call;
  call_begin(&call, RECORDING_GET_DESCRIPTION, NULL);
  call.channel = channel;
  call.result = REAL(QV_IPU_GetInOutTensorDesc)(channel, description);
  call.description = call.result == 0 ? description : NULL;
  return call_end(&call);
}

QV_S32 INTERPOSED(QV_IPU_GetOutputTensors)(QV_U32 channel, QV_IPU_TensorVector_t* tensors) {
  struct call call;
  call_begin(&call, RECORDING_GET_OUTPUTS, NULL);
  call.channel = channel;
  call.result = REAL(QV_IPU_GetOutputTensors)(channel, tensors);
  if (call.result == 0) {
    call_word(&call, tensors->u32TensorCount);
    for (uint32_t k = 0; k < at_most(tensors->u32TensorCount, OLVEX_MAX_TENSORS); ++k) {
      call_word(&call, tensors->astArrayTensors[k].ptTensorData[0] != NULL);
    }
  }
  return call_end(&call);
}

QV_S32 INTERPOSED(QV_IPU_PutOutputTensors)(QV_U32 channel, QV_IPU_TensorVector_t* tensors) {
  struct call call;
  call_begin(&call, RECORDING_PUT_OUTPUTS, NULL);
  call.channel = channel;
  if (tensors != NULL) {
    call_word(&call, tensors->u32TensorCount);
  }
  call.result = REAL(QV_IPU_PutOutputTensors)(channel, tensors);
  return call_end(&call);
}

/* Where the outputs of the frame lie. The library reads all that the channel has, whatever the count says. */
static void note_outputs(const struct call* call, const QV_IPU_TensorVector_t* output) {
  struct thread_state* const thread = this_thread();
  if (call->function == 0 || !thread->is_in_frame || output == NULL) {
    return;
  }
  thread->has_outputs = call->result == 0;
  thread->channel = call->channel;
  for (uint32_t k = 0; k < OLVEX_MAX_TENSORS; ++k) {
    thread->output[k] = output->astArrayTensors[k].ptTensorData[0];
  }
}

QV_S32 INTERPOSED(QV_IPU_Invoke)(QV_U32 channel, QV_IPU_TensorVector_t* input,
                                 QV_IPU_TensorVector_t* output) {
  struct call call;
  call_begin(&call, RECORDING_INVOKE, NULL);
  call.channel = channel;
  if (input != NULL) {
    call_word(&call, input->u32TensorCount);
  }
  call.result = REAL(QV_IPU_Invoke)(channel, input, output);
  note_outputs(&call, output);
  return call_end(&call);
}

QV_S32 INTERPOSED(QV_SYS_FlushInvCache)(void* address, QV_U32 size) {
  struct call call;
  call_begin(&call, RECORDING_FLUSH, NULL);
  call_word(&call, size);
  call.result = REAL(QV_SYS_FlushInvCache)(address, size);
  return call_end(&call);
}
