// SPDX-License-Identifier: Apache-2.0
// recording.cpp - from the container's messages to calls and frames.
#include "tools/recordings/recording.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "tools/common/command.h"
#include "tools/common/whole_file.h"

namespace olvex_tools {

namespace {

struct FunctionName {
  recording_function function;
  const char* name;
};

const FunctionName kFunctionNames[] = {
    {RECORDING_CREATE_HANDLE, "ALGO_DET_CreateHandle"},
    {RECORDING_RELEASE_HANDLE, "ALGO_DET_ReleaseHandle"},
    {RECORDING_GET_INPUT_ATTR, "ALGO_DET_GetInputAttr"},
    {RECORDING_SET_STABLE_BOX, "ALGO_DET_SetStableBox"},
    {RECORDING_INIT_HANDLE, "ALGO_DET_InitHandle"},
    {RECORDING_INIT_HANDLE2, "ALGO_DET_InitHandle2"},
    {RECORDING_SET_TRACKER, "ALGO_DET_SetTracker"},
    {RECORDING_SET_TRACKER2, "ALGO_DET_SetTracker2"},
    {RECORDING_SET_THRESHOLD, "ALGO_DET_SetThreshold"},
    {RECORDING_RUN, "ALGO_DET_Run"},
    {RECORDING_DEINIT_HANDLE, "ALGO_DET_DeinitHandle"},
    {RECORDING_SET_STRICT_MODE, "ALGO_DET_SetStrictMode"},
    {RECORDING_CREATE_DEVICE, "QV_IPU_CreateDevice"},
    {RECORDING_DESTROY_DEVICE, "QV_IPU_DestroyDevice"},
    {RECORDING_GET_STATIC_INFO, "QV_IPU_GetOfflineModeStaticInfo"},
    {RECORDING_CREATE_CHANNEL, "QV_IPU_CreateCHN"},
    {RECORDING_DESTROY_CHANNEL, "QV_IPU_DestroyCHN"},
    {RECORDING_GET_DESCRIPTION, "QV_IPU_GetInOutTensorDesc"},
    {RECORDING_GET_OUTPUTS, "QV_IPU_GetOutputTensors"},
    {RECORDING_PUT_OUTPUTS, "QV_IPU_PutOutputTensors"},
    {RECORDING_INVOKE, "QV_IPU_Invoke"},
    {RECORDING_FLUSH, "QV_SYS_FlushInvCache"},
};

bool is_of_the_library(unsigned function) {
  return function < RECORDING_CREATE_DEVICE;
}

void require(bool condition, const char* what) {
  if (!condition) {
    throw MessageFault{0, what};
  }
}

void check_call(const RecordedCall& call) {
  require(!function_name(call.function).empty() && call.function != RECORDING_RUN,
          "a call of no known function");
  require(call.outer == 0 || (!is_of_the_library(call.function) && call.outer < call.call),
          "a call that another one cannot have made");
}

void check_frame(const RecordedFrame& frame) {
  require(frame.floor >= 0.0f && frame.floor <= 1.0f, "a floor that is not within 0 to 1");
  require(frame.boxes.empty() || frame.large_boxes.empty(), "boxes of two kinds");
  require(std::all_of(frame.calls.begin(), frame.calls.end(),
                      [](const RecordedPlatformCall& call) {
                        return !is_of_the_library(call.function) &&
                               !function_name(call.function).empty();
                      }),
          "a call of no known function");
}

void check_network(const RecordedNetwork& network) {
  const auto fits = [](std::size_t stored, std::uint32_t count) {
    return stored == std::min<std::size_t>(count, 60);
  };
  require(fits(network.inputs.size(), network.input_count) &&
              fits(network.outputs.size(), network.output_count),
          "fewer or more tensors than their count says");
}

// Fills a recording from its messages.
class Collector {
 public:
  explicit Collector(Recording* recording) : recording_(*recording) {}

  void collect() {
    std::vector<ContainedChunk>& chunks = recording_.container.chunks;
    for (std::size_t k = 0; k < chunks.size(); ++k) {
      try {
        for (const ContainedMessage& message : chunks[k].messages) {
          add(message);
        }
      } catch (const MessageFault& fault) {
        end_before(k, fault);
        break;
      }
    }
    if (!has_about_) {
      refuse_input(recording_.name, whole_damage("it holds no whole chunk"));
    }
    order();
  }

 private:
  std::string whole_damage(const std::string& otherwise) const {
    const std::vector<Damage>& damages = recording_.container.damages;
    return damages.empty() ? otherwise : damage_text(damages.front());
  }

  template <typename Message>
  Message unpack(const ContainedMessage& message) {
    at_ = message.offset;
    return unpack_message<Message>(recording_.bytes.data() + message.offset, message.size);
  }

