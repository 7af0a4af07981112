// SPDX-License-Identifier: Apache-2.0
/* check_description.c - what a channel says of its tensors. */
#include <stddef.h>
#include <string.h>

#include "checks.h"
#include "report.h"

#define MOST_TENSORS \
  (sizeof((QV_IPU_TensorVector_t*)NULL)->astArrayTensors / sizeof(QV_IPU_Tensor_t))
#define MOST_DIMENSIONS (sizeof((QV_IPU_TensorDesc_t*)NULL)->u32TensorShape / sizeof(QV_U32))

/* Bytes of an element that the library can read; of others those of FP32, as which it reads them. */
static size_t element_size(const QV_IPU_TensorDesc_t* tensor) {
  return tensor->eElmFormat == QV_IPU_FORMAT_INT16 ? 2 : 4;
}

static size_t elements_of(const QV_IPU_TensorDesc_t* tensor) {
  size_t elements = 1;
  for (size_t k = 0; k < tensor->u32TensorDim && k < MOST_DIMENSIONS; ++k) {
    elements *= tensor->u32TensorShape[k];
  }
  return elements;
}

/* Returns 1 when the shape is one. */
static int check_shape(const char* side, unsigned number, const QV_IPU_TensorDesc_t* tensor) {
  if (tensor->u32TensorDim < 1 || tensor->u32TensorDim > MOST_DIMENSIONS) {
    finding(FAULT_DESCRIPTION, "%s %u has %u dimensions", side, number, tensor->u32TensorDim);
    return 0;
  }
  if (tensor->u32TensorShape[0] != 1) {
    finding(FAULT_DESCRIPTION, "%s %u is for %u pictures", side, number, tensor->u32TensorShape[0]);
    return 0;
  }
  for (size_t k = tensor->u32TensorDim; k < MOST_DIMENSIONS; ++k) {
    if (tensor->u32TensorShape[k] != 0) {
      finding(FAULT_DESCRIPTION, "%s %u has %u dimensions, and %u in the entry of dimension %u",
              side, number, tensor->u32TensorDim, tensor->u32TensorShape[k], (unsigned)k + 1);
      break;
    }
  }
  if (strcmp(side, "output") == 0 && tensor->eLayoutType != QV_IPU_LAYOUT_NHWC) {
    finding(FAULT_LAYOUT, "%s %u is described with layout %d", side, number,
            (int)tensor->eLayoutType);
  }
  return 1;
}

static int check_output_type(const struct session* session, unsigned number) {
  const QV_IPU_TensorDesc_t* const outputs = session->channel.description.astQV_OutputTensorDescs;
  const QV_IPU_TensorDesc_t* const tensor = &outputs[number];
  if (tensor->eElmFormat != QV_IPU_FORMAT_FP32 && tensor->eElmFormat != QV_IPU_FORMAT_INT16) {
    finding(FAULT_ELEMENT_TYPE, "output %u has elements of type %d, neither FP32 nor INT16", number,
            (int)tensor->eElmFormat);
    return 0;
  }
  if (tensor->eElmFormat != outputs[0].eElmFormat) {
    finding(FAULT_MIXED_TYPES, "output 0 has elements of type %d, output %u of type %d",
            (int)outputs[0].eElmFormat, number, (int)tensor->eElmFormat);
  }
  if (tensor->eElmFormat == QV_IPU_FORMAT_INT16 &&
      !(tensor->fScalar > 0 && tensor->fScalar < 1e30f)) {
    finding(FAULT_SCALE, "output %u has elements of INT16 and a scale of %g", number,
            (double)tensor->fScalar);
  }
  if (tensor->eElmFormat == QV_IPU_FORMAT_INT16 && tensor->s64ZeroPoint != 0) {
    finding(FAULT_ZERO_POINT, "output %u has a zero point of %lld", number,
            (long long)tensor->s64ZeroPoint);
  }
  return 1;
}

