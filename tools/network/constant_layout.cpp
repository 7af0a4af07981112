// SPDX-License-Identifier: Apache-2.0
// constant_layout.cpp - operators that move the elements of constants and compute none: shapes, parts,
// orders and repetitions.
#include <algorithm>
#include <limits>
#include <numeric>
#include <optional>

#include "tools/network/constant_folding.h"

namespace olvex_tools {

namespace {

using Axes = std::vector<std::int64_t>;

// The elements as they are, under another shape.
ConstantValue reshaped(const ConstantValue& source, const Shape& shape) {
  if (elements_of(shape) != static_cast<std::int64_t>(source.numbers.size())) {
    throw CannotCompute();
  }
  ConstantValue value = source;
  value.shape = shape;
  return value;
}

ConstantValue reshape(const ConstantOperation& operation) {
  const ConstantValue& source = operation.input(0);
  Shape shape = operation.integers(1);
  const bool keeps_zeros = integer_attribute(operation.node, "allowzero", 0) != 0;
  std::optional<std::size_t> open;
  std::int64_t known = 1;
  for (std::size_t i = 0; i < shape.size(); ++i) {
    if (shape[i] == 0 && !keeps_zeros) {
      shape[i] = i < source.shape.size() ? source.shape[i] : throw CannotCompute();
    }
    if (shape[i] == -1) {
      open = open ? throw CannotCompute() : i;
    } else {
      known = elements_of({known, shape[i]});
    }
  }
  if (open) {
    shape[*open] = known > 0 ? static_cast<std::int64_t>(source.numbers.size()) / known
                             : throw CannotCompute();
  }
  return reshaped(source, shape);
}

ConstantValue flatten(const ConstantOperation& operation) {
  const ConstantValue& source = operation.input(0);
  const std::int64_t axis = integer_attribute(operation.node, "axis", 1);
  const auto dimensions = static_cast<std::int64_t>(source.shape.size());
  const auto split = axis == dimensions ? source.shape.size() : axis_of(axis, source.shape.size());
  const auto middle = source.shape.begin() + static_cast<std::ptrdiff_t>(split);
  return reshaped(source, {elements_of(Shape(source.shape.begin(), middle)),
                           elements_of(Shape(middle, source.shape.end()))});
}

// Axes are an attribute up to version 12 of the operators, an input from 13 on.
Axes axes_of(const ConstantOperation& operation) {
  return operation.has_input(1) ? operation.integers(1)
                                : integers_attribute(operation.node, "axes");
}

ConstantValue squeeze(const ConstantOperation& operation) {
  const ConstantValue& source = operation.input(0);
  const Axes axes = axes_of(operation);
  std::vector<bool> is_dropped(source.shape.size());
  for (const std::int64_t axis : axes) {
    is_dropped[axis_of(axis, source.shape.size())] = true;
  }
  Shape shape;
  for (std::size_t i = 0; i < source.shape.size(); ++i) {
    if (axes.empty() ? source.shape[i] != 1 : !is_dropped[i]) {
      shape.push_back(source.shape[i]);
    }
  }
  return reshaped(source, shape);
}

ConstantValue unsqueeze(const ConstantOperation& operation) {
  const ConstantValue& source = operation.input(0);
  const Axes axes = axes_of(operation);
  std::vector<bool> is_new(source.shape.size() + axes.size());
  for (const std::int64_t axis : axes) {
    is_new[axis_of(axis, is_new.size())] = true;
  }
  Shape shape;
  auto next = source.shape.begin();
  for (const bool added : is_new) {
    if (!added && next == source.shape.end()) {
      throw CannotCompute();  // an axis was named twice
    }
    shape.push_back(added ? 1 : *next++);
  }
  return reshaped(source, shape);
}

// Element i of the result is the element at offset(i) of the source.
template <typename Offset>
ConstantValue gathered(const ConstantValue& source, const Shape& shape, Offset offset) {
  ConstantValue value = new_value(source.type, shape);
  const Shape strides = strides_of(shape);
  Shape index(shape.size());
  for (std::size_t i = 0; i < value.numbers.size(); ++i) {
    auto rest = static_cast<std::int64_t>(i);
    for (std::size_t d = 0; d < shape.size(); ++d) {
      index[d] = rest / strides[d];
      rest %= strides[d];
    }
    value.numbers[i] = source.numbers.at(static_cast<std::size_t>(offset(index)));
  }
  return value;
}

ConstantValue transpose(const ConstantOperation& operation) {
  const ConstantValue& source = operation.input(0);
  Axes order = integers_attribute(operation.node, "perm");
  if (order.empty()) {
    order.resize(source.shape.size());
    std::iota(order.rbegin(), order.rend(), 0);
  }
  if (order.size() != source.shape.size()) {
    throw CannotCompute();
  }
  const Shape strides = strides_of(source.shape);
  Shape shape;
  Shape steps;
  for (const std::int64_t axis : order) {
    shape.push_back(source.shape[axis_of(axis, order.size())]);
    steps.push_back(strides[axis_of(axis, order.size())]);
  }
  return gathered(source, shape, [&](const Shape& index) {
    return std::inner_product(index.begin(), index.end(), steps.begin(), std::int64_t{0});
  });
}

ConstantValue gather(const ConstantOperation& operation) {
  const ConstantValue& source = operation.input(0);
  const ConstantValue& places = operation.input(1);
  const std::size_t axis =
      axis_of(integer_attribute(operation.node, "axis", 0), source.shape.size());
  const Axes chosen = operation.integers(1);
  Shape shape = source.shape;
  const auto at = shape.erase(shape.begin() + static_cast<std::ptrdiff_t>(axis));
  shape.insert(at, places.shape.begin(), places.shape.end());
  const Shape strides = strides_of(source.shape);
  const Shape steps = strides_of(places.shape);
  const std::size_t width = places.shape.size();
  return gathered(source, shape, [&](const Shape& index) {
    std::int64_t offset = 0;
    std::int64_t place = 0;
    for (std::size_t d = 0; d < index.size(); ++d) {
      if (d < axis) {
        offset += index[d] * strides[d];
      } else if (d < axis + width) {
        place += index[d] * steps[d - axis];
      } else {
        offset += index[d] * strides[d + 1 - width];
      }
    }
    const auto size = static_cast<std::size_t>(source.shape[axis]);
    return offset +
           static_cast<std::int64_t>(axis_of(chosen.at(static_cast<std::size_t>(place)), size)) *
               strides[axis];
  });
}

struct SliceRange {
  std::int64_t start = 0;
  std::int64_t step = 1;
  std::int64_t count = 0;
};

SliceRange range_of(std::int64_t start, std::int64_t end, std::int64_t step, std::int64_t size) {
  if (step == 0 || step == std::numeric_limits<std::int64_t>::min()) {
    throw CannotCompute();
  }
  const std::int64_t first = step > 0 ? 0 : -1;
  const std::int64_t last = step > 0 ? size : size - 1;
  const auto placed = [&](std::int64_t place) {
    return std::clamp(place < 0 ? std::max(place, -size - 1) + size : place, first, last);
  };
  const std::int64_t from = placed(start);
  const std::int64_t way = step > 0 ? placed(end) - from : from - placed(end);
  const std::int64_t stride = std::abs(step);
  return {from, step, way > 0 ? (way - 1) / stride + 1 : 0};
}

ConstantValue slice(const ConstantOperation& operation) {
  const ConstantValue& source = operation.input(0);
  const bool by_inputs = operation.has_input(1);
  const Axes starts =
      by_inputs ? operation.integers(1) : integers_attribute(operation.node, "starts");
  const Axes ends = by_inputs ? operation.integers(2) : integers_attribute(operation.node, "ends");
  Axes axes =
      operation.has_input(3) ? operation.integers(3) : integers_attribute(operation.node, "axes");
  const Axes steps = operation.has_input(4) ? operation.integers(4) : Axes(starts.size(), 1);
  if (axes.empty()) {
    axes.resize(starts.size());
    std::iota(axes.begin(), axes.end(), 0);
  }
  std::vector<SliceRange> ranges;
  for (const std::int64_t size : source.shape) {
    ranges.push_back({0, 1, size});
  }
  for (std::size_t i = 0; i < axes.size(); ++i) {
    const std::size_t axis = axis_of(axes[i], source.shape.size());
    if (i >= starts.size() || i >= ends.size() || i >= steps.size()) {
      throw CannotCompute();
    }
    ranges[axis] = range_of(starts[i], ends[i], steps[i], source.shape[axis]);
  }
  Shape shape;
  for (const SliceRange& range : ranges) {
    shape.push_back(range.count);
  }
  const Shape strides = strides_of(source.shape);
  return gathered(source, shape, [&](const Shape& index) {
    std::int64_t offset = 0;
    for (std::size_t d = 0; d < index.size(); ++d) {
      offset += (ranges[d].start + index[d] * ranges[d].step) * strides[d];
    }
    return offset;
  });
}

ConstantValue concat(const ConstantOperation& operation) {
  const Shape& first = operation.input(0).shape;
  const std::size_t axis = axis_of(integer_attribute(operation.node, "axis", 0), first.size());
  Shape shape = first;
  shape[axis] = 0;
  for (std::size_t i = 0; i < operation.inputs.size(); ++i) {
    Shape part = operation.input(i).shape;
    if (part.size() != shape.size() || operation.input(i).type != operation.input(0).type) {
      throw CannotCompute();
    }
    shape[axis] += part[axis];
    part[axis] = first[axis];
    if (part != first) {
      throw CannotCompute();
    }
  }
  ConstantValue value = new_value(operation.input(0).type, shape);
  const std::int64_t outer =
      elements_of(Shape(first.begin(), first.begin() + static_cast<std::ptrdiff_t>(axis)));
  auto place = value.numbers.begin();
  for (std::int64_t i = 0; i < outer; ++i) {
    for (std::size_t part = 0; part < operation.inputs.size(); ++part) {
      const std::vector<double>& numbers = operation.input(part).numbers;
      const auto run = static_cast<std::ptrdiff_t>(numbers.size()) / outer;
      place = std::copy_n(numbers.begin() + i * run, run, place);
    }
  }
  return value;
}

ConstantValue expand(const ConstantOperation& operation) {
  const ConstantValue& source = operation.input(0);
  return broadcast(source, broadcast_shape(source.shape, operation.integers(1)));
}

ConstantValue tile(const ConstantOperation& operation) {
  const ConstantValue& source = operation.input(0);
  const Axes repeats = operation.integers(1);
  if (repeats.size() != source.shape.size()) {
    throw CannotCompute();
  }
  Shape shape;
  for (std::size_t i = 0; i < repeats.size(); ++i) {
    shape.push_back(elements_of({source.shape[i], repeats[i]}));
  }
  const Shape strides = strides_of(source.shape);
  return gathered(source, shape, [&](const Shape& index) {
    std::int64_t offset = 0;
    for (std::size_t d = 0; d < index.size(); ++d) {
      offset += index[d] % source.shape[d] * strides[d];
    }
    return offset;
  });
}

ConstantValue constant_of_shape(const ConstantOperation& operation) {
  if (operation.node.attribute_size() == 0) {
    return new_value(onnx::TensorProto::FLOAT, operation.integers(0));
  }
  const std::optional<ConstantValue> filling = read_constant(operation.node.attribute(0).t());
  if (!filling || filling->numbers.size() != 1) {
    throw CannotCompute();
  }
  ConstantValue value = new_value(filling->type, operation.integers(0));
  std::fill(value.numbers.begin(), value.numbers.end(), filling->numbers[0]);
  return value;
}

}  // namespace

const ConstantOperators& layout_operators() {
  static const ConstantOperators operators = {
      {"Identity", [](const ConstantOperation& operation) { return operation.input(0); }},
      {"Reshape", reshape},
      {"Flatten", flatten},
      {"Squeeze", squeeze},
      {"Unsqueeze", unsqueeze},
      {"Transpose", transpose},
      {"Gather", gather},
      {"Slice", slice},
      {"Concat", concat},
      {"Expand", expand},
      {"Tile", tile},
      {"ConstantOfShape", constant_of_shape},
  };
  return operators;
}

}  // namespace olvex_tools
