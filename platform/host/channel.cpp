// SPDX-License-Identifier: Apache-2.0
// channel.cpp - loads a network, hands out its output buffers and runs its frames.
#include "platform/host/channel.h"

#include <algorithm>
#include <chrono>

#include "platform/host/host_error.h"
#include "platform/host/memory_map.h"

namespace qv_host {
namespace {

using Clock = std::chrono::steady_clock;

double milliseconds(Clock::duration duration) {
  return std::chrono::duration<double, std::milli>(duration).count();
}

// A frame of zeros, aligned for every element type.
std::vector<float> empty_frame(const FrameConverter& converter) {
  return std::vector<float>((converter.needed_size() + sizeof(float) - 1) / sizeof(float));
}

}  // namespace

Channel::Channel(const Image& image, const QV_IPU_DevAttr_s& attributes, std::size_t output_depth)
    : converter_(image.description.input, attributes),
      network_(image.network, image.description.input.name, network_outputs(image.description),
               image.description.fusion),
      stage_(make_output_stage(
          image.description, network_.try_out(converter_.convert(empty_frame(converter_).data())))),
      output_sets_(output_depth) {
  for (OutputSet& set : output_sets_) {
    for (const QV_IPU_TensorDesc_t& tensor : stage_->tensors()) {
      set.buffers.push_back(
          std::make_unique<char[]>(static_cast<std::size_t>(tensor.s32AlignedBufSize)));
    }
  }
}

void Channel::describe(QV_IPU_SubNet_InputOutputDesc_t* description) const {
  *description = {};
  description->u32InputTensorCount = 1;
  description->astQV_InputTensorDescs[0] = converter_.tensor_description();
  description->u32OutputTensorCount = static_cast<QV_U32>(stage_->tensors().size());
  std::copy(stage_->tensors().begin(), stage_->tensors().end(),
            description->astQV_OutputTensorDescs);
}

bool Channel::OutputSet::owns(const QV_IPU_TensorVector_t& tensors) const {
  if (!handed_out || tensors.u32TensorCount != buffers.size()) {
    return false;
  }
  for (std::size_t i = 0; i < buffers.size(); ++i) {
    if (tensors.astArrayTensors[i].ptTensorData[0] != buffers[i].get()) {
      return false;
    }
  }
  return true;
}

Channel::OutputSet& Channel::find_handed_out(const QV_IPU_TensorVector_t& tensors) {
  for (OutputSet& set : output_sets_) {
    if (set.owns(tensors)) {
      return set;
    }
  }
  throw HostError(QV_HOST_OUT_OF_ORDER,
                  "these output buffers are not out; take them from QV_IPU_GetOutputTensors");
}

void Channel::get_outputs(QV_IPU_TensorVector_t* tensors) {
  const auto set = std::find_if(output_sets_.begin(), output_sets_.end(),
                                [](const OutputSet& candidate) { return !candidate.handed_out; });
  if (set == output_sets_.end()) {
    throw HostError(QV_HOST_OUT_OF_ORDER,
                    "all output buffers are out; give them back with QV_IPU_PutOutputTensors or "
                    "open the channel with a larger u32OutputBufDepth");
  }
  set->handed_out = true;
  *tensors = {};
  tensors->u32TensorCount = static_cast<QV_U32>(set->buffers.size());
  for (std::size_t i = 0; i < set->buffers.size(); ++i) {
    tensors->astArrayTensors[i].ptTensorData[0] = set->buffers[i].get();
  }
}

void Channel::put_outputs(const QV_IPU_TensorVector_t& tensors) {
  find_handed_out(tensors).handed_out = false;
}

const void* Channel::checked_frame(const QV_IPU_TensorVector_t& input,
                                   const FlushedRange& flushed) const {
  const void* frame = input.astArrayTensors[0].ptTensorData[0];
  const std::size_t needed = converter_.needed_size();
  if (input.u32TensorCount > 1) {
    throw HostError(QV_HOST_BAD_FRAME, "the network has one input, the call brings " +
                                           std::to_string(input.u32TensorCount));
  }
  if (frame == nullptr) {
    throw HostError(QV_HOST_BAD_FRAME, "the frame's virtual address is NULL");
  }
  if (frame == flushed.address && flushed.size < needed) {
    throw HostError(QV_HOST_BAD_FRAME,
                    "the frame has " + std::to_string(flushed.size) + " bytes, the model needs " +
                        std::to_string(needed) +
                        "; check the frame's size, element format and row padding");
  }
  // The flush has looked at the list of mappings, which is long. A file could have become shorter within a
  // page since, which does not show in what can be read.
  if (frame == flushed.address && flushed.is_memory && is_still_readable(frame, needed)) {
    return frame;
  }
  const std::size_t readable = readable_range(frame, needed).size;
  if (readable < needed) {
    throw HostError(QV_HOST_BAD_FRAME, "only " + std::to_string(readable) + " of the frame's " +
                                           std::to_string(needed) + " bytes can be read");
  }
  return frame;
}

InvokeFacts Channel::invoke(const QV_IPU_TensorVector_t& input, const QV_IPU_TensorVector_t& output,
                            const FlushedRange& flushed) {
  const void* frame = checked_frame(input, flushed);
  const OutputSet& set = find_handed_out(output);
  std::vector<void*> buffers;
  for (const std::unique_ptr<char[]>& buffer : set.buffers) {
    buffers.push_back(buffer.get());
  }
  const Clock::time_point start = Clock::now();
  const cv::Mat planes = converter_.convert(frame);
  const Clock::time_point converted = Clock::now();
  const std::size_t dropped = stage_->write(network_.run(planes), buffers);
  return InvokeFacts{milliseconds(converted - start), milliseconds(Clock::now() - converted),
                     dropped};
}

}  // namespace qv_host