static int check_output_size(unsigned number, const QV_IPU_TensorDesc_t* tensor) {
  const size_t needed = elements_of(tensor) * element_size(tensor);
  if (tensor->u32BufSize < needed) {
    finding(FAULT_BUFFER_SIZE, "output %u needs %zu bytes, u32BufSize is %u", number, needed,
            tensor->u32BufSize);
    return 0;
  }
  if (tensor->u32BufSize > needed) {
    finding(FAULT_PADDED, "output %u needs %zu bytes, u32BufSize is %u", number, needed,
            tensor->u32BufSize);
  }
  return 1;
}

static int check_outputs_of(const struct session* session) {
  const struct channel* const channel = &session->channel;
  int is_readable = 1;
  for (unsigned k = 0; k < channel->outputs.u32TensorCount; ++k) {
    const QV_IPU_TensorDesc_t* const tensor = &channel->description.astQV_OutputTensorDescs[k];
    is_readable = check_shape("output", k, tensor) && check_output_type(session, k) &&
                  check_output_size(k, tensor) && is_readable;
    if (channel->outputs.astArrayTensors[k].ptTensorData[0] == NULL) {
      finding(FAULT_OTHER_ADDRESS, "output %u has no address", k);
      return 0;
    }
  }
  return is_readable;
}

/* The probe's own shapes; of its input the size alone, as the format is the compiler's. */
static int has_probe_shapes(const struct session* session) {
  const QV_IPU_SubNet_InputOutputDesc_t* const description = &session->channel.description;
  const QV_IPU_TensorDesc_t* const input = &description->astQV_InputTensorDescs[0];
  if (input->u32TensorShape[1] != PROBE_HEIGHT || input->u32TensorShape[2] != PROBE_WIDTH ||
      description->u32OutputTensorCount != PROBE_LAYERS) {
    finding(FAULT_OTHER_MODEL,
            "%u outputs, and an input of %u rows and %u columns instead of %d and %d",
            description->u32OutputTensorCount, input->u32TensorShape[1], input->u32TensorShape[2],
            PROBE_HEIGHT, PROBE_WIDTH);
    return 0;
  }
  for (unsigned k = 0; k < PROBE_LAYERS; ++k) {
    const QV_U32* const shape = description->astQV_OutputTensorDescs[k].u32TensorShape;
    if (shape[1] != kProbeLayers[k].rows || shape[2] != kProbeLayers[k].columns ||
        shape[3] != PROBE_CHANNELS) {
      finding(FAULT_OTHER_MODEL,
              "output %u has %u rows, %u columns, %u channels instead of %u, %u, %d", k, shape[1],
              shape[2], shape[3], kProbeLayers[k].rows, kProbeLayers[k].columns, PROBE_CHANNELS);
      return 0;
    }
  }
  return 1;
}

static int check_counts(const struct channel* channel) {
  const QV_IPU_SubNet_InputOutputDesc_t* const description = &channel->description;
  if (description->u32InputTensorCount != 1) {
    finding(FAULT_DESCRIPTION, "%u inputs", description->u32InputTensorCount);
    return 0;
  }
  if (description->u32OutputTensorCount < 1 || description->u32OutputTensorCount > MOST_TENSORS ||
      description->u32OutputTensorCount != channel->outputs.u32TensorCount) {
    finding(FAULT_DESCRIPTION, "%u outputs, and buffers for %u", description->u32OutputTensorCount,
            channel->outputs.u32TensorCount);
    return 0;
  }
  return 1;
}

int check_description(struct session* session) {
  const unsigned before = report_findings();
  const int is_readable =
      check_counts(&session->channel) &&
      check_shape("input", 0, session->channel.description.astQV_InputTensorDescs) &&
      check_outputs_of(session);
  if (report_findings() == before) {
    proven(
        "one input and %u outputs, described as 1, H, W, C, dense, of one element type, without a "
        "zero point",
        session->channel.outputs.u32TensorCount);
  }
  if (is_readable && session->is_probe && !has_probe_shapes(session)) {
    session->is_probe = 0;
  }
  return is_readable;
}
