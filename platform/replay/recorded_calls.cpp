// SPDX-License-Identifier: Apache-2.0
// recorded_calls.cpp - comparison of calls one after the other, and buffers by owner; loading of a platform's library,
// and finding calls in it.
#include "platform/replay/recorded_calls.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <map>
#include <mutex>
#include <utility>

#include <dlfcn.h>
#include <elf.h>

namespace qv_replay {

namespace {

const char* const kFunctionNames[] = {
    "QV_IPU_CreateDevice",     "QV_IPU_DestroyDevice",    "QV_IPU_GetOfflineModeStaticInfo",
    "QV_IPU_CreateCHN",        "QV_IPU_DestroyCHN",       "QV_IPU_GetInOutTensorDesc",
    "QV_IPU_GetOutputTensors", "QV_IPU_PutOutputTensors", "QV_IPU_Invoke",
    "QV_SYS_FlushInvCache"};

struct Player {
  const std::vector<Call>* calls = nullptr;
  std::size_t next = 0;
  std::uint32_t owner = 0;
  std::vector<Difference> differences;
};

thread_local Player player;

using Buffers = std::vector<std::vector<unsigned char>>;

std::mutex buffers_lock;
std::map<std::uint32_t, Buffers> buffers_of_owners;

void differ(const std::string& field, const std::string& recorded, const std::string& played) {
  player.differences.push_back({field, recorded, played});
}

std::string hexadecimal(QV_U32 value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%x", value);
  return text;
}

void compare_arguments(const Call& call, const std::vector<QV_U32>& arguments) {
  const std::string name = function_name(call.function);
  const std::vector<QV_U32>& recorded = *call.arguments;
  if (recorded.size() != arguments.size()) {
    differ(name + " arguments", std::to_string(recorded.size()), std::to_string(arguments.size()));
    return;
  }
  for (std::size_t k = 0; k < arguments.size(); ++k) {
    if (recorded[k] != arguments[k]) {
      differ(name + " argument " + std::to_string(k + 1), hexadecimal(recorded[k]),
             hexadecimal(arguments[k]));
    }
  }
}

void compare(const Call& call, QV_U32 channel, const std::vector<QV_U32>& arguments,
             const char* path) {
  const std::string name = function_name(call.function);
  if (call.function != Function::kCreateCHN && call.channel != channel) {
    differ(name + " channel", std::to_string(call.channel), std::to_string(channel));
  }
  if (call.arguments) {
    compare_arguments(call, arguments);
  }
  if (call.path && *call.path != (path != nullptr ? path : "")) {
    differ(name + " path", *call.path, path != nullptr ? path : "NULL");
  }
}

}  // namespace

const char* function_name(Function function) {
  return kFunctionNames[static_cast<int>(function)];
}

void begin(const std::vector<Call>& calls, std::uint32_t owner) {
  player = Player();
  player.calls = &calls;
  player.owner = owner;
}

std::vector<Difference> end() {
  for (; player.next < player.calls->size(); ++player.next) {
    differ("platform call", function_name((*player.calls)[player.next].function), "none");
  }
  player.calls = nullptr;
  return std::move(player.differences);
}

bool is_playing() {
  return player.calls != nullptr;
}

const Call* next_call(Function function, QV_U32 channel, const std::vector<QV_U32>& arguments,
                      const char* path) {
  const std::vector<Call>& calls = *player.calls;
  const auto from = calls.begin() + static_cast<std::ptrdiff_t>(player.next);
  const auto found = std::find_if(
      from, calls.end(), [function](const Call& call) { return call.function == function; });
  if (found != from) {
    differ("platform call", from == calls.end() ? "none" : function_name(from->function),
           function_name(function));
  }
  if (found == calls.end()) {
    return nullptr;
  }
  player.next = static_cast<std::size_t>(found - calls.begin()) + 1;
  compare(*found, channel, arguments, path);
  return &*found;
}

void hand_out(const Call& call, QV_IPU_TensorVector_t* tensors) {
  const std::lock_guard<std::mutex> guard(buffers_lock);
  Buffers& buffers = buffers_of_owners[player.owner];
  buffers.clear();
  *tensors = QV_IPU_TensorVector_t();
  tensors->u32TensorCount = call.output_count;
  for (std::size_t k = 0; k < call.buffers.size() && k < OLVEX_MAX_TENSORS; ++k) {
    buffers.emplace_back(call.buffers[k].size);
    // An empty buffer has an address, too.
    buffers.back().reserve(1);
    QV_IPU_Tensor_t& tensor = tensors->astArrayTensors[k];
    tensor.ptTensorData[0] = call.buffers[k].has_address ? buffers.back().data() : nullptr;
    tensor.phyTensorAddr[0] = reinterpret_cast<std::uintptr_t>(tensor.ptTensorData[0]);
  }
}

void fill(const Call& call) {
  const std::lock_guard<std::mutex> guard(buffers_lock);
  Buffers& buffers = buffers_of_owners[player.owner];
  for (std::size_t k = 0; k < call.outputs.size() && k < buffers.size(); ++k) {
    std::vector<unsigned char>& buffer = buffers[k];
    std::copy_n(call.outputs[k].begin(), std::min(call.outputs[k].size(), buffer.size()),
                buffer.begin());
  }
}

void release(std::uint32_t owner) {
  const std::lock_guard<std::mutex> guard(buffers_lock);
  buffers_of_owners.erase(owner);
}

// ---- The platform behind this one ----

namespace {

void* library = RTLD_NEXT;

// With a slash, so that the file is taken and not one of the system's folders searched.
std::string file_name(const std::string& path) {
  return path.find('/') == std::string::npos ? "./" + path : path;
}

// Word size, byte order and processor of a program or library; empty for other files.
std::string processor_of(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::array<char, EI_NIDENT + 2 * sizeof(Elf32_Half)> header = {};
  file.read(header.data(), header.size());
  if (!file || std::memcmp(header.data(), ELFMAG, SELFMAG) != 0) {
    return "";
  }
  return std::string(&header[EI_CLASS], 2) +
         std::string(&header[EI_NIDENT + sizeof(Elf32_Half)], 2);
}

// Why a file cannot be loaded; the loader calls one for another processor missing.
std::string loading_fault(const std::string& path) {
  const std::string loader = dlerror();
  const std::string processor = processor_of(path);
  return processor.empty() || processor == processor_of("/proc/self/exe")
             ? loader
             : path + ": it is for another processor";
}

// Why the calls of a loaded library cannot be used; empty when they can.
std::string fault_of(void* loaded, const std::string& path) {
  for (int k = 0; k < kFunctionCount; ++k) {
    const char* const name = function_name(static_cast<Function>(k));
    const void* const found = dlsym(loaded, name);
    if (found == nullptr) {
      return path + ": it has no " + name;
    }
    if (found == dlsym(RTLD_DEFAULT, name)) {
      return path + ": it is a part of this program";
    }
  }
  return "";
}

}  // namespace

void* find_next(const char* name) {
  return dlsym(library, name);
}

std::string use_platform(const std::string& path) {
  // Deliberate: never closed. The platform's threads may outlive its calls.
  void* const loaded = dlopen(file_name(path).c_str(), RTLD_NOW | RTLD_LOCAL);
  if (loaded == nullptr) {
    return loading_fault(path);
  }
  const std::string fault = fault_of(loaded, path);
  if (fault.empty()) {
    library = loaded;
  }
  return fault;
}

}  // namespace qv_replay
