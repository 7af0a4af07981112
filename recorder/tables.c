// SPDX-License-Identifier: Apache-2.0
/* tables.c - the handles and channels that there are, and what of their descriptions decides how frames are
 * stored. */
#include "recorder/recorder.h"

#include <string.h>

#include "recorder/cells.h"

struct handle_slot* find_handle(const void* address) {
  for (uint32_t k = 0; k < MOST_HANDLES; ++k) {
    if (the_recorder->handles[k].address == address) {
      return &the_recorder->handles[k];
    }
  }
  return NULL;
}

struct channel_slot* find_channel(uint32_t id) {
  for (uint32_t k = 0; k < MOST_CHANNELS; ++k) {
    if (the_recorder->channels[k].is_open && the_recorder->channels[k].id == id) {
      return &the_recorder->channels[k];
    }
  }
  return NULL;
}

static void note_new_handle(const void* address) {
  /* An exception may have left the call that freed the last one of this address. */
  struct handle_slot* const earlier = find_handle(address);
  struct handle_slot* const free_slot = earlier != NULL ? earlier : find_handle(NULL);
  /* A frame has 16 bits for the number. */
  if (free_slot != NULL && the_recorder->handles_seen < UINT16_MAX) {
    memset(free_slot, 0, sizeof *free_slot);
    free_slot->address = address;
    free_slot->number = ++the_recorder->handles_seen;
  }
}

static uint32_t element_size(uint32_t format) {
  if (format == QV_IPU_FORMAT_U8 || format == QV_IPU_FORMAT_INT8) {
    return 1;
  }
  return format == QV_IPU_FORMAT_INT16 ? 2 : 4;
}

/* Bytes that the library may read of an output: what the platform says or, when it says nothing, what the
 * shape asks for in elements of the first output's type. 0 for more than a recording holds. */
static uint32_t output_bytes(const QV_IPU_TensorDesc_t* tensor, uint32_t format) {
  uint64_t bytes = element_size(format);
  for (uint32_t k = 0; k < OLVEX_MAX_DIMENSIONS; ++k) {
    const uint32_t extent = tensor->u32TensorShape[k] != 0 ? tensor->u32TensorShape[k] : 1;
    if (bytes > UINT32_MAX / extent) {
      return tensor->u32BufSize;
    }
    bytes *= extent;
  }
  return tensor->u32BufSize != 0 ? tensor->u32BufSize : (uint32_t)bytes;
}

/* Layers of other shapes the library does not decode. */
static uint32_t stride_of(const struct channel_slot* channel, const QV_IPU_TensorDesc_t* tensor) {
  const uint32_t rows = tensor->u32TensorShape[1];
  const uint32_t columns = tensor->u32TensorShape[2];
  if (rows == 0 || columns == 0 || channel->width > INT16_MAX || channel->height > INT16_MAX ||
      channel->width % columns != 0 || channel->height % rows != 0 ||
      channel->width / columns != channel->height / rows) {
    return 0;
  }
  return channel->width / columns;
}

static void describe_output(struct channel_slot* channel, uint32_t index,
                            const QV_IPU_TensorDesc_t* tensor) {
  struct output_slot* const output = &channel->output[index];
  const uint64_t cells = (uint64_t)tensor->u32TensorShape[1] * tensor->u32TensorShape[2];
  const uint64_t bytes = (uint64_t)tensor->u32TensorShape[3] * element_size(channel->format);
  output->bytes = output_bytes(tensor, channel->format);
  output->channels = tensor->u32TensorShape[3];
  output->scale = tensor->fScalar;
  output->cells = 0;
  const int has_scale = channel->format == QV_IPU_FORMAT_FP32 ||
                        (tensor->fScalar > 0.0f && tensor->fScalar <= 3.4028234e38f);
  if (has_scale && bytes != 0 && cells <= output->bytes / bytes) {
    output->cells = (uint32_t)cells;
  }
  output->columns = tensor->u32TensorShape[2];
  output->stride = stride_of(channel, tensor);
  output->can_drop = output->stride != 0 && cells <= RECORDING_LONGEST_GAP &&
                     output->channels == RECORDING_FIRST_CLASS + channel->classes;
}

