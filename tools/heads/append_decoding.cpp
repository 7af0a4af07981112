// SPDX-License-Identifier: Apache-2.0
// append_decoding.cpp - the nodes behind the network's own: outputs to rows, rows to boxes and scores.
// Constants have the full shape of the tensor that they are combined with, since not every engine
// repeats them along each dimension in the same way.
#include "tools/heads/head.h"

#include "tools/common/command.h"

namespace olvex_tools {

namespace {

constexpr std::int64_t kOldestOperators = 7;    // from then on shapes need not be equal
constexpr std::int64_t kSliceTakesInputs = 10;  // the first version of the operators that does

class Decoding {
 public:
  Decoding(const Head& head, NetworkGraph* network)
      : head_(head), network_(*network), rows_(head.rows()) {}

  DecodedOutputs append() {
    DecodedOutputs outputs;
    outputs.boxes = finish("boxes", boxes(), 4);
    outputs.scores = finish("scores", scores(), head_.class_count);
    if (head_.keypoints.present()) {
      outputs.keypoints = finish("keypoints", keypoints(), head_.keypoints.count);
    }
    return outputs;
  }

  std::vector<NetworkTensor> shapes(const DecodedOutputs& outputs) const {
    std::vector<NetworkTensor> tensors = {{outputs.boxes, {1, rows_, 4}},
                                          {outputs.scores, {1, rows_, head_.class_count}}};
    if (!outputs.keypoints.empty()) {
      tensors.push_back({outputs.keypoints, {1, rows_, head_.keypoints.count}});
    }
    return tensors;
  }

 private:
  using Member = double ReferenceBox::*;

  std::string node(const std::string& operation, const std::vector<std::string>& inputs,
                   const std::vector<Attribute>& attributes = {}) {
    return network_.add_node("decoding_" + operation, operation, inputs, attributes);
  }

  std::string reshape(const std::string& value, const Shape& shape) {
    return node("Reshape", {value, network_.add_integers("decoding_shape", shape)});
  }

  std::string transpose(const std::string& value, const Shape& order) {
    return node("Transpose", {value}, {Attribute("perm", order)});
  }

  // Values first to end of the last dimension, of three.
  std::string slice(const std::string& value, std::int64_t first, std::int64_t end) {
    if (network_.opset() < kSliceTakesInputs) {
      return node("Slice", {value},
                  {Attribute("axes", Shape{2}), Attribute("starts", Shape{first}),
                   Attribute("ends", Shape{end})});
    }
    return node("Slice", {value, network_.add_integers("decoding_first", {first}),
                          network_.add_integers("decoding_end", {end}),
                          network_.add_integers("decoding_axis", {2})});
  }

  std::string concatenate(const std::vector<std::string>& values, std::int64_t axis) {
    return values.size() == 1 ? values.front() : node("Concat", values, {Attribute("axis", axis)});
  }

  std::string constant(const std::vector<float>& values) {
    return network_.add_floats(
        "decoding_constant", {1, rows_, static_cast<std::int64_t>(values.size()) / rows_}, values);
  }

  // value * factors + terms, each given for the columns of all rows.
  std::string affine(const std::string& value, const std::vector<float>& factors,
                     const std::vector<float>& terms) {
    return node("Add", {node("Mul", {value, constant(factors)}), constant(terms)});
  }

  std::vector<float> filled(std::int64_t columns, double value) const {
    return std::vector<float>(static_cast<std::size_t>(rows_ * columns), static_cast<float>(value));
  }

  // A table of the references: for each row factor * member of every column.
  std::vector<float> table(const std::vector<Member>& members,
                           const std::vector<double>& factors) const {
    std::vector<float> values;
    values.reserve(head_.references.size() * members.size());
    for (const ReferenceBox& reference : head_.references) {
      for (std::size_t i = 0; i < members.size(); ++i) {
        values.push_back(static_cast<float>(factors[i] * reference.*members[i]));
      }
    }
    return values;
  }

  // ---- Parts ----------------------------------------------------------------------------------

  std::string rows_of(const HeadTensor& tensor) {
    switch (tensor.arrangement) {
      case Arrangement::kRows:
        return network_.shape_of(tensor.output) == Shape{1, tensor.rows, tensor.channels}
                   ? tensor.output
                   : reshape(tensor.output, {1, tensor.rows, tensor.channels});
      case Arrangement::kColumns:
        return transpose(reshape(tensor.output, {1, tensor.channels, tensor.rows}), {0, 2, 1});
      case Arrangement::kPlanes:
        break;
    }
    const std::int64_t cells = tensor.rows / tensor.anchors;
    if (tensor.anchors == 1) {
      return transpose(reshape(tensor.output, {1, tensor.channels, cells}), {0, 2, 1});
    }
    const std::string split = reshape(tensor.output, {1, tensor.anchors, tensor.channels, cells});
    return reshape(transpose(split, {0, 3, 1, 2}), {1, tensor.rows, tensor.channels});
  }

