// SPDX-License-Identifier: Apache-2.0
// channel.cpp - loads a network, hands out its output buffers and runs its frames.
#include "platform/host/channel.h"

#include <algorithm>
#include <chrono>
#include <mutex>

#include <opencv2/core/utils/logger.hpp>

#include "platform/host/host_error.h"
#include "platform/host/memory_map.h"

namespace qv_host {

namespace {

// OpenCV logs several lines before it throws; a refusal is to print one line only. The log level
// belongs to the whole process, hence the lock: two threads must not restore each other's.
class QuietEngine {
 public:
  QuietEngine()
      : lock_(mutex()),
        level_(cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT)) {}
  ~QuietEngine() { cv::utils::logging::setLogLevel(level_); }
  QuietEngine(const QuietEngine&) = delete;
  QuietEngine& operator=(const QuietEngine&) = delete;

 private:
  static std::mutex& mutex() {
    static std::mutex mutex;
    return mutex;
  }

  std::lock_guard<std::mutex> lock_;
  cv::utils::logging::LogLevel level_;
};

std::string one_line(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text.substr(0, text.find_last_not_of(' ') + 1);
}

}  // namespace

Network::Network(const std::vector<char>& onnx, const std::string& input,
                 const std::vector<std::string>& outputs, bool fusion)
    : input_(input), outputs_(outputs) {
  const QuietEngine quiet;
  try {
    net_ = cv::dnn::readNetFromONNX(onnx.data(), onnx.size());
  } catch (const cv::Exception& error) {
    throw HostError(QV_HOST_BAD_NETWORK,
                    "the network does not load in OpenCV's dnn module: " + one_line(error.err));
  }
  if (net_.empty()) {
    throw HostError(QV_HOST_BAD_NETWORK, "the network has no layers; pack an ONNX network");
  }
  net_.setPreferableBackend(cv::dnn::DNN_BACKEND_OPENCV);
  net_.setPreferableTarget(cv::dnn::DNN_TARGET_CPU);
  net_.enableFusion(fusion);
  check_names();
}

void Network::check_names() const {
  if (!input_.empty() && net_.getLayer(0)->outputNameToIndex(input_) < 0) {
    throw HostError(QV_HOST_BAD_NETWORK, "\"input.name\": the network has no input \"" + input_ +
                                             "\"; leave the field out if it has only one");
  }
  std::string known;
  const std::vector<cv::String> names = net_.getUnconnectedOutLayersNames();
  for (const cv::String& name : names) {
    known += known.empty() ? "" : ", ";
    known += name;
  }
  for (const std::string& output : outputs_) {
    if (std::find(names.begin(), names.end(), output) == names.end()) {
      throw HostError(QV_HOST_BAD_NETWORK, std::string("the network has no output \"")
                                               .append(output)
                                               .append("\", it has: ")
                                               .append(known));
    }
  }
}

std::vector<cv::Mat> Network::run(const cv::Mat& input) {
  try {
    net_.setInput(input, input_);
    std::vector<cv::Mat> results;
    net_.forward(results, outputs_);
    return results;
  } catch (const cv::Exception& error) {
    throw HostError(QV_HOST_INFERENCE_FAILED, "the network fails to run: " + one_line(error.err));
  }
}

std::vector<cv::Mat> Network::try_out(const cv::Mat& input) {
  const QuietEngine quiet;
  try {
    return run(input);
  } catch (const HostError& error) {
    throw HostError(QV_HOST_BAD_NETWORK,
                    std::string(error.what()) + "; do the input's size and colour order fit it?");
  }
}

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
