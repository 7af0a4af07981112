// SPDX-License-Identifier: Apache-2.0
// replay_platform.cpp - the QV_ calls: answered from recorded calls, or handed on to the platform behind this one.
#include <algorithm>
#include <chrono>
#include <cstring>

#include "platform/replay/qv_replay.h"
#include "platform/replay/recorded_calls.h"

namespace {

using qv_replay::Call;
using qv_replay::Function;

// own: the call here. Looked for once for each of them.
#define HAND_ON(own, function, ...)                                                            \
  if (!qv_replay::is_playing()) {                                                              \
    static const auto next = qv_replay::next_call_of(own, qv_replay::function_name(function)); \
    return next != nullptr ? next(__VA_ARGS__) : qv_replay::kNoPlatform;                       \
  }

thread_local double invoke_time = 0;  // milliseconds

// Notes how long a call takes that is handed on.
class InvokeTimer {
 public:
  InvokeTimer() = default;
  ~InvokeTimer() {
    invoke_time =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start_)
            .count();
  }
  InvokeTimer(const InvokeTimer&) = delete;
  InvokeTimer& operator=(const InvokeTimer&) = delete;

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

template <typename Record>
void append_words(const Record* record, std::vector<QV_U32>* words) {
  static_assert(sizeof(Record) % sizeof(QV_U32) == 0, "a record of whole words");
  if (record != nullptr) {
    const std::size_t before = words->size();
    words->resize(before + sizeof(Record) / sizeof(QV_U32));
    std::memcpy(words->data() + before, record, sizeof(Record));
  }
}

QV_S32 result_of(const Call* call) {
  return call != nullptr ? call->result : qv_replay::kNotRecorded;
}

bool succeeds(const Call* call) {
  return call != nullptr && call->result == 0;
}

}  // namespace

QV_S32 QV_IPU_CreateDevice(QV_IPU_DevAttr_s* attributes, QV_IPU_ReadFunc read, char* firmware_path,
                           QV_U32 reserved) {
  HAND_ON(QV_IPU_CreateDevice, Function::kCreateDevice, attributes, read, firmware_path, reserved)
  std::vector<QV_U32> arguments = {read != nullptr ? 1u : 0u, reserved};
  append_words(attributes, &arguments);
  return result_of(qv_replay::next_call(Function::kCreateDevice, 0, arguments, firmware_path));
}

QV_S32 QV_IPU_DestroyDevice(void) {
  HAND_ON(QV_IPU_DestroyDevice, Function::kDestroyDevice)
  return result_of(qv_replay::next_call(Function::kDestroyDevice, 0, {}, nullptr));
}

QV_S32 QV_IPU_GetOfflineModeStaticInfo(QV_IPU_ReadFunc read, char* path_or_context,
                                       QV_IPU_OfflineModelStaticInfo_s* info) {
  HAND_ON(QV_IPU_GetOfflineModeStaticInfo, Function::kGetOfflineModeStaticInfo, read,
          path_or_context, info)
  const Call* const call =
      qv_replay::next_call(Function::kGetOfflineModeStaticInfo, 0, {read != nullptr ? 1u : 0u},
                           read == nullptr ? path_or_context : nullptr);
  if (succeeds(call)) {
    *info = QV_IPU_OfflineModelStaticInfo_s();
    std::memcpy(info, call->info.data(),
                std::min(sizeof *info, call->info.size() * sizeof(QV_U32)));
  }
  return result_of(call);
}

QV_S32 QV_IPU_CreateCHN(QV_U32* channel, QV_IPUChnAttr_s* attributes, QV_IPU_ReadFunc read,
                        char* path_or_context) {
  HAND_ON(QV_IPU_CreateCHN, Function::kCreateCHN, channel, attributes, read, path_or_context)
  std::vector<QV_U32> arguments = {read != nullptr ? 1u : 0u};
  append_words(attributes, &arguments);
  const Call* const call = qv_replay::next_call(Function::kCreateCHN, 0, arguments,
                                                read == nullptr ? path_or_context : nullptr);
  if (succeeds(call)) {
    *channel = call->channel;
  }
  return result_of(call);
}

QV_S32 QV_IPU_DestroyCHN(QV_U32 channel) {
  HAND_ON(QV_IPU_DestroyCHN, Function::kDestroyCHN, channel)
  return result_of(qv_replay::next_call(Function::kDestroyCHN, channel, {}, nullptr));
}

QV_S32 QV_IPU_GetInOutTensorDesc(QV_U32 channel, QV_IPU_SubNet_InputOutputDesc_t* description) {
  HAND_ON(QV_IPU_GetInOutTensorDesc, Function::kGetInOutTensorDesc, channel, description)
  const Call* const call =
      qv_replay::next_call(Function::kGetInOutTensorDesc, channel, {}, nullptr);
  if (succeeds(call) && call->description != nullptr) {
    *description = *call->description;
  }
  return result_of(call);
}

QV_S32 QV_IPU_GetOutputTensors(QV_U32 channel, QV_IPU_TensorVector_t* tensors) {
  HAND_ON(QV_IPU_GetOutputTensors, Function::kGetOutputTensors, channel, tensors)
  const Call* const call = qv_replay::next_call(Function::kGetOutputTensors, channel, {}, nullptr);
  if (succeeds(call)) {
    qv_replay::hand_out(*call, tensors);
  }
  return result_of(call);
}

QV_S32 QV_IPU_PutOutputTensors(QV_U32 channel, QV_IPU_TensorVector_t* tensors) {
  HAND_ON(QV_IPU_PutOutputTensors, Function::kPutOutputTensors, channel, tensors)
  return result_of(qv_replay::next_call(Function::kPutOutputTensors, channel,
                                        {tensors->u32TensorCount}, nullptr));
}

double qv_replay::last_invoke_time() {
  return invoke_time;
}

QV_S32 QV_IPU_Invoke(QV_U32 channel, QV_IPU_TensorVector_t* input, QV_IPU_TensorVector_t* output) {
  const InvokeTimer timer;
  HAND_ON(QV_IPU_Invoke, Function::kInvoke, channel, input, output)
  const Call* const call =
      qv_replay::next_call(Function::kInvoke, channel, {input->u32TensorCount}, nullptr);
  if (succeeds(call)) {
    qv_replay::fill(*call);
  }
  return result_of(call);
}

QV_S32 QV_SYS_FlushInvCache(void* address, QV_U32 size) {
  HAND_ON(QV_SYS_FlushInvCache, Function::kFlushInvCache, address, size)
  return result_of(qv_replay::next_call(Function::kFlushInvCache, 0, {size}, nullptr));
}
