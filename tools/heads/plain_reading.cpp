// SPDX-License-Identifier: Apache-2.0
// plain_reading.cpp - row by row, one formula after the other, straight from the memory of each output.
#include "tools/heads/head.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>

namespace olvex_tools {

namespace {

double sigmoid(double value) {
  return 1 / (1 + std::exp(-value));
}

void apply_softmax(std::vector<double>* values) {
  const double largest = *std::max_element(values->begin(), values->end());
  double sum = 0;
  for (double& value : *values) {
    value = std::exp(value - largest);
    sum += value;
  }
  for (double& value : *values) {
    value /= sum;
  }
}

void apply(Activation activation, std::vector<double>* values) {
  if (activation == Activation::kSoftmax) {
    apply_softmax(values);
  } else if (activation == Activation::kSigmoid) {
    std::transform(values->begin(), values->end(), values->begin(), sigmoid);
  }
}

// Where the value of a channel of a row stands in the output.
std::size_t place_of(const HeadTensor& tensor, std::int64_t row, std::int64_t channel) {
  switch (tensor.arrangement) {
    case Arrangement::kColumns:
      return static_cast<std::size_t>(channel * tensor.rows + row);
    case Arrangement::kPlanes: {
      const std::int64_t cell = row / tensor.anchors;
      const std::int64_t plane = row % tensor.anchors * tensor.channels + channel;
      return static_cast<std::size_t>(plane * (tensor.rows / tensor.anchors) + cell);
    }
    case Arrangement::kRows:
      break;
  }
  return static_cast<std::size_t>(row * tensor.channels + channel);
}

std::vector<double> values_of(const HeadPart& part, std::int64_t row, const OutputValues& values) {
  for (const HeadTensor& tensor : part.tensors) {
    if (row >= tensor.rows) {
      row -= tensor.rows;
      continue;
    }
    const std::vector<float>& elements = values.at(tensor.output);
    std::vector<double> chosen;
    for (std::int64_t i = part.first; i < part.first + part.count; ++i) {
      chosen.push_back(static_cast<double>(elements[place_of(tensor, row, i)]));
    }
    apply(part.activation, &chosen);
    return chosen;
  }
  return {};
}

double along(CentreCurve curve, double value) {
  switch (curve) {
    case CentreCurve::kSigmoid:
      return sigmoid(value);
    case CentreCurve::kTwiceSigmoid:
      return 2 * sigmoid(value) - .5;
    case CentreCurve::kTwice:
      return 2 * value - .5;
    case CentreCurve::kTanh:
      return std::tanh(value);
    case CentreCurve::kIdentity:
      break;
  }
  return value;
}

double size_factor(const Head& head, double value) {
  switch (head.size_curve) {
    case SizeCurve::kSquare:
      return std::pow(2 * value, 2);
    case SizeCurve::kSquareOfSigmoid:
      return std::pow(2 * sigmoid(value), 2);
    case SizeCurve::kSigmoid:
      return sigmoid(value);
    case SizeCurve::kExponential:
      break;
  }
  return std::exp(head.size_variance * value);
}

double distance(const Head& head, const std::vector<double>& values, std::size_t side) {
  const auto bins = static_cast<std::size_t>(head.bins);
  if (bins == 0) {
    return std::pow(4 * sigmoid(values[side]), 2);
  }
  if (bins == 1) {
    return values[side];
  }
  const auto first = values.begin() + static_cast<std::ptrdiff_t>(side * bins);
  std::vector<double> shares(first, first + static_cast<std::ptrdiff_t>(bins));
  apply_softmax(&shares);
  double mean = 0;
  for (std::size_t bin = 0; bin < bins; ++bin) {
    mean += static_cast<double>(bin) * shares[bin];
  }
  return mean;
}

std::vector<double> box_of(const Head& head, std::size_t row, const std::vector<double>& values) {
  if (head.box_code == BoxCode::kCorners || head.box_code == BoxCode::kCentreSize) {
    return head.y_first ? std::vector<double>{values[1], values[0], values[3], values[2]} : values;
  }
  const ReferenceBox& reference = head.references[row];
  if (head.box_code == BoxCode::kOffsets) {
    return {reference.x + along(head.centre_curve, values[0]) * reference.step_x,
            reference.y + along(head.centre_curve, values[1]) * reference.step_y,
            size_factor(head, values[2]) * reference.width,
            size_factor(head, values[3]) * reference.height};
  }
  return {reference.x - distance(head, values, 0) * reference.step_x,
          reference.y - distance(head, values, 1) * reference.step_y,
          reference.x + distance(head, values, 2) * reference.step_x,
          reference.y + distance(head, values, 3) * reference.step_y};
}

std::vector<double> scores_of(const Head& head, std::int64_t row, const OutputValues& values) {
  double objectness = 1;
  if (head.objectness.present()) {
    objectness = std::pow(values_of(head.objectness, row, values).front(), head.objectness_power);
  }
  if (!head.classes.present()) {
    return {objectness};
  }
  std::vector<double> scores = values_of(head.classes, row, values);
  if (head.score_code == ScoreCode::kClassId) {
    const double number = scores.front();
    scores.assign(static_cast<std::size_t>(head.class_count), 0);
    for (std::size_t i = 0; i < scores.size(); ++i) {
      scores[i] = number == static_cast<double>(i) ? objectness : 0;
    }
    return scores;
  }
  for (double& score : scores) {
    score = objectness * std::pow(score, head.class_power);
  }
  return scores;
}

std::vector<double> keypoints_of(const Head& head, std::size_t row, std::vector<double> values) {
  const auto per_point = static_cast<std::size_t>(head.point_values);
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (i % per_point == 2) {
      values[i] = head.point_activation == Activation::kSigmoid ? sigmoid(values[i]) : values[i];
    } else if (head.point_code == PointCode::kOffsets) {
      const ReferenceBox& reference = head.references[row];
      values[i] = i % per_point == 0 ? reference.x + values[i] * reference.step_x
                                     : reference.y + values[i] * reference.step_y;
    }
  }
  return values;
}

}  // namespace

std::vector<float> read_channel(const std::vector<HeadTensor>& tensors, std::int64_t channel,
                                const OutputValues& values) {
  std::vector<float> chosen;
  for (const HeadTensor& tensor : tensors) {
    const std::vector<float>& elements = values.at(tensor.output);
    for (std::int64_t row = 0; row < tensor.rows; ++row) {
      chosen.push_back(elements[place_of(tensor, row, channel)]);
    }
  }
  return chosen;
}

std::vector<PlainRow> read_plainly(const Head& head, const OutputValues& values) {
  std::vector<PlainRow> rows(static_cast<std::size_t>(head.rows()));
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const auto row = static_cast<std::int64_t>(i);
    rows[i].box = box_of(head, i, values_of(head.boxes, row, values));
    rows[i].scores = scores_of(head, row, values);
    if (head.keypoints.present()) {
      rows[i].keypoints = keypoints_of(head, i, values_of(head.keypoints, row, values));
    }
  }
  return rows;
}

double best_score(const Head& head, const PlainRow& row) {
  double best = -std::numeric_limits<double>::infinity();
  for (std::size_t k = 0; k < row.scores.size(); ++k) {
    if (static_cast<int>(k) != head.background) {
      best = std::max(best, row.scores[k]);
    }
  }
  return best;
}

}  // namespace olvex_tools
