// SPDX-License-Identifier: Apache-2.0
/* calls.c - a call from its begin to its entry in the ring. tables.c keeps what it tells of handles and channels. */
#include <string.h>

#include "recorder/packer.h"
#include "recorder/recorder.h"

#define PATH_SIZE 256u

static int is_of_the_library(uint32_t function) {
  return function < RECORDING_CREATE_DEVICE;
}

void call_begin(struct call* call, enum recording_function function, const void* handle) {
  call->function = 0;
  call->result = 0;
  if (!recorder_is_on()) {
    return;
  }
  struct thread_state* const thread = this_thread();
  call->function = function;
  call->number = next_call_number();
  call->handle = handle;
  call->channel = 0;
  call->count = 0;
  call->texts[0] = call->texts[1] = NULL;
  call->description = NULL;
  call->model = NULL;
  call->outer = is_of_the_library(function) ? 0 : thread->outer;
  if (is_of_the_library(function)) {
    if (thread->is_in_frame) {
      end_unfinished_frame();
    } else if (thread->outer != 0) {
      /* An exception has left the call before. */
      __atomic_add_fetch(&the_recorder->lost_calls, 1, __ATOMIC_RELAXED);
    }
    thread->outer = call->number;
    thread->outer_handle = handle;
  }
  call->begin = monotonic_now();
}

void call_word(struct call* call, uint32_t word) {
  if (call->function != 0 && call->count < MOST_WORDS) {
    call->words[call->count++] = word;
  }
}

void call_words(struct call* call, const void* record, size_t size) {
  for (size_t k = 0; k < size; k += 4) {
    uint32_t word;
    memcpy(&word, (const unsigned char*)record + k, sizeof word);
    call_word(call, word);
  }
}

/* ---- Messages ---- */

static void pack_tensors(struct packer* packer, const QV_IPU_TensorDesc_t* tensors,
                         uint32_t count) {
  const uint32_t stored = count < OLVEX_MAX_TENSORS ? count : OLVEX_MAX_TENSORS;
  pack32(packer, stored);
  for (const QV_IPU_TensorDesc_t* tensor = tensors; tensor != tensors + stored; ++tensor) {
    pack32(packer, tensor->u32TensorDim);
    pack32(packer, (uint32_t)tensor->eElmFormat);
    for (uint32_t k = 0; k < OLVEX_MAX_DIMENSIONS; ++k) {
      pack32(packer, tensor->u32TensorShape[k]);
    }
    pack_name(packer, tensor->name, OLVEX_TENSOR_NAME_SIZE);
    pack32(packer, tensor->u32InnerMostStride);
    pack_real(packer, tensor->fScalar);
    pack64(packer, (uint64_t)tensor->s64ZeroPoint);
    pack32(packer, (uint32_t)tensor->s32AlignedBufSize);
    pack32(packer, tensor->u32BufSize);
    pack32(packer, tensor->u32InputWidthAlignment);
    pack32(packer, tensor->u32InputHeightAlignment);
    pack32(packer, (uint32_t)tensor->eLayoutType);
  }
}

static void pack_network(struct packer* packer, const struct call* call, uint64_t offset) {
  const QV_IPU_SubNet_InputOutputDesc_t* const description = call->description;
  const uint32_t begun =
      message_begin(packer, RECORDING_NETWORK, call->number, call->begin, offset);
  pack32(packer, call->number);
  pack32(packer, call->channel);
  pack32(packer, description->u32InputTensorCount);
  pack32(packer, description->u32OutputTensorCount);
  pack_tensors(packer, description->astQV_InputTensorDescs, description->u32InputTensorCount);
  pack_tensors(packer, description->astQV_OutputTensorDescs, description->u32OutputTensorCount);
  record_end(packer, begun);
}

