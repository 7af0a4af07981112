// SPDX-License-Identifier: Apache-2.0
// recorded_platform.cpp - answers from the messages of a recording.
#include "tools/replay/recorded_platform.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <sys/mman.h>
#include <unistd.h>

#include "tools/common/command.h"
#include "tools/common/whole_file.h"
#include "tools/recordings/frame_outputs.h"

namespace olvex_tools {

namespace {

using qv_replay::Function;

static_assert(RECORDING_FLUSH - RECORDING_CREATE_DEVICE ==
                  static_cast<int>(Function::kFlushInvCache),
              "the functions stand in one order");

Function platform_function(unsigned function) {
  return static_cast<Function>(function - RECORDING_CREATE_DEVICE);
}

QV_IPU_TensorDesc_t description_of(const RecordedTensor& tensor) {
  QV_IPU_TensorDesc_t description = {};
  description.u32TensorDim = tensor.dimensions;
  description.eElmFormat = static_cast<QV_IPU_ELEMENT_FORMAT>(tensor.format);
  std::copy(tensor.shape.begin(), tensor.shape.end(), description.u32TensorShape);
  std::memcpy(description.name, tensor.name.data(),
              std::min(tensor.name.size(), sizeof description.name));
  description.u32InnerMostStride = tensor.innermost_stride;
  description.fScalar = tensor.scale;
  description.s64ZeroPoint = tensor.zero_point;
  description.s32AlignedBufSize = tensor.aligned_bytes;
  description.u32BufSize = tensor.bytes;
  description.u32InputWidthAlignment = tensor.width_alignment;
  description.u32InputHeightAlignment = tensor.height_alignment;
  description.eLayoutType = static_cast<QV_IPU_LAYOUT_TYPE>(tensor.layout);
  return description;
}

// There are as many tensors as their counts say, up to 60.
std::shared_ptr<const QV_IPU_SubNet_InputOutputDesc_t> description_of(
    const RecordedNetwork& network) {
  auto description = std::make_shared<QV_IPU_SubNet_InputOutputDesc_t>();
  description->u32InputTensorCount = network.input_count;
  description->u32OutputTensorCount = network.output_count;
  for (std::size_t k = 0; k < network.inputs.size(); ++k) {
    description->astQV_InputTensorDescs[k] = description_of(network.inputs[k]);
  }
  for (std::size_t k = 0; k < network.outputs.size(); ++k) {
    description->astQV_OutputTensorDescs[k] = description_of(network.outputs[k]);
  }
  return description;
}

[[noreturn]] void refuse_call(const Recording& recording, std::uint32_t call,
                              const std::string& what) {
  refuse_input(recording.name, "call " + std::to_string(call) + ": " + what);
}

// What the call was given comes first, then what it handed back.
void take_words(const Recording& recording, const RecordedCall& recorded, qv_replay::Call* call) {
  const std::vector<std::uint32_t>& words = recorded.words;
  switch (recorded.function) {
    case RECORDING_GET_STATIC_INFO:
      if (words.empty()) {
        refuse_call(recording, recorded.call, "words are missing");
      }
      call->arguments = std::vector<QV_U32>{words[0]};
      call->info.assign(words.begin() + 1, words.end());
      break;
    case RECORDING_GET_OUTPUTS:
      call->output_count = words.empty() ? 0 : words[0];
      for (std::size_t k = 1; k < words.size(); ++k) {
        call->buffers.push_back({words[k] != 0, 0});  // sizes come from the description
      }
      break;
    case RECORDING_GET_DESCRIPTION:
      break;
    default:
      call->arguments = words;
  }
}

template <typename Work>
auto checked(const Recording& recording, std::uint32_t call, Work work) -> decltype(work()) {
  try {
    return work();
  } catch (const OutputFault& fault) {
    refuse_call(recording, call, fault.what);
  }
}

// The library reads as much as the description says.
void size_buffers(const Recording& recording, const RecordedCall& call,
                  const RecordedNetwork* network, std::vector<qv_replay::OutputBuffer>* buffers) {
  std::vector<std::size_t> sizes;
  if (network != nullptr) {
    sizes = checked(recording, call.call, [&] { return output_sizes(*network); });
  }
  for (std::size_t k = 0; k < buffers->size(); ++k) {
    (*buffers)[k].has_address = (*buffers)[k].has_address && k < sizes.size();
    (*buffers)[k].size = k < sizes.size() ? sizes[k] : 0;
  }
}

const RecordedNetwork* described_by(const Recording& recording, std::uint32_t call) {
  const auto found = recording.networks.find(call);
  return found == recording.networks.end() ? nullptr : &found->second;
}

const std::vector<std::size_t>& inner_calls(const Recording& recording, std::uint32_t call) {
  static const std::vector<std::size_t> none;
  const auto found = recording.inner_calls.find(call);
  return found == recording.inner_calls.end() ? none : found->second;
}

const RecordedCall* find_inner(const Recording& recording, const RecordedCall& call,
                               unsigned function) {
  for (const std::size_t k : inner_calls(recording, call.call)) {
    if (recording.calls[k].function == function) {
      return &recording.calls[k];
    }
  }
  return nullptr;
}

bool created_channel(const Recording& recording, const RecordedCall& call) {
  return find_inner(recording, call, RECORDING_CREATE_CHANNEL) != nullptr;
}

// Without the pattern the library asks the platform about the model, and goes no further.
bool had_start_pattern(const Recording& recording, const RecordedCall& call) {
  const RecordedCall* const info = find_inner(recording, call, RECORDING_GET_STATIC_INFO);
  const RecordedCall* const device = find_inner(recording, call, RECORDING_CREATE_DEVICE);
  const bool went_on =
      info != nullptr && info->result == 0 && (device == nullptr || device->result == 0);
  return created_channel(recording, call) || !went_on;
}

}  // namespace

std::vector<qv_replay::Call> platform_calls_of(const Recording& recording,
                                               const RecordedCall& call) {
  std::vector<qv_replay::Call> calls;
  const RecordedNetwork* network = nullptr;
  for (const std::size_t k : inner_calls(recording, call.call)) {
    const RecordedCall& recorded = recording.calls[k];
    qv_replay::Call made;
    made.function = platform_function(recorded.function);
    made.result = recorded.result;
    made.channel = recorded.channel;
    if (!recorded.texts.empty()) {
      made.path = recorded.texts.front();
    }
    take_words(recording, recorded, &made);
    if (recorded.function == RECORDING_GET_DESCRIPTION && recorded.result == 0) {
      const RecordedNetwork* const described = described_by(recording, recorded.call);
      if (described == nullptr) {
        refuse_call(recording, recorded.call, "the description of the network is missing");
      }
      made.description = description_of(*described);
      // The library asks once, and gets the first answer.
      network = network != nullptr ? network : described;
    }
    if (recorded.function == RECORDING_GET_OUTPUTS) {
      size_buffers(recording, recorded, network, &made.buffers);
    }
    calls.push_back(std::move(made));
  }
  return calls;
}

std::vector<qv_replay::Call> platform_calls_of(const Recording& recording,
                                               const RecordedFrame& frame,
                                               const RecordedNetwork* network) {
  std::vector<qv_replay::Call> calls;
  for (const RecordedPlatformCall& recorded : frame.calls) {
    qv_replay::Call made;
    made.function = platform_function(recorded.function);
    made.result = recorded.result;
    if (recorded.function == RECORDING_FLUSH) {
      made.arguments = std::vector<QV_U32>{recorded.word};
    } else {
      made.channel = recorded.word;
    }
    if (recorded.function == RECORDING_INVOKE && recorded.result == 0) {
      if (network == nullptr) {
        refuse_call(recording, frame.call, "the description of the network is missing");
      }
      made.outputs = checked(recording, frame.call, [&] { return whole_outputs(frame, *network); });
    }
    calls.push_back(std::move(made));
  }
  return calls;
}

std::vector<qv_replay::Call> calls_of_empty_frame(const RecordedNetwork& network,
                                                  std::uint32_t buf_size) {
  std::vector<qv_replay::Call> calls(2);
  calls[0].function = Function::kFlushInvCache;
  calls[0].arguments = std::vector<QV_U32>{buf_size};
  calls[1].channel = network.channel;
  calls[1].outputs = empty_outputs(network);
  return calls;
}

const RecordedNetwork* network_of(const Recording& recording, const RecordedCall& call) {
  const RecordedCall* const described = find_inner(recording, call, RECORDING_GET_DESCRIPTION);
  return described == nullptr ? nullptr : described_by(recording, described->call);
}

bool had_model(const Recording& recording, const RecordedCall& call) {
  return find_inner(recording, call, RECORDING_GET_STATIC_INFO) != nullptr;
}

ModelFile::ModelFile(const Recording& recording, const RecordedCall& call)
    : path_("/proc/self/fd/none") {
  const auto found = recording.models.find(call.call);
  const RecordedModel model = found == recording.models.end() ? RecordedModel() : found->second;
  // A file too short for a model is there, too, and no platform is asked about it.
  if (!had_model(recording, call) && model.bytes == 0) {
    return;
  }
  std::string contents;
  if (had_model(recording, call)) {
    contents = model.header;
    contents += had_start_pattern(recording, call) ? OLVEX_OFFLINE_MODEL_START : "";
  }
  descriptor_ = memfd_create("recorded model", MFD_CLOEXEC);
  // The rest is a hole. The library counts a file's bytes in 32 bits.
  const std::uint64_t size = std::max<std::uint64_t>(model.bytes, contents.size() + 4);
  const auto length = static_cast<off_t>(std::min<std::uint64_t>(size, UINT32_MAX));
  if (descriptor_ < 0 || write_all(descriptor_, contents) < contents.size() ||
      ftruncate(descriptor_,
                had_model(recording, call) ? length : static_cast<off_t>(model.bytes)) != 0) {
    const int reason = errno;
    close(descriptor_);
    throw ToolError(kInputError, std::string("no memory for a model: ") + std::strerror(reason));
  }
  path_ = "/proc/self/fd/" + std::to_string(descriptor_);
}

ModelFile::~ModelFile() {
  if (descriptor_ >= 0) {
    close(descriptor_);
  }
}

}  // namespace olvex_tools
