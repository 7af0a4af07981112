// SPDX-License-Identifier: Apache-2.0
// host_accelerator.cpp - the chip's contract: the device, the table of channels, and the calls,
// each behind one guard that turns an error into a code and a line on standard error. channel.h
// holds what a channel does.
#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <optional>

#include "platform/host/channel.h"
#include "platform/host/host_error.h"
#include "platform/host/memory_map.h"
#include "platform/host/model_source.h"
#include "qv_sys.h"

#define QV_EXPORT __attribute__((visibility("default")))

namespace qv_host {
namespace {

constexpr QV_U32 kMaxOutputDepth = 64;

thread_local InvokeFacts last_invoke;
thread_local FlushedRange last_flushed;

struct Device {
  QV_IPU_DevAttr_s attributes = {};
  std::map<QV_U32, std::shared_ptr<Channel>> channels;
};

// The process's one device. The lock is held for the tables alone, never while a network runs.
class DeviceTable {
 public:
  void open(const QV_IPU_DevAttr_s& attributes) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (device_) {
      throw HostError(QV_HOST_DEVICE_EXISTS,
                      "the process has a device already; set had_create_device");
    }
    device_.emplace();
    device_->attributes = attributes;
  }

  void close() {
    std::optional<Device> closing;  // its channels go after the lock
    const std::lock_guard<std::mutex> lock(mutex_);
    require_device();
    closing.swap(device_);
  }

  QV_IPU_DevAttr_s attributes() {
    const std::lock_guard<std::mutex> lock(mutex_);
    require_device();
    return device_->attributes;
  }

  QV_U32 add(std::shared_ptr<Channel> channel) {
    const std::lock_guard<std::mutex> lock(mutex_);
    require_device();  // it may have been destroyed while the network was loaded
    device_->channels[next_id_] = std::move(channel);
    return next_id_++;
  }

  std::shared_ptr<Channel> find(QV_U32 id) {
    const std::lock_guard<std::mutex> lock(mutex_);
    require_device();
    const auto position = device_->channels.find(id);
    if (position == device_->channels.end()) {
      throw unknown(id);
    }
    return position->second;
  }

  void remove(QV_U32 id) {
    std::shared_ptr<Channel> closing;
    const std::lock_guard<std::mutex> lock(mutex_);
    require_device();
    const auto position = device_->channels.find(id);
    if (position == device_->channels.end()) {
      throw unknown(id);
    }
    closing.swap(position->second);
    device_->channels.erase(position);
  }

 private:
  // Requires: the lock.
  void require_device() const {
    if (!device_) {
      throw HostError(QV_HOST_NO_DEVICE, "there is no device; call QV_IPU_CreateDevice first");
    }
  }

  static HostError unknown(QV_U32 id) {
    return HostError(QV_HOST_NO_CHANNEL,
                     "channel " + std::to_string(id) + " does not exist or was closed");
  }

  std::mutex mutex_;
  std::optional<Device> device_;
  QV_U32 next_id_ = 0;  // ids are not used twice, so a closed channel's is known as such
};

DeviceTable& table() {
  // Deliberate: never destroyed. A process may end while another thread is still inside a call.
  static DeviceTable* const table = new DeviceTable;
  return *table;
}

// Runs one call of the contract. Exceptions must not reach the C caller.
template <typename Call>
QV_S32 guarded(const char* name, const Call& call) {
  const auto report = [name](QV_S32 code, const char* message) {
    std::fprintf(stderr, "qv_host: %s: %s\n", name, message);
    return code;
  };
  try {
    call();
    return 0;
  } catch (const HostError& error) {
    return report(error.code(), error.what());
  } catch (const ImageReadError& error) {
    return report(QV_HOST_READ_FAILED, error.what());
  } catch (const ImageError& error) {
    return report(QV_HOST_BAD_IMAGE, error.what());
  } catch (const std::bad_alloc&) {
    return report(QV_HOST_OUT_OF_MEMORY, "out of memory");
  } catch (const std::exception& error) {
    return report(QV_HOST_INTERNAL_ERROR, error.what());
  } catch (...) {
    return report(QV_HOST_INTERNAL_ERROR, "unknown error");
  }
}

void require_argument(const void* argument, const char* name) {
  if (argument == nullptr) {
    throw HostError(QV_HOST_BAD_ARGUMENT, std::string("the argument ") + name + " is NULL");
  }
}

void check_channel_attributes(const QV_IPUChnAttr_s& attributes) {
  if (attributes.u32SubNetId != 0) {
    throw HostError(QV_HOST_BAD_ARGUMENT, "u32SubNetId is " +
                                              std::to_string(attributes.u32SubNetId) +
                                              "; a host model has one network, number 0");
  }
  if (attributes.u32BatchMax > 1) {
    throw HostError(QV_HOST_BAD_ARGUMENT, "u32BatchMax is " +
                                              std::to_string(attributes.u32BatchMax) +
                                              "; the host runs one frame at a time (0 or 1)");
  }
  if (attributes.u32OutputBufDepth > kMaxOutputDepth) {
    throw HostError(QV_HOST_BAD_ARGUMENT,
                    "u32OutputBufDepth is " + std::to_string(attributes.u32OutputBufDepth) +
                        ", at most " + std::to_string(kMaxOutputDepth) + " can be had");
  }
}

// Errors of a channel that is being opened name the model they are about.
std::shared_ptr<Channel> open_channel(const Model& model, const QV_IPU_DevAttr_s& device,
                                      const QV_IPUChnAttr_s& attributes) {
  try {
    return std::make_shared<Channel>(model.image, device,
                                     std::max(1u, attributes.u32OutputBufDepth));
  } catch (const HostError& error) {
    throw HostError(error.code(), model.origin + ": " + error.what());
  }
}

QV_IPU_OfflineModelStaticInfo_s static_info(const Image& image) {
  const InputDescription& input = image.description.input;
  const int planes = input.network_order == ColourOrder::kGray ? 1 : 3;
  QV_IPU_OfflineModelStaticInfo_s info = {};
  // The engine manages its own memory; what is known beforehand is the network's input.
  info.u32VariableBufferSize = static_cast<QV_U32>(input.width) *
                               static_cast<QV_U32>(input.height) * static_cast<QV_U32>(planes) *
                               static_cast<QV_U32>(sizeof(float));
  info.u32OfflineModelSize = static_cast<QV_U32>(image_size(image.header));
  info.u32TotalBatchNumTypes = 1;
  info.au32BatchNumTypes[0] = 1;
  return info;
}

}  // namespace
}  // namespace qv_host

