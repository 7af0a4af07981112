// calibration.cpp - runs the pictures, keeps the largest values, makes scales of them.
// Declared in pack.h; frame_source.h supplies the pictures.
#include "tools/pack/pack.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>

#include "tools/common/command.h"
#include "tools/frames/frame_conversion.h"
#include "tools/frames/frame_source.h"
#include "tools/common/progress.h"

namespace olvex_tools {

namespace {

using qv_host::Description;

// Pictures to come exceed those of the calibration now and then. This reserve costs a seventh of a bit
// of the fifteen that a value has.
constexpr double kHeadroom = 1.1;
constexpr double kSteps = std::numeric_limits<std::int16_t>::max();
constexpr double kPictureRate = 25;  // of no effect: time stamps are not looked at

// An output tensor with a scale to choose.
struct Target {
  std::size_t tensor;    // its place among the output tensors
  double natural_reach;  // values up to here are to be expected whatever the pictures show; 0: none
  std::string name;      // the network's output
  float* scale;          // in the description
};

std::vector<Target> raw_targets(Description* description) {
  std::vector<Target> targets;
  for (qv_host::RawOutput& layer : description->raw) {
    targets.push_back({targets.size(), 0, layer.name, &layer.scale});
  }
  return targets;
}

// The tensors' order is that of output_tensor_names(): a tensor of classes stands in second place,
// and never beside key points.
std::vector<Target> decoded_targets(Description* description) {
  qv_host::DecodedOutput& decoded = description->decoded;
  const double longest_side = std::max(description->input.width, description->input.height);
  const std::size_t scores = decoded.emit_classes ? 2 : 1;
  std::vector<Target> targets = {{0, longest_side, decoded.boxes, &decoded.box_scale},
                                 {scores, 1, decoded.scores, &decoded.score_scale}};
  if (!decoded.keypoints.empty()) {
    targets.push_back({scores + 1, longest_side, decoded.keypoints, &decoded.keypoint_scale});
  }
  return targets;
}

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
        targets_(description->kind == qv_host::OutputKind::kRaw ? raw_targets(description)
                                                                : decoded_targets(description)),
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

  CalibratedOutput choose_scale(const Target& target, double largest) const {
    CalibratedOutput output;
    output.name = target.name;
    output.largest = largest;
    output.scale = static_cast<float>(std::max(largest * kHeadroom, target.natural_reach) / kSteps);
    output.reach = static_cast<double>(output.scale) * kSteps;
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
  std::vector<Target> targets_;
  std::vector<double> largest_;  // per target, over all frames
  std::vector<unsigned char> converted_;
  long frames_ = 0;
};

// Number, from 0, of the frame to run as the index-th of limit.
long spread(long index, long limit, std::optional<long> length) {
  if (!length || *length <= limit) {
    return index;
  }
  return static_cast<long>(static_cast<std::int64_t>(index) * *length / limit);
}

// False at the end of the source.
bool skip_to(long number, FrameSource* source, long* position) {
  while (*position < number) {
    if (!source->skip()) {
      return false;
    }
    ++*position;
  }
  return true;
}

}  // namespace

Calibration calibrate(const std::string& pictures, long limit, LibraryModel* model,
                      Description* description) {
  silence_opencv();
  CalibrationRun run(model, description);
  const std::unique_ptr<FrameSource> source =
      open_frame_source(pictures, run.layout(), kPictureRate);
  const std::optional<long> length = source->length();
  Progress progress(length ? std::min(*length, limit) : limit, false);
  SourceFrame frame;
  long position = 0;
  long done = 0;
  while (done < limit && skip_to(spread(done, limit, length), source.get(), &position) &&
         source->next(&frame)) {
    run.process(&frame);
    ++position;
    progress.update(++done);
  }
  if (done == 0) {
    refuse_input(pictures, "no frame can be read from it");
  }
  return run.finish();
}

}  // namespace olvex_tools
