// SPDX-License-Identifier: Apache-2.0
// player_calls.cpp - Player: the calls outside of frames.
#include <algorithm>
#include <cstring>

#include <sys/mman.h>

#include "tools/common/command.h"
#include "tools/replay/player.h"
#include "tools/replay/recorded_platform.h"

namespace olvex_tools {

namespace {

// Words that a call has at least, but for one whose record was NULL.
std::size_t words_of(unsigned function) {
  switch (function) {
    case RECORDING_GET_INPUT_ATTR:
      return 3;
    case RECORDING_INIT_HANDLE:
      return 4;
    case RECORDING_INIT_HANDLE2:
      return 5;
    case RECORDING_SET_TRACKER:
      return 2;
    case RECORDING_SET_TRACKER2:
      return 6;
    case RECORDING_SET_STABLE_BOX:
    case RECORDING_SET_THRESHOLD:
    case RECORDING_SET_STRICT_MODE:
      return 1;
    default:
      return 0;
  }
}

bool is_initialisation(const RecordedCall& call) {
  return call.function == RECORDING_INIT_HANDLE || call.function == RECORDING_INIT_HANDLE2;
}

// Whether the library looks at the handle before it uses it.
bool takes_null(const RecordedCall& call) {
  return is_initialisation(call) || call.function == RECORDING_SET_THRESHOLD ||
         call.function == RECORDING_DEINIT_HANDLE || call.function == RECORDING_RELEASE_HANDLE ||
         call.function == RECORDING_SET_STRICT_MODE;
}

// handle: null when there is none of that number.
bool can_be_played(const RecordedCall& call, const PlayedHandle* handle) {
  if (call.function == RECORDING_CREATE_HANDLE) {
    return handle == nullptr && call.handle != 0;
  }
  // Number 0 is a handle that was NULL, or one too many for the recorder.
  return handle != nullptr || (call.handle == 0 && takes_null(call) && call.result != 0);
}

float real_of(std::uint32_t bits) {
  float value = 0.0f;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

QV_BOOL flag_of(std::uint32_t word) {
  return static_cast<QV_BOOL>(word);
}

void copy_text(const RecordedCall& call, std::size_t index, char (&field)[256]) {
  if (index < call.texts.size()) {
    const std::string& text = call.texts[index];
    std::memcpy(field, text.data(), std::min(text.size(), sizeof field));
  }
}

DetTrackParams_t track_params(const HandleSettings& settings) {
  DetTrackParams_t params = {};
  // Strict mode switches the tracker on by itself, and this must not switch it off.
  params.enable = settings.track || settings.strict ? 1 : 0;
  params.ignore_static_objects = settings.ignore_static ? 1 : 0;
  params.static_sensitive = settings.static_sensitivity;
  params.stable_bbox = settings.stable ? 1 : 0;
  params.stable_sensitive = settings.stable_sensitivity;
  params.ignore_frame_number = settings.track_frames;
  return params;
}

DetTrackParams_t track_params(const std::vector<std::uint32_t>& words) {
  DetTrackParams_t params = {};
  params.enable = flag_of(words[0]);
  params.ignore_static_objects = flag_of(words[1]);
  params.static_sensitive = real_of(words[2]);
  params.stable_bbox = flag_of(words[3]);
  params.stable_sensitive = real_of(words[4]);
  params.ignore_frame_number = static_cast<QV_S32>(words[5]);
  return params;
}

ReplayDifference place_of(const RecordedCall& call) {
  ReplayDifference place;
  place.call = call.call;
  place.function = function_name(call.function);
  return place;
}

}  // namespace

void Player::require_words(const RecordedCall& call, const PlayedHandle* handle) const {
  // Of a handle that is not initialised nothing was handed back.
  const bool may_be_null =
      is_initialisation(call) ||
      (call.function == RECORDING_GET_INPUT_ATTR && handle != nullptr && !handle->is_initialised);
  const bool is_null = may_be_null && call.words.empty();
  if (!is_null && call.words.size() < words_of(call.function)) {
    refuse_input(recording_.name, "call " + std::to_string(call.call) + ": words of " +
                                      function_name(call.function) + " are missing");
  }
}

float Player::threshold_of(std::uint32_t word) const {
  return options_.changes.threshold.value_or(real_of(word));
}

void Player::play_call(const RecordedCall& call) {
  PlayedHandle* handle = find(call.handle);
  if (!can_be_played(call, handle)) {
    ++result_.left_out;
    return;
  }
  require_words(call, handle);
  if (call.function == RECORDING_CREATE_HANDLE) {
    handle = &handles_[call.handle];
  } else if (handle != nullptr) {
    run_missing_frames(call, handle);
  }
  PlayedHandle none;  // the handle that was NULL
  QV_S32 result = 0;
  const auto differences = run(call.thread, call.handle, platform_calls_of(recording_, call), [&] {
    result = make_call(call, handle != nullptr ? handle : &none);
  });
  ++result_.calls;
  const ReplayDifference place = place_of(call);
  // Of one that failed, only what is left in force is carried over.
  if ((call.flags & RECORDING_CALL_CARRIED) == 0 || call.result == 0) {
    if (result != call.result) {
      differ(place, "result", "result", std::to_string(call.result), std::to_string(result));
    }
    differ(place, differences);
  }
  if (handle != nullptr && result == 0) {
    after_call(call, handle);
  }
}

QV_S32 Player::make_call(const RecordedCall& call, PlayedHandle* handle) {
  void* const given = handle->handle;
  switch (call.function) {
    case RECORDING_CREATE_HANDLE:
      return ALGO_DET_CreateHandle(&handle->handle);
    case RECORDING_RELEASE_HANDLE:
      return ALGO_DET_ReleaseHandle(given);
    case RECORDING_GET_INPUT_ATTR:
      return get_input_attr(call, handle);
    case RECORDING_SET_STABLE_BOX:
      return ALGO_DET_SetStableBox(given, flag_of(call.words[0]));
    case RECORDING_INIT_HANDLE:
      return init_from_file(call, handle);
    case RECORDING_INIT_HANDLE2:
      return init_from_memory(call, handle);
    case RECORDING_SET_TRACKER:
      return ALGO_DET_SetTracker(given, static_cast<QV_S32>(call.words[0]),
                                 static_cast<QV_S32>(call.words[1]));
    case RECORDING_SET_TRACKER2:
      return ALGO_DET_SetTracker2(given, track_params(call.words));
    case RECORDING_SET_THRESHOLD:
      return ALGO_DET_SetThreshold(given, threshold_of(call.words[0]));
    case RECORDING_DEINIT_HANDLE:
      return ALGO_DET_DeinitHandle(given);
    default:
      return ALGO_DET_SetStrictMode(given, DetStrictModeParams_t{flag_of(call.words[0])});
  }
}

QV_S32 Player::init_from_file(const RecordedCall& call, PlayedHandle* handle) {
  void* const given = handle->handle;
  if (call.words.empty()) {
    return ALGO_DET_InitHandle(given, nullptr);
  }
  const ModelFile model(recording_, call);
  DetectionInfo_t info = {};
  copy_text(call, 0, info.ipu_firmware_path);
  std::memcpy(info.model, model.path().c_str(), model.path().size() + 1);
  info.threshold = threshold_of(call.words[0]);
  info.disp_size = {call.words[1], call.words[2]};
  info.had_create_device = flag_of(call.words[3]);
  return ALGO_DET_InitHandle(given, &info);
}

QV_S32 Player::init_from_memory(const RecordedCall& call, PlayedHandle* handle) {
  void* const given = handle->handle;
  if (call.words.empty()) {
    return ALGO_DET_InitHandle2(given, nullptr);
  }
  DetectionInfo2_t info = {};
  info.model_buffer_len = call.words[4];
  const std::size_t size = std::max<std::size_t>(info.model_buffer_len, 1);
  if (had_model(recording_, call)) {
    // Never touched: the platform does not read the model.
    info.model_buffer =
        mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (info.model_buffer == MAP_FAILED) {
      refuse_input(recording_.name, "call " + std::to_string(call.call) +
                                        ": no memory for a model of " + std::to_string(size) +
                                        " bytes");
    }
  }
  info.threshold = threshold_of(call.words[0]);
  info.disp_size = {call.words[1], call.words[2]};
  info.had_create_device = flag_of(call.words[3]);
  const QV_S32 result = ALGO_DET_InitHandle2(given, &info);
  if (info.model_buffer != nullptr && result != E_ALGO_SUCCESS && result != E_ALGO_DEVICE_FAULT) {
    // Only without a device does the library leave the mapping to its caller.
    munmap(info.model_buffer, size);
  }
  return result;
}

// A handle that is not initialised leaves the record as it is.
QV_S32 Player::get_input_attr(const RecordedCall& call, PlayedHandle* handle) {
  InputAttr_t attributes = {};
  const QV_S32 result = ALGO_DET_GetInputAttr(handle->handle, &attributes);
  const QV_U32 played[] = {attributes.width, attributes.height,
                           static_cast<QV_U32>(attributes.format)};
  const char* const names[] = {"width", "height", "format"};
  for (std::size_t k = 0; handle->is_initialised && k < std::size(names); ++k) {
    if (played[k] != call.words[k]) {
      differ(place_of(call), names[k], names[k], std::to_string(call.words[k]),
             std::to_string(played[k]));
    }
  }
  return result;
}

void Player::after_call(const RecordedCall& call, PlayedHandle* handle) {
  const bool is_carried = (call.flags & RECORDING_CALL_CARRIED) != 0;
  if (is_initialisation(call)) {
    handle->is_initialised = true;
    handle->width = call.words[1];
    handle->height = call.words[2];
    handle->network = network_of(recording_, call);
  } else if (call.function == RECORDING_DEINIT_HANDLE) {
    *handle = PlayedHandle();
    qv_replay::release(call.handle);
    return;
  } else if (handle->is_initialised) {
    handle->settings.take(call);
  }
  handle->had_tracker = handle->had_tracker || handle->settings.track;
  // Before the first frame of the process there is nothing that could be unknown.
  const bool is_first = !frame_numbers_.empty() && frame_numbers_.begin()->first == 1;
  if (is_carried && !is_first) {
    const bool may_have_tracks = handle->had_tracker || recording_.about.carried_complete == 0;
    handle->state.lose(may_have_tracks);
  }
  if (handle->is_initialised && options_.changes.change_tracking()) {
    change_options(handle);
  }
}

void Player::change_options(PlayedHandle* handle) {
  handle->changed = handle->settings;
  handle->changed.take(options_.changes);
  ALGO_DET_SetTracker2(handle->handle, track_params(handle->changed));
  ALGO_DET_SetStrictMode(handle->handle,
                         DetStrictModeParams_t{flag_of(handle->changed.strict ? 1 : 0)});
}

// A frame makes the tracker that strict mode asks for, and a tracker that is there takes settings that come
// later. No frame leaves another trace that is known.
void Player::run_missing_frames(const RecordedCall& call, PlayedHandle* handle) {
  const bool is_carried = (call.flags & RECORDING_CALL_CARRIED) != 0;
  if (is_carried && call.frames > handle->frames && handle->is_initialised &&
      handle->settings.track && handle->network != nullptr) {
    unsigned char picture = 0;
    ALGO_Input_t input = {};
    input.p_vir_addr = &picture;
    input.buf_size = sizeof picture;
    std::vector<Box_t> boxes(ALGO_DET_MAX_BOXES);
    QV_S32 count = 0;
    run(call.thread, call.handle, calls_of_empty_frame(*handle->network, sizeof picture),
        [&] { ALGO_DET_Run(handle->handle, &input, boxes.data(), &count); });
  }
  handle->frames = std::max(handle->frames, call.frames);
}

}  // namespace olvex_tools
