// SPDX-License-Identifier: Apache-2.0
// constant_arithmetic.cpp - operators that compute new elements from constants: element by element,
// comparisons, reductions, and sequences of numbers.
#include <algorithm>
#include <cmath>

#include "tools/network/constant_folding.h"

namespace olvex_tools {

namespace {

using onnx::TensorProto;

bool is_float(int type) {
  return type == TensorProto::FLOAT || type == TensorProto::DOUBLE;
}

double quotient(double left, double right, int type) {
  if (is_float(type)) {
    return left / right;
  }
  if (right == 0) {
    throw CannotCompute();
  }
  return std::trunc(left / right);
}

double floored_remainder(double left, double right) {
  if (right == 0) {
    throw CannotCompute();
  }
  return left - std::floor(left / right) * right;
}

template <typename Function>
ConstantOperator of_one(Function function) {
  return [function](const ConstantOperation& operation) {
    ConstantValue value = operation.input(0);
    for (double& number : value.numbers) {
      number = as_element(function(number), value.type);
    }
    return value;
  };
}

template <typename Function>
ConstantValue combine(const ConstantValue& left, const ConstantValue& right, int type,
                      Function function) {
  const Shape shape = broadcast_shape(left.shape, right.shape);
  ConstantValue value = broadcast(left, shape);
  const ConstantValue other = broadcast(right, shape);
  for (std::size_t i = 0; i < value.numbers.size(); ++i) {
    value.numbers[i] = as_element(function(value.numbers[i], other.numbers[i]), type);
  }
  value.type = type;
  return value;
}

template <typename Function>
ConstantOperator of_two(Function function) {
  return [function](const ConstantOperation& operation) {
    const int type = operation.input(0).type;
    return combine(operation.input(0), operation.input(1), type,
                   [&](double left, double right) { return function(left, right, type); });
  };
}

template <typename Function>
ConstantOperator of_all(Function function) {
  return [function](const ConstantOperation& operation) {
    ConstantValue value = operation.input(0);
    for (std::size_t i = 1; i < operation.inputs.size(); ++i) {
      value = combine(value, operation.input(i), value.type, function);
    }
    return value;
  };
}

template <typename Function>
ConstantOperator comparison(Function function) {
  return [function](const ConstantOperation& operation) {
    return combine(operation.input(0), operation.input(1), TensorProto::BOOL,
                   [&](double left, double right) { return function(left, right) ? 1. : 0.; });
  };
}

ConstantValue where(const ConstantOperation& operation) {
  const ConstantValue& first = operation.input(1);
  const Shape shape = broadcast_shape(operation.input(0).shape,
                                      broadcast_shape(first.shape, operation.input(2).shape));
  const ConstantValue condition = broadcast(operation.input(0), shape);
  ConstantValue value = broadcast(first, shape);
  const ConstantValue other = broadcast(operation.input(2), shape);
  for (std::size_t i = 0; i < value.numbers.size(); ++i) {
    value.numbers[i] = condition.numbers[i] != 0 ? value.numbers[i] : other.numbers[i];
  }
  return value;
}

ConstantValue clip(const ConstantOperation& operation) {
  ConstantValue value = operation.input(0);
  const double least = operation.has_input(1)
                           ? operation.input(1).numbers.at(0)
                           : static_cast<double>(float_attribute(operation.node, "min", -INFINITY));
  const double most = operation.has_input(2)
                          ? operation.input(2).numbers.at(0)
                          : static_cast<double>(float_attribute(operation.node, "max", INFINITY));
  for (double& number : value.numbers) {
    number = std::min(std::max(number, least), most);
  }
  return value;
}

ConstantValue cast(const ConstantOperation& operation) {
  ConstantValue value = operation.input(0);
  value.type = static_cast<int>(integer_attribute(operation.node, "to", 0));
  for (double& number : value.numbers) {
    number = as_element(number, value.type);
  }
  return value;
}

ConstantValue range(const ConstantOperation& operation) {
  const int type = operation.input(0).type;
  const double start = operation.input(0).numbers.at(0);
  const double step = operation.input(2).numbers.at(0);
  const double count = std::max(0., std::ceil((operation.input(1).numbers.at(0) - start) / step));
  if (!(count <= static_cast<double>(kMostElements))) {
    throw CannotCompute();
  }
  ConstantValue value = new_value(type, {static_cast<std::int64_t>(count)});
  for (std::size_t i = 0; i < value.numbers.size(); ++i) {
    value.numbers[i] = as_element(start + static_cast<double>(i) * step, type);
  }
  return value;
}

std::vector<std::int64_t> reduced_axes(const ConstantOperation& operation, std::size_t dimensions) {
  std::vector<std::int64_t> axes =
      operation.has_input(1) ? operation.integers(1) : integers_attribute(operation.node, "axes");
  if (axes.empty()) {
    for (std::size_t i = 0; i < dimensions; ++i) {
      axes.push_back(static_cast<std::int64_t>(i));
    }
  }
  return axes;
}

// Drops the dimensions of size 1 that stand at axes.
Shape without(const Shape& shape, const std::vector<bool>& is_dropped) {
  Shape kept;
  for (std::size_t i = 0; i < shape.size(); ++i) {
    if (!is_dropped[i]) {
      kept.push_back(shape[i]);
    }
  }
  return kept;
}

template <typename Function>
ConstantOperator reduction(double start, Function function) {
  return [start, function](const ConstantOperation& operation) {
    const ConstantValue& source = operation.input(0);
    std::vector<bool> is_reduced(source.shape.size());
    Shape shape = source.shape;
    for (const std::int64_t axis : reduced_axes(operation, shape.size())) {
      is_reduced[axis_of(axis, shape.size())] = true;
      shape[axis_of(axis, shape.size())] = 1;
    }
    ConstantValue value = new_value(source.type, shape);
    std::fill(value.numbers.begin(), value.numbers.end(), start);
    const Shape from = strides_of(source.shape);
    const Shape to = strides_of(shape);
    for (std::size_t i = 0; i < source.numbers.size(); ++i) {
      auto rest = static_cast<std::int64_t>(i);
      std::int64_t place = 0;
      for (std::size_t d = 0; d < shape.size(); ++d) {
        place += is_reduced[d] ? 0 : rest / from[d] * to[d];
        rest %= from[d];
      }
      double& number = value.numbers[static_cast<std::size_t>(place)];
      number = as_element(function(number, source.numbers[i]), source.type);
    }
    if (integer_attribute(operation.node, "keepdims", 1) == 0) {
      value.shape = without(shape, is_reduced);
    }
    return value;
  };
}

double least_of(double left, double right) {
  return std::min(left, right);
}

double most_of(double left, double right) {
  return std::max(left, right);
}

double sum_of(double left, double right) {
  return left + right;
}

}  // namespace

const ConstantOperators& arithmetic_operators() {
  static const ConstantOperators operators = {
      {"Add", of_all(sum_of)},
      {"Sum", of_all(sum_of)},
      {"Sub", of_two([](double left, double right, int) { return left - right; })},
      {"Mul", of_two([](double left, double right, int) { return left * right; })},
      {"Div", of_two(quotient)},
      {"Pow", of_two([](double left, double right, int) { return std::pow(left, right); })},
      {"Mod", of_two([](double left, double right, int type) {
         return is_float(type) ? std::fmod(left, right) : floored_remainder(left, right);
       })},
      {"Min", of_all(least_of)},
      {"Max", of_all(most_of)},
      {"Neg", of_one([](double number) { return -number; })},
      {"Abs", of_one([](double number) { return std::fabs(number); })},
      {"Floor", of_one([](double number) { return std::floor(number); })},
      {"Ceil", of_one([](double number) { return std::ceil(number); })},
      {"Round", of_one([](double number) { return std::nearbyint(number); })},
      {"Sqrt", of_one([](double number) { return std::sqrt(number); })},
      {"Exp", of_one([](double number) { return std::exp(number); })},
      {"Log", of_one([](double number) { return std::log(number); })},
      {"Reciprocal", of_one([](double number) { return 1 / number; })},
      {"Not", of_one([](double number) { return number == 0 ? 1. : 0.; })},
      {"Equal", comparison([](double left, double right) { return left == right; })},
      {"Greater", comparison([](double left, double right) { return left > right; })},
      {"GreaterOrEqual", comparison([](double left, double right) { return left >= right; })},
      {"Less", comparison([](double left, double right) { return left < right; })},
      {"LessOrEqual", comparison([](double left, double right) { return left <= right; })},
      {"And", comparison([](double left, double right) { return left != 0 && right != 0; })},
      {"Or", comparison([](double left, double right) { return left != 0 || right != 0; })},
      {"Where", where},
      {"Clip", clip},
      {"Cast", cast},
      {"Range", range},
      {"ReduceProd", reduction(1, [](double left, double right) { return left * right; })},
      {"ReduceSum", reduction(0, sum_of)},
      {"ReduceMax", reduction(-INFINITY, most_of)},
      {"ReduceMin", reduction(INFINITY, least_of)},
  };
  return operators;
}

}  // namespace olvex_tools
