// SPDX-License-Identifier: Apache-2.0
// next_platform.cpp - loads a platform's library, and finds calls in it.
#include "platform/replay/next_platform.h"

#include <array>
#include <fstream>

#include <dlfcn.h>
#include <elf.h>

#include "platform/replay/qv_replay.h"

namespace qv_replay {

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
