// SPDX-License-Identifier: Apache-2.0
// faulty_calls.cpp - calls in front of the scripted accelerator, which has the probe network: handed on as they are,
// or with the one fault of probe_platform.h.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <vector>

#include <dlfcn.h>

#include "qv_ipu.h"
#include "qv_sys.h"
#include "tests/platform/probe_platform.h"

namespace {

using probe_platform::has_fault;
using Bytes = std::vector<unsigned char>;

constexpr std::size_t kLeak = 65536;  // bytes

// The same call of the platform behind this one.
template <typename Signature>
Signature* behind(Signature* /*own*/, const char* name) {
  void* const found = dlsym(RTLD_NEXT, name);
  Signature* result = nullptr;
  std::memcpy(&result, &found, sizeof result);
  return result;
}

#define BEHIND(call) behind(call, #call)

// The buffers of a channel, and what is kept beside them.
struct Lent {
  QV_IPU_TensorVector_t tensors = {};
  std::vector<std::size_t> sizes;
  Bytes kept;  // outputs of the invocation before, or those that no flush has shown yet
};

std::mutex lock;
std::map<QV_U32, Lent> lent;
QV_IPU_ReadFunc kept_read = nullptr;
char* kept_context = nullptr;

// All outputs, one after the other.
Bytes contents(const Lent& of) {
  Bytes bytes;
  for (std::size_t k = 0; k < of.sizes.size(); ++k) {
    const auto* const data =
        static_cast<const unsigned char*>(of.tensors.astArrayTensors[k].ptTensorData[0]);
    bytes.insert(bytes.end(), data, data + of.sizes[k]);
  }
  return bytes;
}

void replace(const Lent& of, const Bytes& bytes) {
  auto from = bytes.begin();
  for (std::size_t k = 0; k < of.sizes.size() && from != bytes.end(); ++k) {
    std::copy_n(from, of.sizes[k],
                static_cast<unsigned char*>(of.tensors.astArrayTensors[k].ptTensorData[0]));
    from += static_cast<std::ptrdiff_t>(of.sizes[k]);
  }
}

// The vector with addresses that are moved by some bytes.
QV_IPU_TensorVector_t moved(QV_IPU_TensorVector_t tensors, int bytes) {
  for (QV_U32 k = 0; has_fault("unaligned") && k < tensors.u32TensorCount; ++k) {
    QV_IPU_Tensor_t& tensor = tensors.astArrayTensors[k];
    tensor.ptTensorData[0] = static_cast<char*>(tensor.ptTensorData[0]) + bytes;
  }
  return tensors;
}

void spoil_outputs(Lent* of, const Bytes& before) {
  const Bytes now = contents(*of);
  if (has_fault("incomplete")) {
    Bytes mixed = now;
    std::copy(before.end() - 100, before.end(), mixed.end() - 100);
    replace(*of, mixed);
  } else if (has_fault("other-address")) {
    replace(*of, before);
  } else if (has_fault("late")) {
    replace(*of, of->kept);
    of->kept = now;
  } else if (has_fault("cached-output")) {
    replace(*of, before);
    of->kept = now;
  } else if (has_fault("mixed-channels")) {
    for (const auto& other : lent) {
      replace(other.second, now);
    }
  }
}

void use_kept_model() {
  if (has_fault("keeps-model")) {
    const volatile char* const model = kept_context;
    static_cast<void>(*model);
  } else if (has_fault("late-read")) {
    char byte = 0;
    kept_read(&byte, 0, 1, kept_context);
  }
}

}  // namespace

QV_S32 QV_IPU_CreateDevice(QV_IPU_DevAttr_s* attributes, QV_IPU_ReadFunc read, char* firmware_path,
                           QV_U32 reserved) {
  const QV_S32 result = BEHIND(QV_IPU_CreateDevice)(attributes, read, firmware_path, reserved);
  return result != 0 && has_fault("second-device") ? 0
         : result != 0 && has_fault("small-code")  ? 3
                                                   : result;
}

