// constant_value.cpp - what the operators on constants share: shapes, broadcasting, and the records of an
// ONNX file.
#include "tools/network/constant_value.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>

namespace olvex_tools {

namespace {

using onnx::TensorProto;

template <typename Element>
void pack(const std::vector<double>& numbers, std::string* bytes) {
  std::vector<Element> elements(numbers.size());
  std::transform(numbers.begin(), numbers.end(), elements.begin(),
                 [](double number) { return static_cast<Element>(number); });
  bytes->assign(reinterpret_cast<const char*>(elements.data()), elements.size() * sizeof(Element));
}

// Casting a double beyond the range of an integer is undefined.
double within(double number, double least, double most) {
  return std::isnan(number) ? 0 : std::clamp(std::trunc(number), least, most);
}

}  // namespace

const ConstantValue& ConstantOperation::input(std::size_t index) const {
  if (!has_input(index)) {
    throw CannotCompute();
  }
  return *inputs[index];
}

bool ConstantOperation::has_input(std::size_t index) const {
  return index < inputs.size() && inputs[index] != nullptr;
}

std::vector<std::int64_t> ConstantOperation::integers(std::size_t index) const {
  std::vector<std::int64_t> values;
  for (const double number : input(index).numbers) {
    values.push_back(static_cast<std::int64_t>(as_element(number, TensorProto::INT64)));
  }
  return values;
}

ConstantValue new_value(int type, const Shape& shape) {
  const std::int64_t count = elements_of(shape);
  if (count < 0 || count > kMostElements) {
    throw CannotCompute();
  }
  return {type, shape, std::vector<double>(static_cast<std::size_t>(count))};
}

Shape strides_of(const Shape& shape) {
  Shape strides(shape.size(), 1);
  for (std::size_t i = shape.size(); i-- > 1;) {
    strides[i - 1] = strides[i] * shape[i];
  }
  return strides;
}

Shape broadcast_shape(const Shape& left, const Shape& right) {
  Shape shape(std::max(left.size(), right.size()), 1);
  for (const Shape* part : {&left, &right}) {
    const std::size_t offset = shape.size() - part->size();
    for (std::size_t i = 0; i < part->size(); ++i) {
      const std::int64_t size = (*part)[i];
      if (size != 1 && shape[offset + i] != 1 && size != shape[offset + i]) {
        throw CannotCompute();
      }
      shape[offset + i] = size == 1 ? shape[offset + i] : size;
    }
  }
  return shape;
}

ConstantValue broadcast(const ConstantValue& value, const Shape& shape) {
  if (value.shape == shape) {
    return value;
  }
  if (value.shape.size() > shape.size()) {
    throw CannotCompute();
  }
  ConstantValue wide = new_value(value.type, shape);
  const Shape strides = strides_of(shape);
  const Shape own = strides_of(value.shape);
  const std::size_t offset = shape.size() - value.shape.size();
  for (std::size_t i = 0; i < wide.numbers.size(); ++i) {
    auto rest = static_cast<std::int64_t>(i);
    std::int64_t place = 0;
    for (std::size_t d = 0; d < shape.size(); ++d) {
      const std::int64_t index = rest / strides[d];
      rest %= strides[d];
      if (d >= offset && value.shape[d - offset] != 1) {
        place += index * own[d - offset];
      }
    }
    wide.numbers[i] = value.numbers[static_cast<std::size_t>(place)];
  }
  return wide;
}

std::size_t axis_of(std::int64_t axis, std::size_t dimensions) {
  const auto count = static_cast<std::int64_t>(dimensions);
  if (axis < -count || axis >= count) {
    throw CannotCompute();
  }
  return static_cast<std::size_t>(axis < 0 ? axis + count : axis);
}

double as_element(double number, int type) {
  switch (type) {
    case TensorProto::FLOAT:
      return static_cast<double>(static_cast<float>(number));
    case TensorProto::DOUBLE:
      return number;
    case TensorProto::INT64:
      // The largest double below 2^63 and the smallest integer.
      return within(number, -0x1p63, 0x1.fffffffffffffp62);
    case TensorProto::INT32:
      return within(number, std::numeric_limits<std::int32_t>::min(),
                    std::numeric_limits<std::int32_t>::max());
    case TensorProto::BOOL:
      return number != 0 ? 1 : 0;
    default:
      throw CannotCompute();
  }
}

std::optional<ConstantValue> read_constant(const TensorProto& tensor) {
  const Shape shape(tensor.dims().begin(), tensor.dims().end());
  const std::int64_t count = elements_of(shape);
  if (count < 0 || count > kMostElements) {
    return std::nullopt;
  }
  std::optional<std::vector<double>> numbers = numbers_of(tensor);
  if (!numbers) {
    return std::nullopt;
  }
  return ConstantValue{tensor.data_type(), shape, std::move(*numbers)};
}

void write_constant(const ConstantValue& value, const std::string& name, TensorProto* tensor) {
  tensor->Clear();
  tensor->set_name(name);
  tensor->set_data_type(value.type);
  *tensor->mutable_dims() = {value.shape.begin(), value.shape.end()};
  std::string* const bytes = tensor->mutable_raw_data();
  switch (value.type) {
    case TensorProto::FLOAT:
      return pack<float>(value.numbers, bytes);
    case TensorProto::DOUBLE:
      return pack<double>(value.numbers, bytes);
    case TensorProto::INT64:
      return pack<std::int64_t>(value.numbers, bytes);
    case TensorProto::INT32:
      return pack<std::int32_t>(value.numbers, bytes);
    case TensorProto::INT8:
      return pack<std::int8_t>(value.numbers, bytes);
    case TensorProto::UINT8:
    case TensorProto::BOOL:
      return pack<std::uint8_t>(value.numbers, bytes);
    default:
      throw CannotCompute();
  }
}

}  // namespace olvex_tools