  std::string values_of(const HeadPart& part) {
    std::vector<std::string> layers;
    for (const HeadTensor& tensor : part.tensors) {
      const std::string rows = rows_of(tensor);
      layers.push_back(
          part.count == tensor.channels ? rows : slice(rows, part.first, part.first + part.count));
    }
    return concatenate(layers, 1);
  }

  std::string activated(const std::string& value, Activation activation) {
    switch (activation) {
      case Activation::kSigmoid:
        return node("Sigmoid", {value});
      case Activation::kSoftmax:
        return node("Softmax", {value}, {Attribute("axis", std::int64_t{2})});
      case Activation::kNone:
        break;
    }
    return value;
  }

  // ---- Boxes ----------------------------------------------------------------------------------

  std::string boxes() {
    const std::string values = activated(values_of(head_.boxes), head_.boxes.activation);
    switch (head_.box_code) {
      case BoxCode::kOffsets:
        return concatenate({centres(slice(values, 0, 2)), sizes(slice(values, 2, 4))}, 2);
      case BoxCode::kDistances:
        return sides(head_.bins == 1 ? values : means(values));
      case BoxCode::kCorners:
      case BoxCode::kCentreSize:
        break;
    }
    return head_.y_first ? concatenate({slice(values, 1, 2), slice(values, 0, 1),
                                        slice(values, 3, 4), slice(values, 2, 3)},
                                       2)
                         : values;
  }

  std::string centres(const std::string& values) {
    const std::vector<Member> places = {&ReferenceBox::x, &ReferenceBox::y};
    const std::vector<Member> steps = {&ReferenceBox::step_x, &ReferenceBox::step_y};
    std::vector<float> terms = table(places, {1, 1});
    const CentreCurve curve = head_.centre_curve;
    if (curve != CentreCurve::kTwice && curve != CentreCurve::kTwiceSigmoid) {
      return affine(curved(curve, values), table(steps, {1, 1}), terms);
    }
    const std::vector<float> halves = table(steps, {.5, .5});
    for (std::size_t i = 0; i < terms.size(); ++i) {
      terms[i] -= halves[i];
    }
    return affine(curved(curve, values), table(steps, {2, 2}), terms);
  }

  std::string curved(CentreCurve curve, const std::string& values) {
    switch (curve) {
      case CentreCurve::kSigmoid:
      case CentreCurve::kTwiceSigmoid:
        return node("Sigmoid", {values});
      case CentreCurve::kTanh:
        return node("Tanh", {values});
      case CentreCurve::kIdentity:
      case CentreCurve::kTwice:
        break;
    }
    return values;
  }

  std::string sizes(const std::string& values) {
    const std::vector<Member> sides = {&ReferenceBox::width, &ReferenceBox::height};
    if (head_.size_curve == SizeCurve::kExponential) {
      const bool plain = head_.size_variance == 1;
      const std::string logarithm =
          plain ? values : node("Mul", {values, constant(filled(2, head_.size_variance))});
      return node("Mul", {node("Exp", {logarithm}), constant(table(sides, {1, 1}))});
    }
    const std::string curve =
        head_.size_curve == SizeCurve::kSquare ? values : node("Sigmoid", {values});
    return head_.size_curve == SizeCurve::kSigmoid
               ? node("Mul", {curve, constant(table(sides, {1, 1}))})
               : node("Mul", {node("Mul", {curve, curve}), constant(table(sides, {4, 4}))});
  }

  // The mean of 0, 1, ... weighted by the softmax over the bins of each side.
  std::string means(const std::string& values) {
    std::vector<float> numbers;
    for (std::int64_t bin = 0; bin < head_.bins; ++bin) {
      numbers.push_back(static_cast<float>(bin));
    }
    const std::string shares =
        activated(reshape(values, {1, 4 * rows_, head_.bins}), Activation::kSoftmax);
    const std::string weights = network_.add_floats("decoding_bins", {head_.bins, 1}, numbers);
    return reshape(node("MatMul", {shares, weights}), {1, rows_, 4});
  }

  std::string sides(const std::string& distances) {
    const std::vector<Member> steps = {&ReferenceBox::step_x, &ReferenceBox::step_y,
                                       &ReferenceBox::step_x, &ReferenceBox::step_y};
    const std::vector<Member> places = {&ReferenceBox::x, &ReferenceBox::y, &ReferenceBox::x,
                                        &ReferenceBox::y};
    return affine(distances, table(steps, {-1, -1, 1, 1}), table(places, {1, 1, 1, 1}));
  }