static void pack_model(struct packer* packer, const struct call* call, uint64_t offset) {
  const struct model_identity* const model = call->model;
  const uint32_t hash_size = model->has_hash && model->bytes != 0 ? SHA256_SIZE : 0;
  const uint32_t begun = message_begin(packer, RECORDING_MODEL, call->number, call->begin, offset);
  pack32(packer, call->number);
  pack64(packer, model->bytes);
  pack32(packer, hash_size);
  pack_bytes(packer, model->sha256, hash_size);
  pack32(packer, model->header_size);
  pack_bytes(packer, model->header, model->header_size);
  record_end(packer, begun);
}

static void pack_call(struct packer* packer, const struct call* call, uint64_t end,
                      uint64_t offset) {
  const struct handle_slot* const handle = find_handle(call->handle);
  const int is_known = call->handle != NULL && handle != NULL;
  const uint32_t begun = message_begin(packer, RECORDING_CALL, call->number, call->begin, offset);
  /* Of a handle that is not initialised nothing was handed back. */
  const int is_untouched =
      call->function == RECORDING_GET_INPUT_ATTR && !(is_known && handle->is_initialised);
  const uint32_t words = is_untouched ? 0 : call->count;
  uint32_t texts = 0;
  pack8(packer, call->function);
  pack8(packer, 0); /* flags: see carried.c */
  pack16(packer, this_thread()->number);
  pack32(packer, call->number);
  pack32(packer, call->outer);
  pack32(packer, is_known ? handle->number : 0);
  pack32(packer, call->channel);
  pack32(packer, is_known ? handle->frames : 0);
  pack32(packer, (uint32_t)call->result);
  pack64(packer, call->begin);
  pack64(packer, end);
  pack32(packer, words);
  for (uint32_t k = 0; k < words; ++k) {
    pack32(packer, call->words[k]);
  }
  while (texts < 2 && call->texts[texts] != NULL) {
    ++texts;
  }
  pack32(packer, texts);
  for (uint32_t k = 0; k < texts; ++k) {
    pack_name(packer, call->texts[k], PATH_SIZE);
  }
  record_end(packer, begun);
}

static void record(const struct call* call, uint64_t end) {
  struct packer packer;
  unsigned char buffer[1024];
  const uint64_t offset = clock_offset();
  ring_begin(&the_recorder->ring, RING_CALL, end);
  packer_start(&packer, buffer, sizeof buffer, &the_recorder->ring);
  pack_call(&packer, call, end, offset);
  if (call->description != NULL) {
    pack_network(&packer, call, offset);
  }
  if (call->model != NULL) {
    pack_model(&packer, call, offset);
  }
  packer_flush(&packer);
  if (ring_commit(&the_recorder->ring) != 0) {
    __atomic_add_fetch(&the_recorder->lost_calls, 1, __ATOMIC_RELAXED);
  }
}

/* A call inside a frame goes into the frame. */
static void note_in_frame(struct thread_state* thread, const struct call* call, uint64_t end) {
  if (thread->calls < MOST_PLATFORM_CALLS) {
    struct platform_call* const noted = &thread->call[thread->calls++];
    noted->function = call->function;
    noted->result = call->result;
    noted->begin = call->begin;
    noted->end = end;
    noted->word = call->function == RECORDING_FLUSH ? call->words[0] : call->channel;
  }
}

QV_S32 call_end(struct call* call) {
  if (call->function == 0) {
    return call->result;
  }
  const uint64_t end = monotonic_now();
  struct thread_state* const thread = this_thread();
  if (thread->is_in_frame && call->function != RECORDING_DESTROY_CHANNEL) {
    note_in_frame(thread, call, end);
    return call->result;
  }
  if (call->outer != 0) {
    call->handle = thread->outer_handle;
  }
  pthread_mutex_lock(&recorder_lock);
  if (thread->is_in_frame) {
    note_in_frame(thread, call, end);
  } else {
    note_before(call);
    record(call, end);
  }
  note_after(call);
  pthread_mutex_unlock(&recorder_lock);
  if (is_of_the_library(call->function)) {
    thread->outer = 0;
    thread->outer_handle = NULL;
  }
  return call->result;
}