/* Layers are stored in cells only where the library would decode them as such. */
static uint32_t classes_of(const QV_IPU_SubNet_InputOutputDesc_t* description, int* has_pairs) {
  const QV_IPU_TensorDesc_t* const outputs = description->astQV_OutputTensorDescs;
  const uint32_t channels = outputs[0].u32TensorShape[3];
  const uint32_t format = (uint32_t)outputs[0].eElmFormat;
  if (description->u32OutputTensorCount != 3 || channels != outputs[1].u32TensorShape[3] ||
      channels != outputs[2].u32TensorShape[3] ||
      (format != QV_IPU_FORMAT_FP32 && format != QV_IPU_FORMAT_INT16)) {
    return 0;
  }
  const uint32_t classes = classes_by_channels(channels, has_pairs);
  *has_pairs = *has_pairs && format == QV_IPU_FORMAT_INT16;
  return classes;
}

static void note_description(uint32_t id, const QV_IPU_SubNet_InputOutputDesc_t* description) {
  struct channel_slot* channel = find_channel(id);
  for (uint32_t k = 0; k < MOST_CHANNELS && channel == NULL; ++k) {
    channel = the_recorder->channels[k].is_open ? NULL : &the_recorder->channels[k];
  }
  if (channel == NULL) {
    return;
  }
  const QV_IPU_TensorDesc_t* const input = &description->astQV_InputTensorDescs[0];
  memset(channel, 0, sizeof *channel);
  channel->id = id;
  channel->is_open = 1;
  channel->width = input->u32TensorShape[2];
  channel->height = input->u32TensorShape[1];
  channel->input_format = (uint32_t)input->eElmFormat;
  channel->width_alignment = input->u32InputWidthAlignment;
  channel->height_alignment = input->u32InputHeightAlignment;
  channel->format = (uint32_t)description->astQV_OutputTensorDescs[0].eElmFormat;
  channel->classes = classes_of(description, &channel->has_pairs);
  channel->outputs = description->u32OutputTensorCount < OLVEX_MAX_TENSORS
                         ? description->u32OutputTensorCount
                         : OLVEX_MAX_TENSORS;
  for (uint32_t k = 0; k < channel->outputs; ++k) {
    describe_output(channel, k, &description->astQV_OutputTensorDescs[k]);
  }
}

static void close_channel(uint32_t id) {
  struct channel_slot* const channel = find_channel(id);
  if (channel != NULL) {
    channel->is_open = 0;
  }
}

static void note_threshold(const struct call* call) {
  struct handle_slot* const handle = find_handle(call->handle);
  if (handle != NULL && call->count != 0) {
    memcpy(&handle->threshold, &call->words[0], sizeof handle->threshold);
  }
}

static void note_initialisation(const struct call* call) {
  struct handle_slot* const handle = find_handle(call->handle);
  note_threshold(call);
  if (handle != NULL) {
    /* One that fails on an initialised handle leaves it so. */
    handle->is_initialised = handle->is_initialised || call->result == 0;
    handle->empty = 0;
  }
}

/* A tracker that is off keeps its tracks, whatever frames pass. */
static void note_tracking(const struct call* call) {
  struct handle_slot* const handle = find_handle(call->handle);
  if (handle != NULL) {
    handle->empty = 0;
  }
}

void note_before(const struct call* call) {
  switch (call->function) {
    case RECORDING_CREATE_HANDLE:
      note_new_handle(call->handle);
      break;
    case RECORDING_GET_DESCRIPTION:
      if (call->description != NULL) {
        note_description(call->channel, call->description);
      }
      break;
    case RECORDING_INIT_HANDLE:
    case RECORDING_INIT_HANDLE2:
      note_initialisation(call);
      break;
    case RECORDING_SET_THRESHOLD:
      if (call->result == 0) {
        note_threshold(call);
      }
      break;
    case RECORDING_SET_TRACKER:
    case RECORDING_SET_TRACKER2:
    case RECORDING_SET_STRICT_MODE:
      note_tracking(call);
      break;
    default:
      break;
  }
}

void note_after(const struct call* call) {
  struct handle_slot* const handle = find_handle(call->handle);
  if (call->function == RECORDING_DESTROY_CHANNEL) {
    close_channel(call->channel);
  } else if (call->function == RECORDING_DESTROY_DEVICE && call->result == 0) {
    for (uint32_t k = 0; k < MOST_CHANNELS; ++k) {
      the_recorder->channels[k].is_open = 0;
    }
  } else if (call->function == RECORDING_DEINIT_HANDLE && call->result == 0 && handle != NULL) {
    handle->address = NULL;
  }
}
