// SPDX-License-Identifier: Apache-2.0
// api_fuzz.cpp - the exported functions in any order on up to three handles, within what olvex_det.h
// asks of an application, while platform calls fail. Each result has to be one that the header
// names, and nothing may be left behind.
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "platform/scripted/qv_scripted.h"
#include "tests/api/list_network.h"
#include "video/det/include/olvex_det.h"

// The linker hands these every call of this program's own objects, the library's among them.
extern "C" {
void* __real_mmap(void* address, size_t size, int protection, int flags, int file, off_t offset);
int __real_munmap(void* address, size_t size);

std::map<void*, size_t> mappings;  // not yet unmapped

void* __wrap_mmap(void* address, size_t size, int protection, int flags, int file, off_t offset) {
  void* mapping = __real_mmap(address, size, protection, flags, file, offset);
  if (mapping != MAP_FAILED) {
    mappings[mapping] = size;
  }
  return mapping;
}

int __wrap_munmap(void* address, size_t size) {
  const auto found = mappings.find(address);
  FUZZ_CHECK(found != mappings.end() && found->second == size);
  mappings.erase(found);
  return __real_munmap(address, size);
}
}

namespace {

using qv_scripted::Function;

const QV_S32 kFailure = 0x51;  // what a failing platform call answers
const unsigned char kUntouched = 0x5a;

// The INI file of the frame dump.
MemoryFile& dump_settings() {
  static MemoryFile file;
  return file;
}

// Shows one list of boxes, whose labels reach classes that a model hides.
qv_scripted::Network draw_network(FuzzInput& input) {
  const QV_U32 kind = input.below(32);
  Detections detections(kind == 0 ? 203 : input.below(8));  // 200 are reported
  for (size_t i = 0; i < detections.size(); ++i) {
    const float x = static_cast<float>(i % 25 * 10), y = static_cast<float>(i / 25 * 10);
    detections[i] = {x, y, x + 9, y + 9, 0.5f, 0};
    if (kind != 0) {
      detections[i].score = input.number();
      detections[i].label = static_cast<float>(input.below(10));
    }
  }
  qv_scripted::Network network = list_network({detections}, 203);
  if (kind == 1) {  // a single output
    network.outputs.resize(1);
    network.frames = {{}};
  } else if (kind == 2) {
    network.outputs[0].eElmFormat = QV_IPU_FORMAT_INT8;
  } else if (kind == 3) {  // no decoder takes it
    network.outputs[1].u32TensorShape[2] = 3;
  }
  return network;
}

struct Handle {
  void* pointer = nullptr;
  bool is_initialised = false;
  bool must_be_freed = false;  // after a failure of the platform in a frame
  QV_BOOL tracker = 0, strict = 0;
};

class Application {
 public:
  explicit Application(FuzzInput& input) : input_(input), boxes_(ALGO_DET_MAX_BOXES) {}

  void live() {
    for (int steps = 0; steps < 60 && !input_.empty(); ++steps) {
      step(handles_[input_.below(3)]);
    }
    for (Handle& handle : handles_) {
      free_handle(handle);
    }
    check_end();
  }

 private:
  void step(Handle& handle) {
    const int choice = input_.byte() % 16;
    if (choice == 0) {
      fail_a_call();
    } else if (handle.pointer == nullptr) {
      FUZZ_CHECK(ALGO_DET_CreateHandle(&handle.pointer) == E_ALGO_SUCCESS);
    } else if (choice == 1 || handle.must_be_freed) {
      free_handle(handle);
    } else if (choice < 9) {
      handle.is_initialised ? run(handle) : initialise(handle);
    } else {
      choice == 9 ? run(handle) : set(handle, choice);
    }
  }

  void fail_a_call() {
    const Function function = static_cast<Function>(input_.below(qv_scripted::kFunctionCount));
    // What is not closed or taken down then stays.
    may_stay_ |= function == Function::kDestroyCHN || function == Function::kDestroyDevice;
    may_be_gone_ = true;
    qv_scripted::fail_next_call(function, kFailure);
  }

  // ---- Life ----

