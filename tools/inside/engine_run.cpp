// engine_run.cpp - OpenCV's dnn module on a network's bytes.
#include "tools/inside/engine_run.h"

#include <opencv2/imgproc.hpp>

#include "tools/common/command.h"
#include "tools/frames/frame_conversion.h"
#include "tools/inside/library_model.h"

namespace olvex_tools {

namespace {

// Fitted as a frame is.
cv::Mat to_input(const cv::Mat& picture, const InputValues& input) {
  qv_host::InputDescription frame;
  frame.width = input.width;
  frame.height = input.height;
  frame.format = QV_IPU_FORMAT_U8;
  frame.frame_order = qv_host::ColourOrder::kBgr;
  frame.resize = input.resize;
  std::vector<unsigned char> pixels;
  convert_to_frame(picture, frame_layout(frame), &pixels);
  cv::Mat fitted(input.height, input.width, CV_8UC3, pixels.data());
  const bool gray = input.order == qv_host::ColourOrder::kGray;
  if (gray) {
    cv::cvtColor(fitted, fitted, cv::COLOR_BGR2GRAY);
  } else if (input.order == qv_host::ColourOrder::kRgb) {
    cv::cvtColor(fitted, fitted, cv::COLOR_BGR2RGB);
  }
  const int channels = gray ? 1 : 3;
  std::vector<cv::Mat> planes;
  cv::split(fitted, planes);
  cv::Mat blob({1, channels, input.height, input.width}, CV_32F);
  for (int c = 0; c < channels; ++c) {
    cv::Mat plane(input.height, input.width, CV_32F, blob.ptr<float>(0, c));
    const auto i = static_cast<std::size_t>(c);
    planes[i].convertTo(plane, CV_32F);
    plane -= cv::Scalar(static_cast<double>(input.mean[i]));
    plane *= static_cast<double>(input.scale[i]);
  }
  return blob;
}

}  // namespace

InputValues input_values(const qv_host::InputDescription& input) {
  return {input.name,          input.width, input.height, input.resize,
          input.network_order, input.mean,  input.scale};
}

EngineRun::EngineRun(const std::vector<char>& network, const std::string& path,
                     const std::vector<std::string>& outputs, bool fusion)
    : path_(path), outputs_(outputs) {
  try {
    net_ = cv::dnn::readNetFromONNX(network.data(), network.size());
    net_.setPreferableBackend(cv::dnn::DNN_BACKEND_OPENCV);
    net_.setPreferableTarget(cv::dnn::DNN_TARGET_CPU);
    net_.enableFusion(fusion);
  } catch (const cv::Exception& error) {
    fail(error, "does not load in OpenCV's dnn module");
  }
}

OutputValues EngineRun::run(const cv::Mat& picture, const InputValues& input) {
  OutputValues values;
  try {
    net_.setInput(to_input(picture, input), input.name);
    std::vector<cv::Mat> results;
    net_.forward(results, outputs_);
    for (std::size_t i = 0; i < outputs_.size(); ++i) {
      const auto* first = results[i].ptr<float>();
      values[outputs_[i]].assign(first, first + results[i].total());
    }
  } catch (const cv::Exception& error) {
    fail(error, "fails to run");
  }
  return values;
}

void EngineRun::fail(const cv::Exception& error, const std::string& failure) const {
  const std::string reason = engine_reason(error.what());
  throw ToolError(
      kModelError,
      path_ + ": " + (reason.empty() ? engine_reason("the network " + failure) : reason));
}

}  // namespace olvex_tools
