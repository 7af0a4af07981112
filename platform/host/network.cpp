// SPDX-License-Identifier: Apache-2.0
// network.cpp - loads and runs a network by OpenCV's dnn module.
#include "platform/host/network.h"

#include <algorithm>
#include <mutex>

#include <opencv2/core/utils/logger.hpp>

#include "platform/host/host_error.h"

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

}  // namespace qv_host
