// SPDX-License-Identifier: Apache-2.0
// head_evidence.cpp - questions to the graph and to the values, and what several families conclude alike.
#include "tools/heads/head_evidence.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "tools/common/command.h"
#include "tools/common/text.h"

namespace olvex_tools {

namespace {

constexpr double kRounding = 1e-4;  // what single precision may add to a probability

std::string number(double value) {
  return format("%g", value);
}

const char* word_of(Activation activation) {
  return activation == Activation::kSigmoid   ? "sigmoid"
         : activation == Activation::kSoftmax ? "softmax"
                                              : "none";
}

}  // namespace

bool library_takes_points(std::int64_t values) {
  const std::int64_t known[] = {8, 10, 12, 15, 51, 63};
  return std::find(std::begin(known), std::end(known), values) != std::end(known);
}

HeadEvidence::HeadEvidence(const HeadQuestion& question, const HeadLayout& layout)
    : question_(question),
      layout_(layout),
      class_names_(class_names_in_metadata(question.network)) {}

std::int64_t HeadEvidence::known_classes() const {
  return options().class_count ? *options().class_count
                               : static_cast<std::int64_t>(class_names_.size());
}

Treatment HeadEvidence::treatment(const Channels& channels) const {
  const InputSize& size = question_.size;
  GridSize grid;
  grid.cells = layout_.strides.empty() ? layout_.rows : cells_of(size, layout_.strides.front());
  for (const int stride : layout_.strides.empty() ? std::vector<int>{8, 16, 32} : layout_.strides) {
    grid.sides.insert((size.width + stride - 1) / stride);
    grid.sides.insert((size.height + stride - 1) / stride);
  }
  std::vector<std::string> values;
  for (const ChannelRun& run : channels.kind.get().runs) {
    if (run.first < channels.first + channels.count && run.first + run.count > channels.first) {
      values.insert(values.end(), run.values.begin(), run.values.end());
    }
  }
  return treatment_of(question_.network, values, grid);
}

bool HeadEvidence::ends_before(const RowKind& kind, std::int64_t channel) const {
  return std::any_of(kind.runs.begin(), kind.runs.end(),
                     [&](const ChannelRun& run) { return run.first == channel; });
}

bool HeadEvidence::is_decoded(const Channels& box) const {
  return treatment(box).grid;
}

std::vector<std::vector<float>> HeadEvidence::columns(const Channels& channels) const {
  std::vector<std::vector<float>> columns;
  for (std::int64_t i = 0; i < channels.count && question_.values != nullptr; ++i) {
    columns.push_back(
        read_channel(channels.kind.get().tensors, channels.first + i, *question_.values));
  }
  return columns;
}

std::optional<Interval> HeadEvidence::range(const Channels& channels) const {
  std::optional<Interval> range;
  for (const std::vector<float>& column : columns(channels)) {
    const auto [least, most] = std::minmax_element(column.begin(), column.end());
    const Interval own = {static_cast<double>(*least), static_cast<double>(*most)};
    range =
        range ? Interval{std::min(range->least, own.least), std::max(range->most, own.most)} : own;
  }
  return range;
}

bool HeadEvidence::is_probability(const Channels& channels) const {
  const std::optional<Interval> values = range(channels);
  if (values) {
    return values->least >= -kRounding && values->most <= 1 + kRounding;
  }
  const Treatment done = treatment(channels);
  return done.sigmoid || done.softmax;
}

bool HeadEvidence::adds_up_to_one(const Channels& channels) const {
  const std::vector<std::vector<float>> values = columns(channels);
  if (values.empty()) {
    return treatment(channels).softmax;
  }
  for (std::size_t row = 0; row < values.front().size(); ++row) {
    double sum = 0;
    for (const std::vector<float>& column : values) {
      sum += static_cast<double>(column[row]);
    }
    if (!(std::fabs(sum - 1) < 1e-3)) {
      return false;
    }
  }
  return true;
}

std::vector<std::array<double, 2>> HeadEvidence::first_and_best_other(
    const Channels& channels) const {
  const bool logits = !is_probability(channels);
  const std::vector<std::vector<float>> values = columns(channels);
  std::vector<std::array<double, 2>> rows(values.empty() ? 0 : values.front().size());
  for (std::size_t i = 0; i < rows.size(); ++i) {
    for (std::size_t k = 0; k < values.size(); ++k) {
      const auto value = static_cast<double>(values[k][i]);
      const double share = logits ? 1 / (1 + std::exp(-value)) : value;
      double& kept = rows[i][k == 0 ? 0 : 1];
      kept = std::max(kept, share);
    }
  }
  return rows;
}

double HeadEvidence::mean(const Channels& channels) const {
  double sum = 0;
  double count = 0;
  for (const std::vector<float>& column : columns(channels)) {
    sum = std::accumulate(column.begin(), column.end(), sum);
    count += static_cast<double>(column.size());
  }
  return count > 0 ? sum / count : 0;
}

bool HeadEvidence::is_whole_numbers(const RowKind& kind, std::int64_t channel) const {
  const std::vector<std::vector<float>> values = columns({kind, channel, 1});
  return !values.empty() &&
         std::all_of(values.front().begin(), values.front().end(), [](float value) {
           return value >= 0.f && value < 1e6f && value == std::floor(value);
         });
}

HeadPart HeadEvidence::part(const Channels& channels) const {
  HeadPart part;
  part.tensors = channels.kind.get().tensors;
  part.first = channels.first;
  part.count = channels.count;
  return part;
}

HeadPart HeadEvidence::probability(const Channels& channels, const std::optional<Activation>& given,
                                   const std::string& what, HeadReading* reading,
                                   Activation usual) const {
  HeadPart result = part(channels);
  const bool done = is_probability(channels);
  result.activation = given.value_or(done ? Activation::kNone : usual);
  const std::string option = "--" + what + "-activation " + word_of(result.activation);
  const std::string subject = what == "class" ? "class scores" : "objectness";
  if (given) {
    add_fact(reading, subject + ": as --" + what + "-activation says", option);
  } else if (done && question_.values != nullptr) {
    add_fact(reading, subject + ": in 0..1 already, by the values of the trial", option);
  } else if (done) {
    add_fact(reading, subject + ": a sigmoid or softmax is in the graph", option);
  } else {
    add_fact(reading, subject + ": logits, to which a " + word_of(usual) + " is applied", option);
  }
  return result;
}

void add_fact(HeadReading* reading, const std::string& text, const std::string& option) {
  reading->facts.push_back({text, option});
}

HeadReading begin_reading(const HeadEvidence& evidence, const std::string& family,
                          const std::string& why) {
  const HeadLayout& layout = evidence.layout();
  HeadReading reading;
  reading.head.family = family;
  reading.class_names = evidence.class_names();
  add_fact(&reading, why, "--head " + family);
  if (!layout.strides.empty()) {
    const std::string each =
        layout.anchors > 1 ? ", " + std::to_string(layout.anchors) + " in each" : "";
    reading.rows_of_cell = layout.anchors;
    add_fact(&reading,
             std::to_string(layout.rows) + " rows: the cells of " +
                 (layout.strides.size() == 1 ? "stride " : "strides ") + list_of(layout.strides) +
                 each,
             "--strides " + comma_list(layout.strides));
  }
  return reading;
}

void conclude_points(const HeadEvidence& evidence, const Channels& points, PointCode code,
                     HeadReading* reading) {
  Head& head = reading->head;
  const std::int64_t count = points.count;
  if (!library_takes_points(count) || head.class_count != 1) {
    add_fact(reading, counted(count, "value", "values") +
                          " of key points are left out: the library takes 8, 10, 12, 15, 51 or 63, "
                          "beside one class");
    return;
  }
  head.keypoints = evidence.part(points);
  head.point_code = code;
  head.point_values = count == 8 || count == 10 ? 2 : 3;
  add_fact(reading,
           std::to_string(count / head.point_values) + " key points of " +
               std::to_string(head.point_values) + " values",
           "--keypoint-values " + std::to_string(count));
  if (head.point_values == 2) {
    return;
  }
  bool done = true;
  for (std::int64_t i = 2; i < count; i += 3) {
    done = done && evidence.is_probability({points.kind, points.first + i, 1});
  }
  head.point_activation =
      evidence.options().point_activation.value_or(done ? Activation::kNone : Activation::kSigmoid);
  add_fact(reading,
           evidence.options().point_activation ? "their scores: as --keypoint-activation says"
           : done                              ? "their scores: in 0..1 already"
                                               : "their scores: logits",
           std::string("--keypoint-activation ") + word_of(head.point_activation));
}

void set_cell_references(const HeadEvidence& evidence, double place, HeadReading* reading) {
  const HeadLayout& layout = evidence.layout();
  place = evidence.options().cell_centre.value_or(place);
  SizesOfLayers sizes;
  for (const int stride : layout.strides) {
    sizes.emplace_back(static_cast<std::size_t>(layout.anchors),
                       BoxSize{static_cast<double>(stride), static_cast<double>(stride)});
  }
  set_sized_references(evidence, layout.strides, sizes, place, 0, reading);
  add_fact(reading,
           "values count from " +
               (place == 0    ? std::string("the upper left corner")
                : place == .5 ? std::string("the middle")
                              : number(place) + " of the width and height") +
               " of each cell" + (evidence.options().cell_centre ? "" : ", as usual"),
           "--cell-centre " + number(place));
}

void set_sized_references(const HeadEvidence& evidence, const std::vector<int>& strides,
                          const SizesOfLayers& sizes, double place, double step_of_size,
                          HeadReading* reading) {
  const InputSize& size = evidence.question().size;
  std::vector<ReferenceBox>& references = reading->head.references;
  for (std::size_t layer = 0; layer < strides.size(); ++layer) {
    const int stride = strides[layer];
    const std::int64_t columns = (size.width + stride - 1) / stride;
    const std::int64_t cells = cells_of(size, stride);
    const auto anchors = static_cast<std::int64_t>(sizes[layer].size());
    for (std::int64_t row = 0; row < cells * anchors; ++row) {
      const bool anchors_first = evidence.layout().anchors_first;
      const std::int64_t cell = anchors_first ? row % cells : row / anchors;
      const std::int64_t anchor = anchors_first ? row / cells : row % anchors;
      const BoxSize& box = sizes[layer][static_cast<std::size_t>(anchor)];
      const bool by_size = step_of_size != 0;
      references.push_back({(static_cast<double>(cell % columns) + place) * stride,
                            (static_cast<double>(cell / columns) + place) * stride,
                            by_size ? step_of_size * box.width : stride,
                            by_size ? step_of_size * box.height : stride, box.width, box.height});
    }
  }
}

std::string describe(const SizesOfLayers& sizes) {
  std::vector<std::string> layers;
  for (const std::vector<BoxSize>& layer : sizes) {
    std::vector<std::string> boxes;
    for (const BoxSize& box : layer) {
      boxes.push_back(number(box.width) +
                      (box.width == box.height ? "" : "x" + number(box.height)));
    }
    layers.push_back(join(boxes, ","));
  }
  return join(layers, "/");
}

void conclude_score_powers(const HeadEvidence& evidence, const std::array<double, 2>& usual,
                           const std::string& why, HeadReading* reading) {
  const auto& given = evidence.options().score_powers;
  const std::array<double, 2> powers = given.value_or(usual);
  reading->head.objectness_power = powers[0];
  reading->head.class_power = powers[1];
  const bool product = powers[0] == 1 && powers[1] == 1;
  add_fact(reading,
           (product ? "score: objectness x class"
                    : format("score: objectness ^ %g x class ^ %g", powers[0], powers[1])) +
               (given ? ", as --score-powers says" : why),
           format("--score-powers %g,%g", powers[0], powers[1]));
}

bool have_background(const HeadEvidence& evidence, const RowKind& scores) {
  const Channels all = {scores, 0, scores.channels};
  return scores.channels > 1 && evidence.is_probability(all) && evidence.adds_up_to_one(all);
}

void conclude_class_count(std::int64_t columns, HeadReading* reading) {
  reading->head.class_count = columns;
  const std::int64_t classes = columns - (reading->head.background >= 0 ? 1 : 0);
  const bool named = static_cast<std::int64_t>(reading->class_names.size()) == classes;
  add_fact(reading,
           counted(classes, "class", "classes") + (named ? ", as many as the metadata names" : ""),
           "--class-count " + std::to_string(classes));
}

}  // namespace olvex_tools
