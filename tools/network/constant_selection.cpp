// SPDX-License-Identifier: Apache-2.0
// constant_selection.cpp - operators that choose elements of constants: parts of a split, the best, those at
// computed places, and boxes that overlap none of a better score.
#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>

#include "tools/network/constant_folding.h"

namespace olvex_tools {

namespace {

using onnx::TensorProto;

constexpr std::int64_t kMostOverlaps = std::int64_t{1} << 28;  // bounds the time

std::int64_t product_before(const Shape& shape, std::size_t axis) {
  return elements_of(Shape(shape.begin(), shape.begin() + static_cast<std::ptrdiff_t>(axis)));
}

std::int64_t product_from(const Shape& shape, std::size_t axis) {
  return elements_of(Shape(shape.begin() + static_cast<std::ptrdiff_t>(axis), shape.end()));
}

// ---- Split ----------------------------------------------------------------------------------------

std::vector<std::int64_t> parts_of(const ConstantOperation& operation, std::int64_t size) {
  std::vector<std::int64_t> parts =
      operation.has_input(1) ? operation.integers(1) : integers_attribute(operation.node, "split");
  const std::int64_t count = operation.node.output_size();
  const std::int64_t each = (size + count - 1) / count;
  while (parts.size() < static_cast<std::size_t>(count)) {
    const std::int64_t done = std::accumulate(parts.begin(), parts.end(), std::int64_t{0});
    parts.push_back(std::min(each, size - done));
  }
  return parts;
}

ConstantValue split(const ConstantOperation& operation) {
  const ConstantValue& source = operation.input(0);
  const std::size_t axis =
      axis_of(integer_attribute(operation.node, "axis", 0), source.shape.size());
  const std::vector<std::int64_t> parts = parts_of(operation, source.shape[axis]);
  const auto at = parts.begin() + static_cast<std::ptrdiff_t>(operation.output);
  const std::int64_t first = std::accumulate(parts.begin(), at, std::int64_t{0});
  Shape shape = source.shape;
  shape[axis] = *at;
  if (*at < 0 || first < 0 || first + *at > source.shape[axis]) {
    throw CannotCompute();
  }
  ConstantValue value = new_value(source.type, shape);
  const std::int64_t inner = product_from(shape, axis + 1);
  auto place = value.numbers.begin();
  for (std::int64_t i = 0; i < product_before(shape, axis); ++i) {
    const std::int64_t from = (i * source.shape[axis] + first) * inner;
    place = std::copy_n(source.numbers.begin() + from, *at * inner, place);
  }
  return value;
}

// ---- The best along an axis -----------------------------------------------------------------------

// Calls visit for each run of elements along an axis: with its first place and the step to the next.
template <typename Visit>
void each_run(const Shape& shape, std::size_t axis, Visit visit) {
  const std::int64_t inner = product_from(shape, axis + 1);
  for (std::int64_t outer = 0; outer < product_before(shape, axis); ++outer) {
    for (std::int64_t i = 0; i < inner; ++i) {
      visit(outer, i, outer * shape[axis] * inner + i, inner);
    }
  }
}

// Places of the elements of a run, the best first; of equal ones the first.
std::vector<std::int64_t> places_of_best(const ConstantValue& source, std::int64_t first,
                                         std::int64_t step, std::int64_t size, std::int64_t count,
                                         bool largest) {
  std::vector<std::int64_t> places(static_cast<std::size_t>(size));
  std::iota(places.begin(), places.end(), 0);
  const auto at = [&](std::int64_t place) {
    return source.numbers[static_cast<std::size_t>(first + place * step)];
  };
  std::partial_sort(places.begin(), places.begin() + count, places.end(),
                    [&](std::int64_t left, std::int64_t right) {
                      return at(left) != at(right) ? (at(left) > at(right)) == largest
                                                   : left < right;
                    });
  places.resize(static_cast<std::size_t>(count));
  return places;
}

ConstantValue best(const ConstantOperation& operation, std::size_t axis, std::int64_t count,
                   bool largest, bool places_wanted) {
  const ConstantValue& source = operation.input(0);
  const std::int64_t size = source.shape[axis];
  if (count < 0 || count > size ||
      std::any_of(source.numbers.begin(), source.numbers.end(),
                  [](double number) { return std::isnan(number); })) {
    throw CannotCompute();
  }
  Shape shape = source.shape;
  shape[axis] = count;
  ConstantValue value =
      new_value(places_wanted ? static_cast<int>(TensorProto::INT64) : source.type, shape);
  each_run(source.shape, axis,
           [&](std::int64_t outer, std::int64_t inner, std::int64_t first, std::int64_t step) {
             const std::vector<std::int64_t> places =
                 places_of_best(source, first, step, size, count, largest);
             for (std::size_t i = 0; i < places.size(); ++i) {
               const auto to = (outer * count + static_cast<std::int64_t>(i)) * step + inner;
               value.numbers[static_cast<std::size_t>(to)] =
                   places_wanted
                       ? static_cast<double>(places[i])
                       : source.numbers[static_cast<std::size_t>(first + places[i] * step)];
             }
           });
  return value;
}

ConstantValue top_k(const ConstantOperation& operation) {
  const std::size_t axis =
      axis_of(integer_attribute(operation.node, "axis", -1), operation.input(0).shape.size());
  const std::int64_t count = operation.has_input(1) ? operation.integers(1).at(0)
                                                    : integer_attribute(operation.node, "k", -1);
  const bool largest = integer_attribute(operation.node, "largest", 1) != 0;
  return best(operation, axis, count, largest, operation.output == 1);
}

ConstantValue arg_max(const ConstantOperation& operation) {
  const std::size_t axis =
      axis_of(integer_attribute(operation.node, "axis", 0), operation.input(0).shape.size());
  if (integer_attribute(operation.node, "select_last_index", 0) != 0) {
    throw CannotCompute();
  }
  ConstantValue value = best(operation, axis, 1, true, true);
  if (integer_attribute(operation.node, "keepdims", 1) == 0) {
    value.shape.erase(value.shape.begin() + static_cast<std::ptrdiff_t>(axis));
  }
  return value;
}

// ---- Elements at computed places ------------------------------------------------------------------

ConstantValue gather_elements(const ConstantOperation& operation) {
  const ConstantValue& source = operation.input(0);
  const ConstantValue& places = operation.input(1);
  const std::size_t axis =
      axis_of(integer_attribute(operation.node, "axis", 0), source.shape.size());
  if (places.shape.size() != source.shape.size()) {
    throw CannotCompute();
  }
  ConstantValue value = new_value(source.type, places.shape);
  const std::vector<std::int64_t> chosen = operation.integers(1);
  const Shape from = strides_of(source.shape);
  const Shape to = strides_of(places.shape);
  for (std::size_t i = 0; i < chosen.size(); ++i) {
    auto rest = static_cast<std::int64_t>(i);
    std::int64_t place = 0;
    for (std::size_t d = 0; d < to.size(); ++d) {
      const auto size = static_cast<std::size_t>(source.shape[d]);
      place +=
          static_cast<std::int64_t>(axis_of(d == axis ? chosen[i] : rest / to[d], size)) * from[d];
      rest %= to[d];
    }
    value.numbers[i] = source.numbers.at(static_cast<std::size_t>(place));
  }
  return value;
}

ConstantValue gather_nd(const ConstantOperation& operation) {
  const ConstantValue& source = operation.input(0);
  const ConstantValue& places = operation.input(1);
  const auto batch = static_cast<std::size_t>(integer_attribute(operation.node, "batch_dims", 0));
  const auto depth = static_cast<std::size_t>(places.shape.empty() ? 0 : places.shape.back());
  if (depth == 0 || batch >= places.shape.size() || batch + depth > source.shape.size()) {
    throw CannotCompute();
  }
  Shape shape(places.shape.begin(), places.shape.end() - 1);
  shape.insert(shape.end(), source.shape.begin() + static_cast<std::ptrdiff_t>(batch + depth),
               source.shape.end());
  ConstantValue value = new_value(source.type, shape);
  const std::vector<std::int64_t> chosen = operation.integers(1);
  const Shape strides = strides_of(source.shape);
  const std::int64_t run = product_from(source.shape, batch + depth);
  const std::size_t tuples = chosen.size() / depth;
  const auto batches = static_cast<std::size_t>(product_before(places.shape, batch));
  auto to = value.numbers.begin();
  for (std::size_t i = 0; i < tuples; ++i) {
    const std::size_t item = i / (tuples / std::max<std::size_t>(batches, 1));
    std::int64_t from = static_cast<std::int64_t>(item) * product_from(source.shape, batch);
    for (std::size_t d = 0; d < depth; ++d) {
      const auto size = static_cast<std::size_t>(source.shape[batch + d]);
      from += static_cast<std::int64_t>(axis_of(chosen[i * depth + d], size)) * strides[batch + d];
    }
    if (from + run > static_cast<std::int64_t>(source.numbers.size())) {
      throw CannotCompute();
    }
    to = std::copy_n(source.numbers.begin() + from, run, to);
  }
  return value;
}

ConstantValue non_zero(const ConstantOperation& operation) {
  const ConstantValue& source = operation.input(0);
  const Shape strides = strides_of(source.shape);
  std::vector<std::int64_t> places;
  for (std::size_t i = 0; i < source.numbers.size(); ++i) {
    if (source.numbers[i] != 0) {
      places.push_back(static_cast<std::int64_t>(i));
    }
  }
  const auto count = static_cast<std::int64_t>(places.size());
  ConstantValue value =
      new_value(TensorProto::INT64, {static_cast<std::int64_t>(strides.size()), count});
  auto to = value.numbers.begin();
  for (std::size_t d = 0; d < strides.size(); ++d) {
    to = std::transform(places.begin(), places.end(), to, [&](std::int64_t place) {
      return static_cast<double>(place / strides[d] % source.shape[d]);
    });
  }
  return value;
}

// ---- Boxes ----------------------------------------------------------------------------------------

using Corners = std::array<double, 4>;  // of one axis least and most, then of the other

Corners corners_of(const double* box, bool centre_and_size) {
  if (centre_and_size) {
    return {{box[0] - box[2] / 2, box[0] + box[2] / 2, box[1] - box[3] / 2, box[1] + box[3] / 2}};
  }
  return {{std::min(box[0], box[2]), std::max(box[0], box[2]), std::min(box[1], box[3]),
           std::max(box[1], box[3])}};
}

double overlap(const Corners& left, const Corners& right) {
  const double width = std::min(left[1], right[1]) - std::max(left[0], right[0]);
  const double height = std::min(left[3], right[3]) - std::max(left[2], right[2]);
  if (width <= 0 || height <= 0) {
    return 0;
  }
  const auto area = [](const Corners& box) { return (box[1] - box[0]) * (box[3] - box[2]); };
  const double common = width * height;
  return common / (area(left) + area(right) - common);
}

class Suppression {
 public:
  explicit Suppression(const ConstantOperation& operation)
      : boxes_(operation.input(0)), scores_(operation.input(1)) {
    const bool centre_and_size = integer_attribute(operation.node, "center_point_box", 0) != 0;
    const auto number = [&](std::size_t input, double usual) {
      return operation.has_input(input) && !operation.input(input).numbers.empty()
                 ? operation.input(input).numbers[0]
                 : usual;
    };
    if (boxes_.shape.size() != 3 || scores_.shape.size() != 3 || boxes_.shape[0] != 1 ||
        scores_.shape[0] != 1 || boxes_.shape[2] != 4 || scores_.shape[2] != boxes_.shape[1]) {
      throw CannotCompute();
    }
    most_ = number(2, 0);
    overlap_ = number(3, 0);
    least_score_ = number(4, -INFINITY);
    for (std::size_t i = 0; i < boxes_.numbers.size(); i += 4) {
      corners_.push_back(corners_of(&boxes_.numbers[i], centre_and_size));
    }
  }

