// SPDX-License-Identifier: Apache-2.0
// channel.h - one network in OpenCV's dnn module, and a channel: it with its description, its output buffers and who
// holds them.
// host_accelerator.cpp keeps the table of channels.
#ifndef PLATFORM_HOST_CHANNEL_H
#define PLATFORM_HOST_CHANNEL_H

#include <memory>
#include <string>
#include <vector>

#include <opencv2/dnn.hpp>

#include "platform/host/frame_converter.h"
#include "platform/host/output_stage.h"

namespace qv_host {

// One ONNX network, with OpenCV's errors as HostError. output_stage.h makes tensors of its results.
class Network {
 public:
  // Throws HostError(QV_HOST_BAD_NETWORK) when the bytes are not a network that OpenCV can load or
  // when it lacks one of the names.
  //   input    name of the network's input, empty: its only one
  //   outputs  names of the outputs to compute, in the order wanted
  //   fusion   whether several layers may be computed at once
  Network(const std::vector<char>& onnx, const std::string& input,
          const std::vector<std::string>& outputs, bool fusion);

  // Runs the network. The results may share the network's own memory: they hold until the next run.
  // Throws HostError(QV_HOST_INFERENCE_FAILED).
  std::vector<cv::Mat> run(const cv::Mat& input);

  // The same for the first time: a network that cannot run at all is itself at fault. Throws
  // HostError(QV_HOST_BAD_NETWORK).
  std::vector<cv::Mat> try_out(const cv::Mat& input);

 private:
  void check_names() const;

  cv::dnn::Net net_;
  std::string input_;
  std::vector<std::string> outputs_;
};

struct InvokeFacts {
  double conversion_ms = 0.0;
  double network_ms = 0.0;
  std::size_t dropped_candidates = 0;  // for which there was no row
};

// The range that the calling thread last flushed, as the frame's owner stated its size.
struct FlushedRange {
  const void* address = nullptr;
  QV_U32 size = 0;         // bytes
  bool is_memory = false;  // all of them could be read then, and none is mapped from a file
};

class Channel {
 public:
  // Loads the network and runs it once on a black frame to learn the shapes of its outputs. Throws
  // HostError.
  //   output_depth  sets of output buffers
  Channel(const Image& image, const QV_IPU_DevAttr_s& attributes, std::size_t output_depth);

  void describe(QV_IPU_SubNet_InputOutputDesc_t* description) const;

  // Both throw HostError(QV_HOST_OUT_OF_ORDER): all sets are out, or this one is not.
  void get_outputs(QV_IPU_TensorVector_t* tensors);
  void put_outputs(const QV_IPU_TensorVector_t& tensors);

  // Throws HostError(QV_HOST_BAD_FRAME) when the frame is absent, unreadable or too small,
  // QV_HOST_OUT_OF_ORDER for foreign output buffers, QV_HOST_INFERENCE_FAILED.
  InvokeFacts invoke(const QV_IPU_TensorVector_t& input, const QV_IPU_TensorVector_t& output,
                     const FlushedRange& flushed);

 private:
  // One buffer per output tensor; new memory is aligned for every element type.
  struct OutputSet {
    std::vector<std::unique_ptr<char[]>> buffers;
    bool handed_out = false;

    bool owns(const QV_IPU_TensorVector_t& tensors) const;
  };

  OutputSet& find_handed_out(const QV_IPU_TensorVector_t& tensors);
  const void* checked_frame(const QV_IPU_TensorVector_t& input, const FlushedRange& flushed) const;

  FrameConverter converter_;
  Network network_;
  std::unique_ptr<OutputStage> stage_;
  std::vector<OutputSet> output_sets_;
};

}  // namespace qv_host

#endif  // PLATFORM_HOST_CHANNEL_H
