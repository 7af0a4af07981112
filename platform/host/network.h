// SPDX-License-Identifier: Apache-2.0
// network.h - one ONNX network in OpenCV's dnn module, with its errors as HostError. A channel owns
// one; output_stage.h makes tensors of its results.
#ifndef PLATFORM_HOST_NETWORK_H
#define PLATFORM_HOST_NETWORK_H

#include <string>
#include <vector>

#include <opencv2/dnn.hpp>

namespace qv_host {

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

}  // namespace qv_host

#endif  // PLATFORM_HOST_NETWORK_H