  // ---- Scores ---------------------------------------------------------------------------------

  std::string power(const std::string& value, double exponent) {
    if (exponent == 1) {
      return value;
    }
    if (exponent == .5) {
      return node("Sqrt", {value});
    }
    return node("Pow", {value, network_.add_floats("decoding_exponent", {1},
                                                   {static_cast<float>(exponent)})});
  }

  // A value of each row, once for every class.
  std::string for_each_class(const std::string& value) {
    if (head_.class_count == 1) {
      return value;
    }
    const std::vector<float> ones(static_cast<std::size_t>(head_.class_count), 1.f);
    return node("MatMul",
                {value, network_.add_floats("decoding_ones", {1, head_.class_count}, ones)});
  }

  std::string scores() {
    const HeadPart& objectness = head_.objectness;
    std::string factor;
    if (objectness.present()) {
      factor =
          power(activated(values_of(objectness), objectness.activation), head_.objectness_power);
      factor = for_each_class(factor);
    }
    if (!head_.classes.present()) {
      return factor;
    }
    const std::string classes =
        head_.score_code == ScoreCode::kClassId
            ? is_class()
            : power(activated(values_of(head_.classes), head_.classes.activation),
                    head_.class_power);
    return factor.empty() ? classes : node("Mul", {classes, factor});
  }

  // 1 in the column of the row's class number, 0 in the others: max(0, 1 - |number - column|).
  std::string is_class() {
    std::vector<float> columns;
    for (std::int64_t row = 0; row < rows_; ++row) {
      for (std::int64_t column = 0; column < head_.class_count; ++column) {
        columns.push_back(static_cast<float>(-column));
      }
    }
    const std::string behind =
        node("Add", {for_each_class(values_of(head_.classes)), constant(columns)});
    const std::string away = node("Neg", {node("Abs", {behind})});
    return node("Relu", {node("Add", {away, constant(filled(head_.class_count, 1))})});
  }

  // ---- Key points -----------------------------------------------------------------------------

  std::string keypoints() {
    const std::string values = values_of(head_.keypoints);
    const bool final_scores = head_.point_activation == Activation::kNone;
    if (head_.point_code == PointCode::kFinal && (head_.point_values == 2 || final_scores)) {
      return values;
    }
    if (head_.point_values == 2) {
      return points(values, 2);
    }
    // One row for each point, so that places and scores can be told apart.
    const std::int64_t count = head_.keypoints.count / head_.point_values;
    const std::string single = reshape(values, {1, rows_ * count, head_.point_values});
    const std::string places = reshape(slice(single, 0, 2), {1, rows_, 2 * count});
    const std::string moved = reshape(points(places, 2), {1, rows_ * count, 2});
    const std::string surety = activated(slice(single, 2, 3), head_.point_activation);
    return reshape(concatenate({moved, surety}, 2), {1, rows_, head_.keypoints.count});
  }

  std::string points(const std::string& values, std::int64_t per_point) {
    if (head_.point_code == PointCode::kFinal) {
      return values;
    }
    std::vector<Member> steps;
    std::vector<Member> places;
    const std::int64_t count = head_.keypoints.count / head_.point_values;
    for (std::int64_t point = 0; point < count * per_point; point += per_point) {
      steps.insert(steps.end(), {&ReferenceBox::step_x, &ReferenceBox::step_y});
      places.insert(places.end(), {&ReferenceBox::x, &ReferenceBox::y});
    }
    const std::vector<double> ones(steps.size(), 1.);
    return affine(values, table(steps, ones), table(places, ones));
  }

  // The value under the name of an output. What the network computes already keeps its name.
  std::string finish(const std::string& name, const std::string& value, std::int64_t columns) {
    for (const NetworkTensor& output : network_.outputs()) {
      if (output.name == value && output.shape == Shape{1, rows_, columns}) {
        return value;
      }
    }
    return network_.add_node(name, "Identity", {value});
  }

  const Head& head_;
  NetworkGraph& network_;
  std::int64_t rows_;
};

}  // namespace

DecodedOutputs append_decoding(const Head& head, NetworkGraph* network) {
  if (network->opset() < kOldestOperators) {
    throw ToolError(kModelError, network->path() + ": its operators are of version " +
                                     std::to_string(network->opset()) + ", and decoding needs " +
                                     std::to_string(kOldestOperators) +
                                     " or later. Export it with a later opset");
  }
  Decoding decoding(head, network);
  const DecodedOutputs outputs = decoding.append();
  network->set_outputs(decoding.shapes(outputs));
  network->update();
  return outputs;
}

}  // namespace olvex_tools
