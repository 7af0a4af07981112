// SPDX-License-Identifier: Apache-2.0
/* session.c - channels and invocations, as base/sdet makes them. */
#include "checks.h"

#include <stdlib.h>
#include <string.h>

#include "report.h"
#include "watched_calls.h"

static QV_S32 failed(const char* call, QV_S32 result) {
  finding(FAULT_CALL_FAILS, "%s returned %d (0x%x)", call, (int)result, (unsigned)result);
  return result;
}

static QV_S32 open_mapped(const struct model_image* image, struct channel* channel) {
  QV_S32 result = create_channel(&channel->id, read_model, image->model);
  if (result != 0) {
    return failed("QV_IPU_CreateCHN", result);
  }
  result = describe(channel->id, &channel->description);
  if (result != 0) {
    return failed("QV_IPU_GetInOutTensorDesc", result);
  }
  result = get_outputs(channel->id, &channel->outputs);
  return result != 0 ? failed("QV_IPU_GetOutputTensors", result) : 0;
}

QV_S32 open_channel(const char* path, struct channel* channel) {
  struct model_image image;
  const char* const fault = map_model(path, &image);
  if (fault != NULL) {
    finding(FAULT_CALL_FAILS, "%s: %s", path, fault);
    return -1;
  }
  const QV_S32 result = open_mapped(&image, channel);
  unmap_model(&image);
  return result;
}

QV_S32 close_channel(struct channel* channel) {
  const QV_S32 put = put_outputs(channel->id, &channel->outputs);
  const QV_S32 closed = destroy_channel(channel->id);
  return put != 0 ? put : closed;
}

QV_S32 run_frame(struct channel* channel, const struct frame* frame, int is_flushed) {
  QV_IPU_TensorVector_t input;
  memset(&input, 0, sizeof input);
  input.astArrayTensors[0].ptTensorData[0] = frame->data;
  input.astArrayTensors[0].phyTensorAddr[0] = frame->physical;
  if (is_flushed) {
    flush(frame->data, (QV_U32)frame->size);
  }
  return invoke(channel->id, &input, &channel->outputs);
}

int run_or_report(struct channel* channel, const struct frame* frame) {
  const QV_S32 result = run_frame(channel, frame, 1);
  return result == 0 || failed("QV_IPU_Invoke", result) == 0;
}

size_t output_size(const struct channel* channel) {
  size_t size = 0;
  for (QV_U32 k = 0; k < channel->outputs.u32TensorCount; ++k) {
    size += channel->description.astQV_OutputTensorDescs[k].u32BufSize;
  }
  return size;
}

unsigned char* copy_outputs(const struct channel* channel) {
  unsigned char* const bytes = malloc(output_size(channel) + 1);
  size_t used = 0;
  for (QV_U32 k = 0; bytes != NULL && k < channel->outputs.u32TensorCount; ++k) {
    const size_t size = channel->description.astQV_OutputTensorDescs[k].u32BufSize;
    memcpy(bytes + used, channel->outputs.astArrayTensors[k].ptTensorData[0], size);
    used += size;
  }
  return bytes;
}

void poison_outputs(struct channel* channel, int byte) {
  for (QV_U32 k = 0; k < channel->outputs.u32TensorCount; ++k) {
    const QV_U32 size = channel->description.astQV_OutputTensorDescs[k].u32BufSize;
    void* const data = channel->outputs.astArrayTensors[k].ptTensorData[0];
    memset(data, byte, size);
    flush(data, size);
  }
}

float input_value(const struct session* session, unsigned row, unsigned column, unsigned plane) {
  const struct reading* const reading = &session->readings[0];
  const void* const data = session->channel.outputs.astArrayTensors[0].ptTensorData[0];
  return (read_value(reading, data, row, column, plane) - reading->shift) / reading->factor;
}
