// SPDX-License-Identifier: Apache-2.0
// model_facts.cpp - calls the library's routines for an opened model. The decisions are in
// base/sdet and base/postprocess.
#include "tools/inside/model_facts.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>

#include "tools/common/text.h"
#include "tools/frames/frame_conversion.h"

namespace olvex_tools {

namespace {

constexpr unsigned kMaxOutputs = 6;  // more the library refuses before it looks at them

TensorFacts tensor_facts(const QV_IPU_TensorDesc_t& tensor) {
  TensorFacts facts;
  facts.name.assign(tensor.name, strnlen(tensor.name, sizeof tensor.name));
  const unsigned dimensions = std::min(tensor.u32TensorDim, OLVEX_MAX_DIMENSIONS);
  facts.shape.assign(tensor.u32TensorShape, tensor.u32TensorShape + dimensions);
  facts.format = format_name(tensor.eElmFormat);
  facts.scale = tensor.fScalar;
  facts.bytes = tensor.s32AlignedBufSize;
  return facts;
}

// ---- Decoding -----------------------------------------------------------------------------------

// The outputs' shapes as the library's decoders take them, over buffers of zeros, which hold no
// box: decoding them shows only whether the shapes are accepted.
class EmptyOutputs {
 public:
  explicit EmptyOutputs(const QV_IPU_SubNet_InputOutputDesc_t& description) {
    count_ = std::min(description.u32OutputTensorCount, kMaxOutputs);
    for (unsigned i = 0; i < count_; ++i) {
      const QV_IPU_TensorDesc_t& tensor = description.astQV_OutputTensorDescs[i];
      height_[i] = static_cast<int>(tensor.u32TensorShape[1]);
      width_[i] = static_cast<int>(tensor.u32TensorShape[2]);
      channels_[i] = static_cast<int>(tensor.u32TensorShape[3]);
      scale_[i] = tensor.fScalar;
      zeros_[i].assign(static_cast<std::size_t>(std::max(tensor.s32AlignedBufSize, 0)) + 8, 0);
      data_[i] = zeros_[i].data();
    }
    const QV_IPU_TensorDesc_t& input = description.astQV_InputTensorDescs[0];
    info_.data = data_.data();
    info_.scalar = scale_.data();
    info_.out_format = description.astQV_OutputTensorDescs[0].eElmFormat;
    info_.net_in_h = static_cast<int>(input.u32TensorShape[1]);
    info_.net_in_w = static_cast<int>(input.u32TensorShape[2]);
    info_.net_out_w = width_.data();
    info_.net_out_h = height_.data();
    info_.net_out_c = channels_.data();
    info_.num_out_layers = static_cast<int>(description.u32OutputTensorCount);
    info_.conf_threshold = 1.f;
  }

  DetDecodeInfo& info() { return info_; }

