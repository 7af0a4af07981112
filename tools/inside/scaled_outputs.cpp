// scaled_outputs.cpp - the tensors by the kind of the outputs. Declared in scaled_outputs.h.
#include "tools/inside/scaled_outputs.h"

#include <algorithm>

namespace olvex_tools {

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