QV_S32 QV_IPU_CreateCHN(QV_U32* channel, QV_IPUChnAttr_s* attributes, QV_IPU_ReadFunc read,
                        char* path_or_context) {
  const std::lock_guard<std::mutex> guard(lock);
  if (has_fault("reads-outside") && read != nullptr) {
    char byte = 0;
    read(&byte, probe_platform::kModelSize, 1, path_or_context);
  }
  if (has_fault("other-context") && read != nullptr) {
    char byte = 0;
    char copy[16] = {};
    read(&byte, 0, 1, copy);
  }
  if (has_fault("leaks")) {
    std::memset(std::malloc(kLeak), 1, kLeak);
  }
  kept_read = read;
  kept_context = path_or_context;
  return BEHIND(QV_IPU_CreateCHN)(channel, attributes, read, path_or_context);
}

QV_S32 QV_IPU_GetOutputTensors(QV_U32 channel, QV_IPU_TensorVector_t* tensors) {
  const std::lock_guard<std::mutex> guard(lock);
  const QV_S32 result = BEHIND(QV_IPU_GetOutputTensors)(channel, tensors);
  if (result == 0) {
    *tensors = moved(*tensors, 1);
    static QV_IPU_SubNet_InputOutputDesc_t description;
    QV_IPU_GetInOutTensorDesc(channel, &description);
    Lent& own = lent[channel];
    own = Lent{*tensors, {}, {}};
    for (QV_U32 k = 0; k < tensors->u32TensorCount; ++k) {
      own.sizes.push_back(description.astQV_OutputTensorDescs[k].u32BufSize);
    }
  }
  return result;
}

QV_S32 QV_IPU_PutOutputTensors(QV_U32 channel, QV_IPU_TensorVector_t* tensors) {
  const std::lock_guard<std::mutex> guard(lock);
  QV_IPU_TensorVector_t own = moved(*tensors, -1);
  const QV_S32 result = BEHIND(QV_IPU_PutOutputTensors)(channel, &own);
  if (result == 0) {
    lent.erase(channel);
  }
  return result;
}

QV_S32 QV_IPU_DestroyCHN(QV_U32 channel) {
  const std::lock_guard<std::mutex> guard(lock);
  const QV_S32 result = BEHIND(QV_IPU_DestroyCHN)(channel);
  if (result != 0 && has_fault("crash-at-end")) {
    std::abort();
  }
  return has_fault("closes-twice") ? 0 : result;
}

QV_S32 QV_IPU_DestroyDevice(void) {
  const QV_S32 result = BEHIND(QV_IPU_DestroyDevice)();
  const std::lock_guard<std::mutex> guard(lock);
  if (result == 0) {
    lent.clear();
  }
  return result;
}

QV_S32 QV_IPU_Invoke(QV_U32 channel, QV_IPU_TensorVector_t* input, QV_IPU_TensorVector_t* output) {
  use_kept_model();
  Bytes before;
  {
    const std::lock_guard<std::mutex> guard(lock);
    before = contents(lent[channel]);
  }
  QV_IPU_TensorVector_t own = moved(*output, -1);
  const QV_S32 result = BEHIND(QV_IPU_Invoke)(channel, input, &own);
  const std::lock_guard<std::mutex> guard(lock);
  if (result == 0) {
    Lent& of = lent[channel];
    for (std::size_t k = 0; has_fault("unaligned") && k < of.sizes.size(); ++k) {
      char* const data = static_cast<char*>(of.tensors.astArrayTensors[k].ptTensorData[0]);
      std::memmove(data, data - 1, of.sizes[k]);
    }
    spoil_outputs(&of, before);
  }
  return result;
}

QV_S32 QV_SYS_FlushInvCache(void* address, QV_U32 size) {
  const std::lock_guard<std::mutex> guard(lock);
  for (auto& entry : lent) {
    Lent& of = entry.second;
    if (has_fault("cached-output") && of.tensors.astArrayTensors[0].ptTensorData[0] == address) {
      replace(of, of.kept);
    }
  }
  if (has_fault("flush-discards")) {
    std::memset(address, 0, 16);
  }
  return BEHIND(QV_SYS_FlushInvCache)(address, size);
}