  void initialise(Handle& handle) {
    FUZZ_CHECK(ALGO_DET_InitHandle(handle.pointer, nullptr) == E_ALGO_INPUT_DATA_NULL);
    FUZZ_CHECK(ALGO_DET_InitHandle2(handle.pointer, nullptr) == E_ALGO_INPUT_DATA_NULL);
    qv_scripted::add_network(draw_network(input_));
    const bool had_device = qv_scripted::device_is_up();
    may_be_gone_ |= had_device;
    const QV_S32 result = input_.flag() ? initialise_from_file(handle, had_device)
                                        : initialise_from_memory(handle, had_device);
    FUZZ_CHECK(result == E_ALGO_SUCCESS || result == E_ALGO_DEVICE_FAULT || result == kFailure);
    handle.is_initialised = result == E_ALGO_SUCCESS;
    // A device that was created for a model that could not be read is the application's.
    may_stay_ |= result != E_ALGO_SUCCESS && !had_device && qv_scripted::device_is_up();
  }

  QV_S32 initialise_from_file(Handle& handle, QV_BOOL had_device) {
    static const std::string kModels[] = {
        kOfflineModel, std::string("model_out:zrpcnh\nlib_out:zrpcn\n") + kOfflineModel,
        std::string("model_out:zrphf;lib_out:zrpd\n") + kOfflineModel, "model_out:zrpd;", "QTN"};
    DetectionInfo_t info = {"", "/nowhere", input_.number(), draw_display(), had_device};
    const QV_U32 choice = input_.below(6);
    if (choice < 5) {
      std::snprintf(info.model, sizeof info.model, "%s", model_.holding(kModels[choice]).c_str());
    }
    return ALGO_DET_InitHandle(handle.pointer, &info);
  }

  QV_S32 initialise_from_memory(Handle& handle, QV_BOOL had_device) {
    const QV_U32 size = sizeof kOfflineModel;
    void* const buffer =
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    FUZZ_CHECK(buffer != MAP_FAILED);
    std::memcpy(buffer, kOfflineModel, size);
    DetectionInfo2_t info = {buffer, size, input_.number(), draw_display(), had_device};
    const QV_S32 result = ALGO_DET_InitHandle2(handle.pointer, &info);
    // It is taken over, unless there was no device.
    FUZZ_CHECK((mappings.count(buffer) == 0) == (result != kFailure));
    if (result == kFailure) {
      munmap(buffer, size);
    }
    return result;
  }

  Rect_t draw_display() { return {input_.flag() ? 1920 : input_.raw<QV_U32>(), 1080}; }

  void free_handle(Handle& handle) {
    if (handle.pointer != nullptr) {
      FUZZ_CHECK(ALGO_DET_ReleaseHandle(handle.pointer) == E_ALGO_SUCCESS);
      FUZZ_CHECK(ALGO_DET_DeinitHandle(handle.pointer) == E_ALGO_SUCCESS);
      handle = Handle();
    }
  }

  void check_end() const {
    FUZZ_CHECK(mappings.empty());
    const bool all_gone = qv_scripted::open_channel_count() == 0 && !qv_scripted::device_is_up();
    FUZZ_CHECK(may_stay_ || all_gone);
    for (const std::string& violation : qv_scripted::violations()) {
      const auto tells = [&](const char* text) { return violation.find(text) != violation.npos; };
      // A channel or a device may go with a failure, or with the handle that made the device; and
      // when no buffers are handed out, none can be given back.
      FUZZ_CHECK(may_be_gone_ &&
                 (tells("is closed") || tells("no device is up") || tells("never handed out")));
    }
  }

  // ---- Options ----