  void add(const ContainedMessage& message) {
    at_ = message.offset;
    require(has_about_ || message.channel == RECORDING_ABOUT,
            "the first message does not describe the recording");
    switch (message.channel) {
      case RECORDING_ABOUT:
        add_about(unpack<RecordingAbout>(message));
        break;
      case RECORDING_MODEL: {
        auto model = unpack<RecordedModel>(message);
        recording_.models.emplace(model.call, std::move(model));
        break;
      }
      case RECORDING_NETWORK: {
        auto network = unpack<RecordedNetwork>(message);
        check_network(network);
        recording_.networks.emplace(network.call, std::move(network));
        break;
      }
      case RECORDING_CALL: {
        auto call = unpack<RecordedCall>(message);
        check_call(call);
        recording_.calls.push_back(std::move(call));
        break;
      }
      case RECORDING_FRAME:
        add_frame(message);
        break;
      case RECORDING_EVENT:
        recording_.events.push_back(unpack<RecordedEvent>(message));
        break;
      case RECORDING_PICTURE:
        recording_.kept_pictures[unpack<RecordedPicture>(message).number] = message;
        ++recording_.pictures;
        break;
      default:  // annotations: for viewers
        break;
    }
  }

  void add_about(RecordingAbout about) {
    require(!has_about_, "the recording is described twice");
    require(about.format == RECORDING_FORMAT,
            "messages of a format that this program does not know");
    recording_.about = std::move(about);
    has_about_ = true;
  }

  void add_frame(const ContainedMessage& message) {
    const auto frame = unpack<RecordedFrame>(message);
    check_frame(frame);
    recording_.steps.push_back({frame.call, true, recording_.frames.size()});
    recording_.frames.push_back(message);
  }

  // The chunk is taken for damaged; what was read of it stays.
  void end_before(std::size_t chunk, const MessageFault& fault) {
    Container& container = recording_.container;
    const std::size_t at = at_ + fault.offset;
    container.chunks.resize(chunk);
    container.is_ended = false;
    container.damages.insert(container.damages.begin(),
                             {at, recording_.bytes.size(), false, fault.what});
    container.damages.resize(1);
  }

  void order() {
    std::stable_sort(recording_.calls.begin(), recording_.calls.end(),
                     [](const RecordedCall& a, const RecordedCall& b) { return a.call < b.call; });
    const auto repeated =
        std::unique(recording_.calls.begin(), recording_.calls.end(),
                    [](const RecordedCall& a, const RecordedCall& b) { return a.call == b.call; });
    recording_.calls.erase(repeated, recording_.calls.end());
    for (std::size_t k = 0; k < recording_.calls.size(); ++k) {
      const RecordedCall& call = recording_.calls[k];
      if (call.outer != 0) {
        recording_.inner_calls[call.outer].push_back(k);
      } else if (is_of_the_library(call.function)) {
        recording_.steps.push_back({call.call, false, k});
      }
    }
    std::stable_sort(recording_.steps.begin(), recording_.steps.end(),
                     [](const RecordedStep& a, const RecordedStep& b) { return a.call < b.call; });
  }

  Recording& recording_;
  bool has_about_ = false;
  std::size_t at_ = 0;  // of the message that is being read
};

}  // namespace

RecordedFrame Recording::frame(std::size_t index) const {
  const ContainedMessage& message = frames[index];
  return unpack_message<RecordedFrame>(bytes.data() + message.offset, message.size);
}

std::optional<RecordedPicture> Recording::picture(std::uint32_t number) const {
  const auto found = kept_pictures.find(number);
  if (found == kept_pictures.end()) {
    return std::nullopt;
  }
  const ContainedMessage& message = found->second;
  return unpack_message<RecordedPicture>(bytes.data() + message.offset, message.size);
}

Recording read_recording(const std::string& name, std::vector<unsigned char> bytes,
                         Recovery recovery) {
  Recording recording;
  recording.name = name;
  recording.bytes = std::move(bytes);
  recording.container =
      read_container(name, recording.bytes.data(), recording.bytes.size(), recovery);
  Collector(&recording).collect();
  return recording;
}

Recording read_recording(const std::string& path, Recovery recovery) {
  const std::vector<char> bytes = read_whole_file("the recording", path);
  return read_recording(path, std::vector<unsigned char>(bytes.begin(), bytes.end()), recovery);
}

std::string damage_text(const Damage& damage) {
  return "byte " + std::to_string(damage.offset) + ": " + damage.what;
}

std::string function_name(unsigned function) {
  const auto* const found =
      std::find_if(std::begin(kFunctionNames), std::end(kFunctionNames),
                   [function](const FunctionName& entry) { return entry.function == function; });
  return found == std::end(kFunctionNames) ? "" : found->name;
}

}  // namespace olvex_tools
