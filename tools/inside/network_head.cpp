// SPDX-License-Identifier: Apache-2.0
// network_head.cpp - OpenCV's dnn module on a network's bytes, and the head of what it computes for a picture.
#include "tools/inside/network_head.h"

#include <algorithm>
#include <map>

#include <opencv2/imgproc.hpp>

#include "tools/common/command.h"
#include "tools/common/text.h"
#include "tools/frames/frame_conversion.h"
#include "tools/heads/head_evidence.h"
#include "tools/inside/library_model.h"
#include "tools/inside/model_facts.h"
#include "tools/inside/network_trial.h"

namespace olvex_tools {

// ---- The run ------------------------------------------------------------------------------------

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

// ---- The head -----------------------------------------------------------------------------------

namespace {

bool is_side(std::int64_t pixels) {
  constexpr std::int64_t kMost = 8192;
  return pixels > 0 && pixels <= kMost;
}

// The input that takes the picture, of four known dimensions.
NetworkTensor picture_input(const HeadRequest& request, const NetworkGraph& network) {
  for (const NetworkTensor& input : network.inputs()) {
    if (input.shape.size() == 4 && input.shape[3] == 3 && is_side(input.shape[1]) &&
        input.shape[1] != 3) {
      refuse_model(network.path(), "the channels of its input " + describe(input) +
                                       " come last. Export it for 1 x planes x height x width");
    }
  }
  for (const NetworkTensor& input : network.inputs()) {
    const bool chosen = request.input ? input.name == *request.input : network.inputs().size() == 1;
    if (chosen && input.shape.size() == 4 && is_side(input.shape[2]) && is_side(input.shape[3])) {
      return input;
    }
  }
  throw ToolError(kModelError,
                  network.path() +
                      ": a head can be concluded for one input of 1 x planes x height x "
                      "width only. Name it with --input, or say what the outputs are: "
                      "--boxes NAME --scores NAME");
}

// The words of model_out by the channels of a layer: what the library takes without a word comes first, and
// the words only where there is nothing such.
std::vector<RawWord> raw_words(const std::string& given) {
  std::map<std::int64_t, std::vector<RawWord>> by_channels;
  for (const std::string& word : type_words()) {
    const TypeCounts counts = counts_of_word(word);
    for (const std::int64_t values : {3, 2}) {
      const std::int64_t channels = 4 + counts.classes + values * counts.keypoints;
      const TypeCounts guess = guess_counts(static_cast<int>(channels));
      const bool needs_no_word = given.empty() && guess.known && guess.classes == counts.classes &&
                                 guess.keypoints == counts.keypoints;
      const std::string meaning = counted(counts.classes, "class", "classes") + ", " +
                                  counted(counts.keypoints, "key point", "key points");
      std::vector<RawWord>& words = by_channels[channels];
      const bool known = std::any_of(words.begin(), words.end(),
                                     [](const RawWord& other) { return other.word.empty(); });
      const bool same = !words.empty() && words.back().word == word;
      if (!known && !same && (given.empty() || given == word)) {
        words.push_back({needs_no_word ? "" : word, channels, counts.classes, meaning});
      }
    }
  }
  std::vector<RawWord> all;
  for (const auto& [channels, words] : by_channels) {
    all.insert(all.end(), words.begin(), words.end());
  }
  return all;
}

// The engine's own threads would not be there in a child process.
class SingleThread {
 public:
  SingleThread() { cv::setNumThreads(1); }
  ~SingleThread() { cv::setNumThreads(-1); }
  SingleThread(const SingleThread&) = delete;
  SingleThread& operator=(const SingleThread&) = delete;
};

// What the network computes for the picture, in the preprocessing that is given, or unscaled to 0..1: what
// kind of values the outputs hold does not depend on it.
OutputValues look_at_outputs(const HeadOptions& options, const NetworkGraph& network,
                             const std::vector<char>& bytes, const NetworkTensor& tensor,
                             const cv::Mat& picture) {
  constexpr std::int64_t kMostValues = 1 << 26;
  for (const NetworkTensor& output : network.outputs()) {
    if (elements_of(output.shape) > kMostValues) {
      refuse_model(network.path(), "its output " + describe(output) + " has more than " +
                                       std::to_string(kMostValues) + " values");
    }
  }
  InputValues input;
  input.name = tensor.name;
  input.width = static_cast<int>(tensor.shape[3]);
  input.height = static_cast<int>(tensor.shape[2]);
  input.order = tensor.shape[1] == 1 ? qv_host::ColourOrder::kGray
                                     : options.order.value_or(qv_host::ColourOrder::kRgb);
  input.mean = options.mean.value_or(input.mean);
  input.scale =
      options.scale.value_or(std::array<float, 3>{{1.f / 255.f, 1.f / 255.f, 1.f / 255.f}});
  const auto run = [&] {
    return EngineRun(bytes, network.path(), names_of(network.outputs()), true).run(picture, input);
  };
  require_harmless_work(network.path(), bytes.size(), run);
  const SingleThread single;  // the image is tried in a child later
  const OutputValues values = run();
  for (const NetworkTensor& output : network.outputs()) {
    const auto count = static_cast<std::int64_t>(values.at(output.name).size());
    if (count == 0 || count != elements_of(output.shape)) {
      throw ToolError(kModelError, network.path() + ": the network says that its output is " +
                                       describe(output) + ", and computes " +
                                       counted(count, "value", "values") +
                                       ". Export it again with fixed sizes");
    }
  }
  return values;
}

// The network with its own outputs, as the engine takes it.
std::vector<char> uncut_network(const NetworkGraph& graph) {
  NetworkGraph copy = graph;
  fit_to_engine(&copy);
  require_known_operators(copy);
  return copy.bytes();
}

}  // namespace

std::string outputs_text(const NetworkGraph& network) {
  std::vector<std::string> texts;
  for (const NetworkTensor& output : network.outputs()) {
    texts.push_back(describe(output));
  }
  return join(texts, ", ");
}

NetworkHead conclude_network_head(const HeadRequest& request, const NetworkGraph& network,
                                  const cv::Mat& picture) {
  const NetworkTensor input = picture_input(request, network);
  NetworkHead head;
  head.size = {input.shape[3], input.shape[2]};
  head.uncut = uncut_network(network);
  const OutputValues values = look_at_outputs(request.options, network, head.uncut, input, picture);
  head.readings = conclude_head({network, input.name, head.size, request.options,
                                 raw_words(request.model_out), request.selection, &values});
  return head;
}

std::string no_head_text(const NetworkGraph& network, const NetworkHead& head,
                         const std::optional<std::string>& family) {
  std::string families;
  for (const HeadFamily& known : head_families()) {
    families += format("\n  %-22s", known.name.c_str()) + known.outputs;
  }
  return (family ? "the outputs do not fit --head " + *family : "no known head fits the outputs") +
         ". Input " + std::to_string(head.size.width) + "x" + std::to_string(head.size.height) +
         ", outputs: " + outputs_text(network) + ". Rows were compared with the cells of strides " +
         usual_rows_text(head.size) +
         " (and 2 to 6 or 9 times these); with the priors of usual sizes. Where anchors or priors "
         "are not the usual ones, give --anchors or --prior-sizes"
         ". Or say what the outputs are, --boxes NAME --scores NAME or --raw OUT1 OUT2 OUT3, or "
         "name the "
         "head, --head FAMILY:" +
         families;
}

}  // namespace olvex_tools