 private:
  unsigned count_ = 0;
  std::array<int, kMaxOutputs> width_ = {};
  std::array<int, kMaxOutputs> height_ = {};
  std::array<int, kMaxOutputs> channels_ = {};
  std::array<float, kMaxOutputs> scale_ = {};
  std::array<std::vector<unsigned char>, kMaxOutputs> zeros_;
  std::array<void*, kMaxOutputs> data_ = {};
  DetDecodeInfo info_;
};

std::string guessable_channels() {
  std::string text;
  for (int channels = 1; channels <= 256; ++channels) {
    if (guess_counts(channels).known) {
      text += (text.empty() ? "" : ", ") + std::to_string(channels);
    }
  }
  return text;
}

std::string words_that_fit(int channels) {
  std::string text;
  for (const std::string& word : type_words()) {
    if (channels_fit(counts_of_word(word), channels)) {
      text += (text.empty() ? "" : ", ") + word;
    }
  }
  return text.empty() ? "none" : text;
}

std::string fault_of_unknown_channels(int channels) {
  return "the raw layers have " + counted(channels, "channel", "channels") +
         ", and no model_out word says what they are. A layer needs 4 + classes + 3 or 2 "
         "for each key point. Without a word the library knows " +
         guessable_channels() + " channels; with one (--model-out), these:\n" +
         describe_type_words() + "Words that fit " + std::to_string(channels) +
         " channels: " + words_that_fit(channels);
}

std::string fault_of_word(const std::string& word, const TypeCounts& counts, int channels) {
  return "the model_out word \"" + word + "\" means " +
         counted(counts.classes, "class", "classes") + " and " +
         counted(counts.keypoints, "key point", "key points") +
         ", which is layers of 4 + classes + 3 or 2 x key points = " + describe_channels(counts) +
         " channels, but the raw layers have " + std::to_string(channels) +
         ". Words that fit: " + words_that_fit(channels) +
         (guess_counts(channels).known ? "; or leave the word out" : "");
}

std::string fault_of_grid(const DetDecodeInfo& info, int layer) {
  return "raw layer " + std::to_string(layer) + " has " +
         size_text(info.net_out_w[layer], info.net_out_h[layer]) + " cells for an input of " +
         size_text(info.net_in_w, info.net_in_h) +
         " pixels. The input must be the same whole multiple of a layer in width and height; "
         "check --layout and --size";
}

void check_raw_layers(const std::string& word, DetDecodeInfo* info, DecodingFacts* facts) {
  facts->reason = "3 outputs of " + std::to_string(info->net_out_c[0]) + " channels each";
  facts->counts = counts_of_word(word);
  facts->counts_source = kModelOutKey;
  const bool word_known = facts->counts.known;
  if (!word_known) {
    facts->counts = guess_counts(info->net_out_c[0]);
    facts->counts_source = facts->counts.known ? "channels" : "none";
  }
  if (!facts->counts.known) {
    facts->fault = fault_of_unknown_channels(info->net_out_c[0]);
    return;
  }
  info->num_classes = facts->counts.classes;
  info->num_keypoints = facts->counts.keypoints;
  if (word_known && !channels_fit(facts->counts, info->net_out_c[0])) {
    facts->fault = fault_of_word(word, facts->counts, info->net_out_c[0]);
    return;
  }
  olvex::vector<BoxInfo> boxes;
  for (int layer = 0; layer < info->num_out_layers && facts->fault.empty(); ++layer) {
    if (det_decode_one_layer(*info, layer, boxes) != E_ALGO_SUCCESS) {
      facts->fault = fault_of_grid(*info, layer);
    }
  }
}

// Name of the layout that the decoder finds in a box list.
const char* box_list_layout(const DetDecodeInfo& info) {
  if (info.num_out_layers == 4) {
    return "boxes and scores";
  }
  return info.net_out_c[2] == 1 ? "boxes, classes and scores" : "boxes, scores and key points";
}

void check_box_list(const std::string& word, DetDecodeInfo* info, DecodingFacts* facts) {
  facts->reason = std::to_string(info->num_out_layers) +
                  " outputs, the row tensors as wide as the index tensor is high (" +
                  std::to_string(info->net_out_w[0]) + "): " + box_list_layout(*info);
  olvex::vector<BoxInfo> boxes;
  if (ipu_decode(*info, boxes) != E_ALGO_SUCCESS) {
    facts->fault =
        "the library knows no box list with these channel counts and element type. It takes FP32 "
        "or INT16, boxes with one class and one score each, or key points of 8, 10, 12, 15, 51 or "
        "63 values";
  }
  const TypeCounts declared = counts_of_word(word);
  facts->counts.known = declared.known;
  facts->counts.classes = declared.classes;
  facts->counts.keypoints = info->num_keypoints;
  facts->counts_source = declared.known ? kModelOutKey : "tensors";
}

DecodingFacts decoding_facts(const QV_IPU_SubNet_InputOutputDesc_t& description,
                             const std::vector<TensorFacts>& outputs, const std::string& word) {
  DecodingFacts facts;
  facts.counts_source = "none";
  EmptyOutputs empty(description);
  DetDecodeInfo& info = empty.info();
  const bool too_many = description.u32OutputTensorCount > kMaxOutputs;
  facts.decoder = too_many ? kDecoderNone : choose_output_decoder(info);
  if (facts.decoder == kDecoderCpu) {
    check_raw_layers(word, &info, &facts);
  } else if (facts.decoder == kDecoderIpu) {
    check_box_list(word, &info, &facts);
  } else {
    facts.reason = "no decoder takes these outputs";
    facts.fault =
        "the library decodes 3 raw layers with equal channels, or a box list of 4 or 5 "
        "tensors; these are " +
        join(outputs, ", ", [](const TensorFacts& tensor) { return describe(tensor); }) +
        ". Check the names, and for raw layers --layout";
  }
  return facts;
}

}  // namespace

std::string describe(const TensorFacts& tensor) {
  const auto text_of = [](unsigned size) { return std::to_string(size); };
  return tensor.name + " " + join(tensor.shape, "x", text_of) + " " + tensor.format;
}

ModelFacts collect_facts(LibraryModel* opened, const std::string& text_header) {
  DetAfModel& model = opened->model();
  ModelFacts facts;
  for (unsigned i = 0; i < std::min(model.desc_.u32InputTensorCount, OLVEX_MAX_TENSORS); ++i) {
    facts.inputs.push_back(tensor_facts(model.desc_.astQV_InputTensorDescs[i]));
  }
  for (unsigned i = 0; i < std::min(model.desc_.u32OutputTensorCount, OLVEX_MAX_TENSORS); ++i) {
    facts.outputs.push_back(tensor_facts(model.desc_.astQV_OutputTensorDescs[i]));
  }
  facts.file_pairs = read_pairs(text_header);
  facts.name_pairs = facts.outputs.empty() ? Pairs() : read_pairs(facts.outputs.front().name);
  facts.valid_pairs = to_pairs(model.model_kvs_);
  for (std::size_t i = 0; i < model.class_id_map_.size(); ++i) {
    facts.class_map.emplace_back(model.class_id_map_[i].first, model.class_id_map_[i].second);
  }
  olvex::vector<int> classes;
  int target = -1;
  model.get_double_check_ids(classes, target);
  if (target >= 0) {
    facts.double_check_target = target;
  }
  for (std::size_t i = 0; i < classes.size(); ++i) {
    facts.double_check_classes.push_back(classes[i]);
  }
  facts.decoding =
      decoding_facts(model.desc_, facts.outputs, first_value(facts.valid_pairs, kModelOutKey));
  facts.variable_buffer_size = opened->variable_buffer_size();
  return facts;
}

// ---- The scales of 16-bit outputs ---------------------------------------------------------------

namespace {

// Pictures to come exceed those that were looked at now and then. This reserve costs a seventh of a bit
// of the fifteen that a value has.
constexpr double kHeadroom = 1.1;

std::vector<ScaledOutput> raw_outputs(qv_host::Description* description) {
  std::vector<ScaledOutput> outputs;
  for (qv_host::RawOutput& layer : description->raw) {
    outputs.push_back({outputs.size(), 0, layer.name, &layer.scale, "--raw-scale"});
  }
  return outputs;
}

// The tensors' order is that of output_tensor_names(): a tensor of classes stands in second place,
// and never beside key points.
std::vector<ScaledOutput> decoded_outputs(qv_host::Description* description) {
  qv_host::DecodedOutput& decoded = description->decoded;
  const double longest_side = std::max(description->input.width, description->input.height);
  const std::size_t scores = decoded.emit_classes ? 2 : 1;
  std::vector<ScaledOutput> outputs = {
      {0, longest_side, decoded.boxes, &decoded.box_scale, "--box-scale"},
      {scores, 1, decoded.scores, &decoded.score_scale, "--score-scale"}};
  if (!decoded.keypoints.empty()) {
    outputs.push_back(
        {scores + 1, longest_side, decoded.keypoints, &decoded.keypoint_scale, "--keypoint-scale"});
  }
  return outputs;
}

}  // namespace

std::vector<ScaledOutput> scaled_outputs(qv_host::Description* description) {
  return description->kind == qv_host::OutputKind::kRaw ? raw_outputs(description)
                                                        : decoded_outputs(description);
}

float scale_for(double largest, double natural_reach) {
  return static_cast<float>(std::max(largest * kHeadroom, natural_reach) / kScaleSteps);
}

}  // namespace olvex_tools