  void set(Handle& handle, int choice) {
    void* const pointer = handle.pointer;
    const QV_BOOL flag = input_.byte() % 3;
    const float number = input_.number();
    switch (choice) {
      case 10: {
        InputAttr_t format = {1, 2, QV_IPU_FORMAT_INT8};
        FUZZ_CHECK(ALGO_DET_GetInputAttr(pointer, &format) == E_ALGO_SUCCESS);
        FUZZ_CHECK(format.width == (handle.is_initialised ? kNetWidth : 1));
        return;
      }
      case 11:
        FUZZ_CHECK(ALGO_DET_SetThreshold(pointer, number) ==
                   (number < 0 || number > 1 ? E_ALGO_INVALID_PARAM : E_ALGO_SUCCESS));
        FUZZ_CHECK(ALGO_DET_SetThreshold(nullptr, number) == E_ALGO_HANDLE_NULL);
        return;
      case 12: {
        const QV_S32 moving = input_.byte() % 3;
        const bool is_valid = flag < 2 && moving <= flag;
        FUZZ_CHECK(ALGO_DET_SetTracker(pointer, flag, moving) ==
                   (is_valid ? E_ALGO_SUCCESS : E_ALGO_INVALID_PARAM));
        return note(handle, handle.tracker,
                    is_valid ? flag == 1 || handle.strict == 1 : handle.tracker);
      }
      case 13: {
        const DetTrackParams_t params = {flag,          input_.flag(), number,
                                         input_.flag(), number,        input_.byte()};
        FUZZ_CHECK(ALGO_DET_SetTracker2(pointer, params) == E_ALGO_SUCCESS);
        return note(handle, handle.tracker, flag);
      }
      case 14:
        FUZZ_CHECK(ALGO_DET_SetStrictMode(pointer, {flag}) == E_ALGO_SUCCESS);
        note(handle, handle.tracker, flag == 1 ? 1 : handle.tracker);
        return note(handle, handle.strict, flag);
      default:
        FUZZ_CHECK(ALGO_DET_SetStableBox(pointer, flag) == E_ALGO_SUCCESS);
        dump_settings().holding(number < 0.5f ? "[SET_ENV]\nQK_ALGO_I=/nowhere" : "[SET_ENV]\n");
    }
  }

  static void note(const Handle& handle, QV_BOOL& option, QV_BOOL value) {
    option = handle.is_initialised ? value : option;
  }

  // ---- Frames ----

  void run(Handle& handle) {
    static std::vector<unsigned char> picture(kNetWidth * kNetHeight);
    const ALGO_Input_t frame = {picture.data(), 1, static_cast<QV_U32>(picture.size()), 77};
    QV_S32 count = -7;
    std::memset(boxes_.data(), kUntouched, boxes_.size() * sizeof(Box_t));
    const QV_S32 result = ALGO_DET_Run(handle.pointer, &frame, boxes_.data(), &count);
    FUZZ_CHECK(handle.is_initialised == (result != E_ALGO_NOT_INIT));
    const bool is_strict_alone = handle.strict == 1 && handle.tracker == 0;
    if (result == E_ALGO_SUCCESS) {
      FUZZ_CHECK(!is_strict_alone && count >= 0 && count <= ALGO_DET_MAX_BOXES);
      check_untouched(static_cast<size_t>(count));
      return;
    }
    FUZZ_CHECK(count == -7);
    check_untouched(0);
    switch (result) {
      case E_ALGO_INVALID_PARAM:
        FUZZ_CHECK(is_strict_alone);
        break;
      case E_ALGO_NOT_INIT:
      case E_ALGO_LOADMODEL_FAIL:
      case E_ALGO_FILEIO_ERROR:
      case E_ALGO_INVALID_OUTPUT_SIZE:
      case E_ALGO_INVALID_DECODE_MODE:
        break;
      default:
        FUZZ_CHECK(result == kFailure || result == qv_scripted::kNoChannel ||
                   result == qv_scripted::kNoDevice || result == qv_scripted::kOutOfOrder);
        handle.must_be_freed = true;
    }
  }

  void check_untouched(size_t from) const {
    static const std::vector<unsigned char> bytes(ALGO_DET_MAX_BOXES * sizeof(Box_t), kUntouched);
    FUZZ_CHECK(std::memcmp(boxes_.data() + from, bytes.data(),
                           (ALGO_DET_MAX_BOXES - from) * sizeof(Box_t)) == 0);
  }

  FuzzInput& input_;
  Handle handles_[3];
  bool may_stay_ = false;     // channels and the device, when all handles are freed
  bool may_be_gone_ = false;  // a channel, the device or buffers, before their handle
  MemoryFile model_;
  std::vector<Box_t> boxes_;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  discard_standard_output();
  setenv("QK_ALGO_S", dump_settings().path().c_str(), 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qv_scripted::record_events(false);
  dump_settings().holding("");
  FuzzInput input(data, size);
  Application(input).live();
  qv_scripted::reset();
  return 0;
}
