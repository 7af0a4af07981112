// SPDX-License-Identifier: Apache-2.0
// final_boxes.cpp - order, unit and axes of boxes that the network decodes itself. Declared in head_evidence.h.
#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>
#include <optional>

#include "tools/common/command.h"
#include "tools/heads/head_evidence.h"

namespace olvex_tools {

namespace {

double correlation(const std::vector<double>& left, const std::vector<double>& right) {
  const auto count = static_cast<double>(left.size());
  const double left_mean = std::accumulate(left.begin(), left.end(), 0.) / count;
  const double right_mean = std::accumulate(right.begin(), right.end(), 0.) / count;
  double common = 0;
  double left_square = 0;
  double right_square = 0;
  for (std::size_t i = 0; i < left.size(); ++i) {
    common += (left[i] - left_mean) * (right[i] - right_mean);
    left_square += (left[i] - left_mean) * (left[i] - left_mean);
    right_square += (right[i] - right_mean) * (right[i] - right_mean);
  }
  return common / std::sqrt(left_square * right_square);
}

// How much better the boxes lie at their cells with y first than with x first.
double lead_of_y_first(const HeadEvidence& evidence, const Head& head) {
  HeadReading cells;
  set_cell_references(evidence, .5, &cells);
  std::vector<double> x;
  std::vector<double> y;
  for (const ReferenceBox& cell : cells.head.references) {
    x.push_back(cell.x);
    y.push_back(cell.y);
  }
  const HeadPart& boxes = head.boxes;
  const std::int64_t other = head.box_code == BoxCode::kCorners ? 2 : 0;  // corner, or the centre
  const OutputValues& values = *evidence.question().values;
  std::array<std::vector<double>, 2> middles;
  for (std::size_t i = 0; i < middles.size(); ++i) {
    const auto channel = boxes.first + static_cast<std::int64_t>(i);
    const std::vector<float> low = read_channel(boxes.tensors, channel, values);
    const std::vector<float> high = read_channel(boxes.tensors, channel + other, values);
    for (std::size_t row = 0; row < low.size(); ++row) {
      middles[i].push_back((static_cast<double>(low[row]) + static_cast<double>(high[row])) / 2);
    }
  }
  return middles[0].size() != x.size()
             ? 0
             : correlation(middles[0], y) + correlation(middles[1], x) -
                   correlation(middles[0], x) - correlation(middles[1], y);
}

// The clearer one where it is not known in which order the rows of a cell are; nothing where rows stand for no
// cells, or no values are known.
std::optional<double> clearest_lead(const HeadEvidence& evidence, const Head& head) {
  if (evidence.question().values == nullptr || evidence.layout().strides.empty()) {
    return std::nullopt;
  }
  const double lead = lead_of_y_first(evidence, head);
  if (evidence.layout().knows_order || evidence.layout().anchors < 2) {
    return lead;
  }
  HeadLayout layout = evidence.layout();
  layout.anchors_first = !layout.anchors_first;
  const double other = lead_of_y_first(HeadEvidence(evidence.question(), layout), head);
  return std::fabs(other) > std::fabs(lead) ? other : lead;
}

// Which coordinate comes first, where the network does not say so.
void conclude_axes(const HeadEvidence& evidence, HeadReading* reading) {
  constexpr double kClear = .5;
  const std::optional<bool> given = evidence.options().y_first;
  const bool suppressed = evidence.question().selection == Selection::kSuppression;
  const std::optional<double> lead = given ? std::nullopt : clearest_lead(evidence, reading->head);
  if (!given && !suppressed && !(lead && *lead > kClear)) {
    return;  // x first, as usual
  }
  if (!given && !(lead && std::fabs(*lead) > kClear)) {
    throw ToolError(
        kUsageError,
        "the network suppresses boxes itself, to which x first and y first are the same, and "
        "its rows are not those of cells. Say which it is: --box-axes xy or --box-axes yx");
  }
  reading->head.y_first = given.value_or(lead.value_or(0) > 0);
  add_fact(reading,
           std::string(reading->head.y_first ? "y" : "x") + " comes first" +
               (reading->head.box_code == BoxCode::kCorners ? " in each corner" : "") +
               (given ? "" : ", by the places of the cells"),
           std::string("--box-axes ") + (reading->head.y_first ? "yx" : "xy"));
}

}  // namespace

void conclude_final_boxes(const HeadEvidence& evidence, const Channels& box,
                          qv_host::BoxOrder usual_order, bool usual_fractions,
                          HeadReading* reading) {
  const HeadOptions& options = evidence.options();
  Head& head = reading->head;
  head.boxes = evidence.part(box);
  const std::optional<Interval> range = evidence.range(box);
  bool corners = usual_order == qv_host::BoxOrder::kCornerPairs;
  bool fractions = usual_fractions;
  if (range) {
    const OutputValues& values = *evidence.question().values;
    std::array<std::vector<float>, 4> sides;
    for (std::size_t i = 0; i < sides.size(); ++i) {
      sides[i] =
          read_channel(box.kind.get().tensors, box.first + static_cast<std::int64_t>(i), values);
    }
    std::size_t ordered = 0;
    for (std::size_t row = 0; row < sides[0].size(); ++row) {
      ordered += sides[2][row] >= sides[0][row] && sides[3][row] >= sides[1][row] ? 1 : 0;
    }
    corners = static_cast<double>(ordered) > .9 * static_cast<double>(sides[0].size());
    // A few boxes of no object may lie anywhere.
    std::size_t beyond = 0;
    for (std::size_t row = 0; row < sides[0].size(); ++row) {
      beyond += std::any_of(sides.begin(), sides.end(),
                            [row](const std::vector<float>& side) { return side[row] > 2.5f; })
                    ? 1
                    : 0;
    }
    fractions = static_cast<double>(beyond) <= .02 * static_cast<double>(sides[0].size());
  }
  corners = options.box_order ? *options.box_order == qv_host::BoxOrder::kCornerPairs : corners;
  fractions = options.box_fractions.value_or(fractions);
  head.box_code = corners ? BoxCode::kCorners : BoxCode::kCentreSize;
  head.box_fractions = fractions;
  const std::string source = range ? ", by the values of the trial" : ", as usual";
  add_fact(reading,
           std::string("boxes are ") + (corners ? "two corners" : "centre and size") +
               (options.box_order ? "" : source),
           std::string("--box-order ") + (corners ? "xyxy" : "cxcywh"));
  add_fact(reading,
           std::string("in ") + (fractions ? "fractions of the input" : "pixels") +
               (options.box_fractions ? "" : source),
           std::string("--box-unit ") + (fractions ? "fractions" : "pixels"));
  conclude_axes(evidence, reading);
}

}  // namespace olvex_tools
