// SPDX-License-Identifier: Apache-2.0
// calibration.cpp - runs the pictures, keeps the largest values, makes scales of them.
// Declared in pack.h; frame_source.h supplies the pictures.
#include "tools/pack/pack.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <optional>

#include "tools/common/command.h"
#include "tools/frames/frame_conversion.h"
#include "tools/frames/frame_source.h"
#include "tools/inside/model_facts.h"

namespace olvex_tools {

namespace {

using qv_host::Description;

// The largest value without its sign; nothing when a value is not finite.
std::optional<double> largest_value(const float* values, std::size_t count) {
  float largest = 0.f;
  for (std::size_t i = 0; i < count; ++i) {
    if (!std::isfinite(values[i])) {
      return std::nullopt;
    }
    largest = std::max(largest, std::fabs(values[i]));
  }
  return largest;
}

class CalibrationRun {
 public:
  CalibrationRun(LibraryModel* model, Description* description)
      : model_(*model),
        description_(*description),
        layout_(frame_layout(description->input)),
        targets_(scaled_outputs(description)),
        largest_(targets_.size()) {}

  const FrameLayout& layout() const { return layout_; }

  void process(SourceFrame* frame) {
    const bool is_dump = frame->picture.empty();
    if (!is_dump) {
      convert_to_frame(frame->picture, layout_, &converted_);
    }
    constexpr float kHighestThreshold = 1.f;  // the boxes are of no interest
    model_.detect(is_dump ? &frame->dump : &converted_, kHighestThreshold);
    for (std::size_t i = 0; i < targets_.size(); ++i) {
      note_values(i, frame->name);
    }
    ++frames_;
  }

  Calibration finish() const {
    Calibration calibration;
    calibration.frames = frames_;
    for (std::size_t i = 0; i < targets_.size(); ++i) {
      calibration.outputs.push_back(choose_scale(targets_[i], largest_[i]));
    }
    return calibration;
  }

 private:
  void note_values(std::size_t target, const std::string& picture) {
    const std::size_t tensor = targets_[target].tensor;
    const DetAfModel& model = model_.model();
    const std::optional<double> largest =
        largest_value(static_cast<const float*>(
                          model.output_tensor_vector_.astArrayTensors[tensor].ptTensorData[0]),
                      model.desc_.astQV_OutputTensorDescs[tensor].u32BufSize / sizeof(float));
    if (!largest) {
      refuse_model(picture, "the network's output \"" + targets_[target].name +
                                "\" holds a value that is not finite. Check --mean and "
                                "--scale, and the network");
    }
    largest_[target] = std::max(largest_[target], *largest);
  }

  CalibratedOutput choose_scale(const ScaledOutput& target, double largest) const {
    CalibratedOutput output;
    output.name = target.name;
    output.largest = largest;
    output.scale = scale_for(largest, target.natural_reach);
    output.reach = static_cast<double>(output.scale) * kScaleSteps;
    if (largest == 0 || !std::isnormal(output.scale)) {
      throw ToolError(kModelError, "the network's output \"" + target.name +
                                       "\" is zero throughout all calibration frames, so no scale "
                                       "can be chosen. " +
                                       remedy());
    }
    *target.scale = output.scale;
    return output;
  }

  const char* remedy() const {
    return description_.kind == qv_host::OutputKind::kRaw
               ? "Check --mean and --scale, and the network"
               : "Calibrate with pictures that show objects; only candidates of --min-score or "
                 "more count";
  }

  LibraryModel& model_;
  const Description& description_;
  FrameLayout layout_;
  std::vector<ScaledOutput> targets_;
  std::vector<double> largest_;  // per target, over all frames
  std::vector<unsigned char> converted_;
  long frames_ = 0;
};

}  // namespace

Calibration calibrate(const std::string& pictures, long limit, LibraryModel* model,
                      Description* description) {
  CalibrationRun run(model, description);
  for_spread_frames(pictures, run.layout(), limit,
                    [&run](SourceFrame* frame) { run.process(frame); });
  return run.finish();
}

}  // namespace olvex_tools
