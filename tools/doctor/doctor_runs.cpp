// SPDX-License-Identifier: Apache-2.0
// doctor_runs.cpp - runs a model image, as it is and with its description changed in memory, and keeps what
// the checks read. Declared in doctor.h.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <utility>

#include "platform/host/qv_host.h"
#include "video/det/include/olvex_det.h"

#include "tools/common/progress.h"
#include "tools/doctor/doctor.h"
#include "tools/frames/frame_conversion.h"
#include "tools/frames/frame_source.h"
#include "tools/inside/foreign_platform.h"
#include "tools/inside/library_model.h"
#include "tools/inside/model_facts.h"

namespace olvex_tools {

namespace {

using qv_host::Description;
using qv_host::Resize;

constexpr int kMostRows = 32767;  // that an image can ask for
constexpr float kReportThreshold = 0.5f;

// ---- Frames -------------------------------------------------------------------------------------

// A twentieth more or less leaves objects their shape.
bool has_other_aspect(const cv::Mat& picture, const FrameLayout& layout) {
  constexpr double kNotable = 1.05;
  const double ratio = static_cast<double>(picture.cols) * layout.height /
                       (static_cast<double>(picture.rows) * layout.width);
  return std::max(ratio, 1 / ratio) > kNotable;
}

TestFrame test_frame(SourceFrame* source, const FrameLayout& layout) {
  TestFrame frame;
  if (source->picture.empty()) {
    frame.bytes = source->dump;
    return frame;
  }
  convert_to_frame(source->picture, layout, &frame.bytes);
  if (has_other_aspect(source->picture, layout)) {
    FrameLayout other = layout;
    other.resize = layout.resize == Resize::kStretch ? Resize::kLetterbox : Resize::kStretch;
    convert_to_frame(source->picture, other, &frame.other_resize);
  }
  return frame;
}

// ---- Runs ---------------------------------------------------------------------------------------

using Visit = std::function<void(const DetAfModel& model, const std::vector<BoxInfo>& boxes)>;

// Under that description, or, of a foreign platform, as it is.
std::unique_ptr<LibraryModel> open_model(const ExaminedModel& examined,
                                         const Description& description) {
  if (platform_is_foreign()) {
    return std::make_unique<LibraryModel>(examined.path, examined.path);
  }
  std::vector<char> file(examined.text_header.begin(), examined.text_header.end());
  const std::vector<char> image = qv_host::build_image(description, examined.image.network);
  file.insert(file.end(), image.begin(), image.end());
  return std::make_unique<LibraryModel>(std::move(file), examined.path);
}

// Runs the frames under that description, and shows visit the model and its boxes after each.
void run_frames(const ExaminedModel& examined, const Description& description, FrameChoice choice,
                const Visit& visit) {
  const std::unique_ptr<LibraryModel> opened = open_model(examined, description);
  LibraryModel& model = *opened;
  Progress progress(static_cast<long>(examined.frames.size()), false);
  long done = 0;
  for (const TestFrame& frame : examined.frames) {
    const bool other = choice == FrameChoice::kOtherResize && !frame.other_resize.empty();
    std::vector<unsigned char> bytes = other ? frame.other_resize : frame.bytes;
    const std::vector<BoxInfo> boxes = model.detect(&bytes, kLeastThreshold);
    visit(model.model(), boxes);
    progress.update(++done);
  }
}

double clarity_of(const std::vector<BoxInfo>& boxes) {
  double clarity = 0;
  for (const BoxInfo& box : boxes) {
    clarity += 2 * static_cast<double>(box.score) - 1;
  }
  return clarity;
}

Description plain_description(const Description& described) {
  Description plain = described;
  plain.output_format = QV_IPU_FORMAT_FP32;
  plain.decoded.max_boxes = kMostRows;
  plain.decoded.min_score = std::numeric_limits<float>::lowest();
  return plain;
}

template <typename Element>
const Element* elements(const DetAfModel& model, std::size_t tensor) {
  return static_cast<const Element*>(
      model.output_tensor_vector_.astArrayTensors[tensor].ptTensorData[0]);
}

std::size_t element_count(const DetAfModel& model, std::size_t tensor, std::size_t element_size) {
  return model.desc_.astQV_OutputTensorDescs[tensor].u32BufSize / element_size;
}

// Values of one row of a decoded tensor.
std::size_t row_length(const DetAfModel& model, std::size_t tensor) {
  return model.desc_.astQV_OutputTensorDescs[tensor].u32TensorShape[3];
}

template <typename Element>
std::size_t filled_rows(const DetAfModel& model) {
  return static_cast<std::size_t>(*elements<Element>(model, model.desc_.u32OutputTensorCount - 1));
}

// ---- As it is -----------------------------------------------------------------------------------

void count_integers(const DetAfModel& model, const Description& description,
                    std::vector<IntegerUse>* uses) {
  using Limits = std::numeric_limits<std::int16_t>;
  Description copy = description;
  const std::vector<ScaledOutput> outputs = scaled_outputs(&copy);
  uses->resize(outputs.size());
  for (std::size_t i = 0; i < outputs.size(); ++i) {
    const std::size_t tensor = outputs[i].tensor;
    const std::size_t count = description.kind == qv_host::OutputKind::kRaw
                                  ? element_count(model, tensor, sizeof(std::int16_t))
                                  : filled_rows<std::int16_t>(model) * row_length(model, tensor);
    const std::int16_t* values = elements<std::int16_t>(model, tensor);
    IntegerUse& use = (*uses)[i];
    use.values += count;
    for (std::size_t k = 0; k < count; ++k) {
      use.at_limit += values[k] == Limits::max() || values[k] == Limits::min() ? 1 : 0;
      use.largest = std::max(use.largest, std::abs(static_cast<int>(values[k])));
    }
  }
}

void count_boxes(const std::vector<BoxInfo>& boxes, OwnRun* run) {
  std::size_t reported = 0;
  for (const BoxInfo& box : boxes) {
    if (box.label < 0) {
      continue;
    }
    reported += box.score >= kReportThreshold ? 1 : 0;
    for (std::size_t i = 0; i < kThresholds; ++i) {
      const float threshold = kLeastThreshold * static_cast<float>(i + 1);
      run->boxes[i] += box.score >= threshold ? 1 : 0;
    }
  }
  run->frames_with_cut += reported > ALGO_DET_MAX_BOXES ? 1 : 0;
}

// ---- Plainly ------------------------------------------------------------------------------------

void add_layers(const DetAfModel& model, int classes, PlainRun* run) {
  constexpr std::size_t kBoxChannels = 4;
  for (std::size_t i = 0; i < run->reach.size(); ++i) {
    const std::size_t count = element_count(model, i, sizeof(float));
    const std::size_t channels = row_length(model, i);
    const float* values = elements<float>(model, i);
    for (std::size_t k = 0; k < count; ++k) {
      const double value = static_cast<double>(values[k]);
      if (k % channels < kBoxChannels) {
        run->box_values[i].add(value);
      } else if (k % channels < kBoxChannels + static_cast<std::size_t>(classes)) {
        run->class_values[i].add(value);
      }
      run->reach[i] = std::max(run->reach[i], std::fabs(value));
    }
  }
}

struct Corners {
  double left, top, right, bottom;  // input pixels
};

Corners read_box(const std::array<double, 4>& row, const BoxReading& reading,
                 const qv_host::InputDescription& input) {
  const double across = reading.fractions ? input.width : 1;
  const double down = reading.fractions ? input.height : 1;
  if (reading.order == qv_host::BoxOrder::kCornerPairs) {
    return {row[0] * across, row[1] * down, row[2] * across, row[3] * down};
  }
  return {(row[0] - row[2] / 2) * across, (row[1] - row[3] / 2) * down,
          (row[0] + row[2] / 2) * across, (row[1] + row[3] / 2) * down};
}

// The four values of a row as the network has them, from the corners that were made of them.
std::array<double, 4> row_of(const float* box, const Description& description) {
  const bool fractions = description.decoded.box_fractions;
  const double across = fractions ? description.input.width : 1;
  const double down = fractions ? description.input.height : 1;
  const double left = static_cast<double>(box[0]) / across;
  const double top = static_cast<double>(box[1]) / down;
  const double right = static_cast<double>(box[2]) / across;
  const double bottom = static_cast<double>(box[3]) / down;
  if (description.decoded.box_order == qv_host::BoxOrder::kCornerPairs) {
    return {{left, top, right, bottom}};
  }
  return {{(left + right) / 2, (top + bottom) / 2, right - left, bottom - top}};
}

// At least a pixel wide and high, and nine tenths of it inside of the input.
bool is_sensible(const Corners& box, const qv_host::InputDescription& input) {
  constexpr double kLeastSide = 1;
  constexpr double kInside = 0.9;
  const double width = box.right - box.left;
  const double height = box.bottom - box.top;
  if (!(width >= kLeastSide && height >= kLeastSide)) {
    return false;
  }
  const double across = std::min<double>(box.right, input.width) - std::max(box.left, 0.0);
  const double down = std::min<double>(box.bottom, input.height) - std::max(box.top, 0.0);
  return across > 0 && down > 0 && across * down >= kInside * width * height;
}

void add_row(const float* box, const Description& description, PlainRun* run) {
  const std::array<double, 4> row = row_of(box, description);
  if (std::all_of(row.begin(), row.end(), [](double value) { return value == 0; })) {
    return;  // networks that choose boxes themselves fill up with zeros
  }
  ++run->rows_read;
  for (BoxReading& reading : run->readings) {
    const Corners corners = read_box(row, reading, description.input);
    reading.sensible += is_sensible(corners, description.input) ? 1 : 0;
  }
}

// The largest values count where calibration would look at them.
void add_reach(const DetAfModel& model, const Description& description, std::size_t rows,
               PlainRun* run) {
  Description copy = description;
  const std::vector<ScaledOutput> outputs = scaled_outputs(&copy);
  for (std::size_t i = 0; i < outputs.size(); ++i) {
    const float* values = elements<float>(model, outputs[i].tensor);
    for (std::size_t k = 0; k < rows * row_length(model, outputs[i].tensor); ++k) {
      run->reach[i] = std::max(run->reach[i], std::fabs(static_cast<double>(values[k])));
    }
  }
}

void add_rows(const DetAfModel& model, const Description& description, PlainRun* run) {
  constexpr std::size_t kRowsToRead = 100;  // of each frame, the best ones
  const float* boxes = elements<float>(model, 0);
  const float* scores = elements<float>(model, description.decoded.emit_classes ? 2 : 1);
  const std::size_t rows = filled_rows<float>(model);
  std::size_t handed_over = 0;
  for (std::size_t i = 0; i < rows; ++i) {
    run->class_values[0].add(static_cast<double>(scores[i]));
    for (std::size_t k = 0; k < 4; ++k) {
      run->box_values[0].add(static_cast<double>(boxes[4 * i + k]));
    }
    if (i < kRowsToRead) {
      add_row(boxes + 4 * i, description, run);
    }
    const bool kept = scores[i] >= description.decoded.min_score &&
                      i < static_cast<std::size_t>(description.decoded.max_boxes);
    handed_over += kept ? 1 : 0;
  }
  add_reach(model, description, handed_over, run);
}

}  // namespace

void ValueRange::add(double value) {
  ++count;
  if (std::isfinite(value)) {
    least = std::min(least, value);
    largest = std::max(largest, value);
  } else {
    ++not_finite;
  }
}

std::vector<TestFrame> load_frames(const std::vector<std::string>& inputs, long limit,
                                   const qv_host::InputDescription& input) {
  const FrameLayout layout = frame_layout(input);
  const auto count = static_cast<long>(inputs.size());
  const long taken = std::min(count, limit);
  std::vector<TestFrame> frames;
  for (long i = 0; i < taken; ++i) {
    // The frames that are left to take, over the inputs that are left; rounded up.
    const long left = taken - i;
    const long share = (limit - static_cast<long>(frames.size()) + left - 1) / left;
    for_spread_frames(inputs[static_cast<std::size_t>(i * count / taken)], layout, share,
                      [&](SourceFrame* frame) { frames.push_back(test_frame(frame, layout)); });
  }
  return frames;
}

OwnRun run_as_it_is(const ExaminedModel& examined) {
  const Description& description = examined.image.description;
  OwnRun run;
  run_frames(examined, description, FrameChoice::kOwn,
             [&](const DetAfModel& model, const std::vector<BoxInfo>& boxes) {
               const std::size_t dropped = QV_HOST_LastInvokeDropped();
               run.frames_with_dropped += dropped > 0 ? 1 : 0;
               run.most_dropped = std::max(run.most_dropped, dropped);
               count_boxes(boxes, &run);
               if (description.output_format == QV_IPU_FORMAT_INT16) {
                 count_integers(model, description, &run.integers);
               }
             });
  return run;
}

PlainRun run_plainly(const ExaminedModel& examined) {
  using qv_host::BoxOrder;
  Description described = examined.image.description;
  const bool raw = described.kind == qv_host::OutputKind::kRaw;
  PlainRun run;
  run.reach.resize(scaled_outputs(&described).size());
  run.box_values.resize(raw ? run.reach.size() : 1);
  run.class_values.resize(run.box_values.size());
  run.readings = {{{BoxOrder::kCornerPairs, true, 0},
                   {BoxOrder::kCornerPairs, false, 0},
                   {BoxOrder::kCentreSize, true, 0},
                   {BoxOrder::kCentreSize, false, 0}}};
  run_frames(examined, plain_description(described), FrameChoice::kOwn,
             [&](const DetAfModel& model, const std::vector<BoxInfo>& boxes) {
               if (raw) {
                 add_layers(model, examined.facts.decoding.counts.classes, &run);
               } else {
                 add_rows(model, described, &run);
               }
               run.clarity.push_back(clarity_of(boxes));
             });
  return run;
}

std::vector<double> clarity_with(const ExaminedModel& examined,
                                 const qv_host::InputDescription& input, FrameChoice frames) {
  Description description = plain_description(examined.image.description);
  description.input = input;
  std::vector<double> clarity;
  run_frames(examined, description, frames,
             [&](const DetAfModel&, const std::vector<BoxInfo>& boxes) {
               clarity.push_back(clarity_of(boxes));
             });
  return clarity;
}

}  // namespace olvex_tools