using namespace qv_host;

extern "C" {

// Deliberate: callback and firmware path are not looked at; a workstation has no firmware.
QV_EXPORT QV_S32 QV_IPU_CreateDevice(QV_IPU_DevAttr_s* attributes, QV_IPU_ReadFunc, char*, QV_U32) {
  return guarded("QV_IPU_CreateDevice", [&] {
    require_argument(attributes, "attributes");
    table().open(*attributes);
  });
}

QV_EXPORT QV_S32 QV_IPU_DestroyDevice(void) {
  return guarded("QV_IPU_DestroyDevice", [] { table().close(); });
}

QV_EXPORT QV_S32 QV_IPU_GetOfflineModeStaticInfo(QV_IPU_ReadFunc read, char* path_or_context,
                                                 QV_IPU_OfflineModelStaticInfo_s* info) {
  return guarded("QV_IPU_GetOfflineModeStaticInfo", [&] {
    require_argument(info, "info");
    *info = static_info(load_model(read, path_or_context).image);
  });
}

QV_EXPORT QV_S32 QV_IPU_CreateCHN(QV_U32* channel, QV_IPUChnAttr_s* attributes,
                                  QV_IPU_ReadFunc read, char* path_or_context) {
  return guarded("QV_IPU_CreateCHN", [&] {
    require_argument(channel, "channel");
    require_argument(attributes, "attributes");
    check_channel_attributes(*attributes);
    const QV_IPU_DevAttr_s device = table().attributes();
    *channel = table().add(open_channel(load_model(read, path_or_context), device, *attributes));
  });
}

QV_EXPORT QV_S32 QV_IPU_DestroyCHN(QV_U32 channel) {
  return guarded("QV_IPU_DestroyCHN", [&] { table().remove(channel); });
}

QV_EXPORT QV_S32 QV_IPU_GetInOutTensorDesc(QV_U32 channel,
                                           QV_IPU_SubNet_InputOutputDesc_t* description) {
  return guarded("QV_IPU_GetInOutTensorDesc", [&] {
    require_argument(description, "description");
    table().find(channel)->describe(description);
  });
}

QV_EXPORT QV_S32 QV_IPU_GetOutputTensors(QV_U32 channel, QV_IPU_TensorVector_t* tensors) {
  return guarded("QV_IPU_GetOutputTensors", [&] {
    require_argument(tensors, "tensors");
    table().find(channel)->get_outputs(tensors);
  });
}

QV_EXPORT QV_S32 QV_IPU_PutOutputTensors(QV_U32 channel, QV_IPU_TensorVector_t* tensors) {
  return guarded("QV_IPU_PutOutputTensors", [&] {
    require_argument(tensors, "tensors");
    table().find(channel)->put_outputs(*tensors);
  });
}

QV_EXPORT QV_S32 QV_IPU_Invoke(QV_U32 channel, QV_IPU_TensorVector_t* input,
                               QV_IPU_TensorVector_t* output) {
  return guarded("QV_IPU_Invoke", [&] {
    require_argument(input, "input");
    require_argument(output, "output");
    last_invoke = table().find(channel)->invoke(*input, *output, last_flushed);
  });
}

// A workstation's caches are coherent; what remains is to remember how large the owner says the
// frame is, so that QV_IPU_Invoke can refuse one that is too small.
QV_EXPORT QV_S32 QV_SYS_FlushInvCache(void* address, QV_U32 size) {
  return guarded("QV_SYS_FlushInvCache", [&] {
    last_flushed = FlushedRange{address, size, false};
    require_argument(address, "address");
    const ReadableRange readable = readable_range(address, size);
    if (readable.size < size) {
      throw HostError(QV_HOST_BAD_FRAME, "only " + std::to_string(readable.size) + " of " +
                                             std::to_string(size) + " bytes are mapped");
    }
    last_flushed.is_memory = !readable.has_file;
  });
}

QV_EXPORT void QV_HOST_LastInvokeTimes(double* conversion_ms, double* network_ms) {
  if (conversion_ms != nullptr) {
    *conversion_ms = last_invoke.conversion_ms;
  }
  if (network_ms != nullptr) {
    *network_ms = last_invoke.network_ms;
  }
}

QV_EXPORT QV_U32 QV_HOST_LastInvokeDropped(void) {
  return static_cast<QV_U32>(last_invoke.dropped_candidates);
}

}  // extern "C"