  ConstantValue run() {
    std::vector<double> chosen;
    const std::size_t rows = corners_.size();
    for (std::size_t k = 0; k * rows < scores_.numbers.size(); ++k) {
      for (const std::size_t row : of_class(scores_.numbers.data() + k * rows)) {
        chosen.insert(chosen.end(), {0., static_cast<double>(k), static_cast<double>(row)});
      }
    }
    return {TensorProto::INT64, {static_cast<std::int64_t>(chosen.size() / 3), 3}, chosen};
  }

 private:
  std::vector<std::size_t> of_class(const double* scores) {
    std::vector<std::size_t> order;
    for (std::size_t row = 0; row < corners_.size(); ++row) {
      if (scores[row] > least_score_) {
        order.push_back(row);
      }
    }
    std::stable_sort(order.begin(), order.end(), [&](std::size_t left, std::size_t right) {
      return scores[left] > scores[right];
    });
    std::vector<std::size_t> kept;
    for (const std::size_t row : order) {
      if (static_cast<double>(kept.size()) >= most_) {
        break;
      }
      compared_ += static_cast<std::int64_t>(kept.size());
      if (compared_ > kMostOverlaps) {
        throw CannotCompute();
      }
      if (std::none_of(kept.begin(), kept.end(), [&](std::size_t other) {
            return overlap(corners_[row], corners_[other]) > overlap_;
          })) {
        kept.push_back(row);
      }
    }
    return kept;
  }

  const ConstantValue& boxes_;
  const ConstantValue& scores_;
  std::vector<Corners> corners_;
  double most_ = 0;
  double overlap_ = 0;
  double least_score_ = 0;
  std::int64_t compared_ = 0;
};

ConstantValue non_max_suppression(const ConstantOperation& operation) {
  return Suppression(operation).run();
}

}  // namespace

const ConstantOperators& selection_operators() {
  static const ConstantOperators operators = {
      {"Split", split},
      {"TopK", top_k},
      {"ArgMax", arg_max},
      {"GatherElements", gather_elements},
      {"GatherND", gather_nd},
      {"NonZero", non_zero},
      {"NonMaxSuppression", non_max_suppression},
  };
  return operators;
}

}  // namespace olvex_tools
