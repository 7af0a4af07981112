// onnx_signature.cpp - walks the protocol-buffer records of an ONNX file as far as the signature.
// Declared in pack.h.
#include "tools/pack/pack.h"

#include <algorithm>
#include <cstddef>

#include "tools/common/command.h"

namespace olvex_tools {

namespace {

// Field numbers of the ONNX records that are read.
constexpr std::uint64_t kModelGraph = 7;
constexpr std::uint64_t kGraphInitializer = 5;
constexpr std::uint64_t kGraphInput = 11;
constexpr std::uint64_t kGraphOutput = 12;
constexpr std::uint64_t kWeightsName = 8;
constexpr std::uint64_t kValueName = 1;
constexpr std::uint64_t kValueType = 2;
constexpr std::uint64_t kTypeTensor = 1;
constexpr std::uint64_t kTensorShape = 2;
constexpr std::uint64_t kShapeDimension = 1;
constexpr std::uint64_t kDimensionValue = 1;

// Thrown within this file only, when the bytes are not well-formed.
struct Malformed {};

// A run of bytes inside the file.
struct Bytes {
  const char* data = nullptr;
  std::size_t size = 0;
};

struct Field {
  std::uint64_t number = 0;
  std::uint64_t value = 0;  // of a variable-length integer
  Bytes bytes;              // of a length-delimited field
};

// Takes the fields of one record one after the other.
class FieldReader {
 public:
  explicit FieldReader(Bytes bytes) : rest_(bytes) {}

  bool next(Field* field) {
    if (rest_.size == 0) {
      return false;
    }
    const std::uint64_t tag = take_integer();
    *field = Field();
    field->number = tag >> 3;
    switch (tag & 7) {
      case 0:
        field->value = take_integer();
        break;
      case 1:
        take(8);
        break;
      case 2:
        field->bytes = take(take_integer());
        break;
      case 5:
        take(4);
        break;
      default:
        throw Malformed();
    }
    return true;
  }

 private:
  Bytes take(std::uint64_t size) {
    if (size > rest_.size) {
      throw Malformed();
    }
    const Bytes taken = {rest_.data, static_cast<std::size_t>(size)};
    rest_.data += taken.size;
    rest_.size -= taken.size;
    return taken;
  }

  std::uint64_t take_integer() {
    std::uint64_t value = 0;
    for (unsigned shift = 0; shift < 64; shift += 7) {
      const auto byte = static_cast<unsigned char>(*take(1).data);
      value |= static_cast<std::uint64_t>(byte & 0x7f) << shift;
      if (byte < 0x80) {
        return value;
      }
    }
    throw Malformed();
  }

  Bytes rest_;
};

// Calls use for every field of a record that has the number.
template <typename Use>
void each_field(Bytes record, std::uint64_t number, Use use) {
  FieldReader reader(record);
  Field field;
  while (reader.next(&field)) {
    if (field.number == number) {
      use(field);
    }
  }
}

std::string text_field(Bytes record, std::uint64_t number) {
  std::string text;
  each_field(record, number,
             [&](const Field& field) { text.assign(field.bytes.data, field.bytes.size); });
  return text;
}

std::int64_t read_dimension(Bytes dimension) {
  std::int64_t size = 0;
  each_field(dimension, kDimensionValue, [&](const Field& field) {
    size = std::max<std::int64_t>(0, static_cast<std::int64_t>(field.value));
  });
  return size;
}

NetworkTensor read_tensor(Bytes value) {
  NetworkTensor tensor;
  tensor.name = text_field(value, kValueName);
  each_field(value, kValueType, [&](const Field& type) {
    each_field(type.bytes, kTypeTensor, [&](const Field& described) {
      each_field(described.bytes, kTensorShape, [&](const Field& shape) {
        each_field(shape.bytes, kShapeDimension, [&](const Field& dimension) {
          tensor.shape.push_back(read_dimension(dimension.bytes));
        });
      });
    });
  });
  return tensor;
}

NetworkSignature read_graph(Bytes graph) {
  NetworkSignature signature;
  each_field(graph, kGraphOutput,
             [&](const Field& field) { signature.outputs.push_back(read_tensor(field.bytes)); });
  // Some exporters list the weights among the inputs.
  std::vector<std::string> weights;
  each_field(graph, kGraphInitializer,
             [&](const Field& field) { weights.push_back(text_field(field.bytes, kWeightsName)); });
  std::sort(weights.begin(), weights.end());
  each_field(graph, kGraphInput, [&](const Field& field) {
    NetworkTensor input = read_tensor(field.bytes);
    if (!std::binary_search(weights.begin(), weights.end(), input.name)) {
      signature.inputs.push_back(std::move(input));
    }
  });
  return signature;
}

}  // namespace

NetworkSignature read_onnx_signature(const std::string& path, const std::vector<char>& bytes) {
  NetworkSignature signature;
  try {
    each_field({bytes.data(), bytes.size()}, kModelGraph,
               [&](const Field& field) { signature = read_graph(field.bytes); });
  } catch (const Malformed&) {
    throw ToolError(kModelError, path + " is not an ONNX network, or it is cut short");
  }
  if (signature.inputs.empty() || signature.outputs.empty()) {
    throw ToolError(kModelError, path + " is not an ONNX network with an input and outputs");
  }
  return signature;
}

std::string describe(const NetworkTensor& tensor) {
  std::string text;
  for (const std::int64_t size : tensor.shape) {
    text += (text.empty() ? "" : "x") + (size > 0 ? std::to_string(size) : "?");
  }
  return tensor.name + (text.empty() ? "" : " " + text);
}

std::vector<std::string> names_of(const std::vector<NetworkTensor>& tensors) {
  std::vector<std::string> names;
  for (const NetworkTensor& tensor : tensors) {
    names.push_back(tensor.name);
  }
  return names;
}

}  // namespace olvex_tools
