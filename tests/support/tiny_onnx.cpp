// SPDX-License-Identifier: Apache-2.0
// tiny_onnx.cpp - the few messages of ONNX's protocol-buffer format that small networks need; see
// tiny_onnx.h for the networks.
#include "tests/support/tiny_onnx.h"

#include <cstdint>
#include <cstring>
#include <string>

namespace tiny_onnx {
namespace {

using Extents = std::vector<std::int64_t>;

// Fields of a protocol-buffer message.
std::string varint(std::uint64_t value) {
  const char low = static_cast<char>(value | 0x80);
  return value < 0x80 ? std::string(1, static_cast<char>(value)) : low + varint(value >> 7);
}

std::string number(unsigned field, std::int64_t value) {
  return varint(field << 3) + varint(static_cast<std::uint64_t>(value));
}

std::string bytes(unsigned field, const std::string& content) {
  return varint(field << 3 | 2) + varint(content.size()) + content;
}

struct Graph {
  std::string text = bytes(2, "tiny");

  enum Side { kInput = 11, kOutput = 12 };
  void value(Side side, const std::string& name, const Extents& extents) {
    std::string shape;
    for (const std::int64_t extent : extents) {
      shape += bytes(1, number(1, extent));
    }
    text += bytes(side, bytes(1, name) + bytes(2, bytes(1, number(1, 1) + bytes(2, shape))));
  }

  template <typename Element>
  void constant(const std::string& name, const Extents& shape, const std::vector<Element>& values) {
    std::string tensor;
    for (const std::int64_t extent : shape) {
      tensor += number(1, extent);
    }
    std::string raw(values.size() * sizeof(Element), '\0');
    std::memcpy(&raw[0], values.data(), raw.size());
    const int type = sizeof(Element) == sizeof(float) ? 1 : 7;  // float or 64-bit integer
    text += bytes(5, tensor + number(2, type) + bytes(8, name) + bytes(9, raw));
  }

  // attributes: the message of one list of integers for each
  void node(const std::string& type, const std::vector<std::string>& inputs,
            const std::string& output, const std::string& attributes) {
    std::string message;
    for (const std::string& input : inputs) {
      message += bytes(1, input);
    }
    text += bytes(1, message + bytes(2, output) + bytes(4, type) + attributes);
  }

  void convolution(const std::vector<std::string>& inputs, const std::string& output) {
    node("Conv", inputs, output, attribute("kernel_shape", {1, 1}));
  }

  // Means of each plane of the picture over square cells.
  void means(const std::string& output, int cell) {
    node("AveragePool", {"picture"}, output,
         attribute("kernel_shape", {cell, cell}) + attribute("strides", {cell, cell}));
  }

  // 1 x C x H x W to an output 1 x N x C, with the given values added.
  void rows(const std::string& source, const std::string& name, const Extents& shape,
            const std::vector<float>& values) {
    constant<std::int64_t>(name + ".shape", {3}, {1, shape[2], shape[1]});
    node("Reshape", {source, name + ".shape"}, name + ".columns", "");
    node("Transpose", {name + ".columns"}, name + ".rows", attribute("perm", {0, 2, 1}));
    constant(name + ".values", shape, values);
    node("Add", {name + ".rows", name + ".values"}, name, "");
    value(kOutput, name, shape);
  }

  static std::string attribute(const std::string& name, const Extents& integers) {
    std::string message = bytes(1, name) + number(20, 7);
    for (const std::int64_t integer : integers) {
      message += number(8, integer);
    }
    return bytes(5, message);
  }

  std::vector<char> model() const {  // format 7, operators 11
    const std::string model =
        number(1, 7) + bytes(7, text) + bytes(8, bytes(1, "") + number(2, 11));
    return std::vector<char>(model.begin(), model.end());
  }
};

}  // namespace

std::vector<char> pixel_network(int width, int height, int planes) {
  Graph graph;
  graph.value(Graph::kInput, "picture", {1, planes, height, width});
  std::vector<float> identity(static_cast<std::size_t>(planes * planes));
  for (std::size_t i = 0; i < identity.size(); i += static_cast<std::size_t>(planes) + 1) {
    identity[i] = 1.f;
  }
  graph.constant("identity", {planes, planes, 1, 1}, identity);
  for (const char* name : {"pixels0", "pixels1", "pixels2"}) {
    graph.convolution({"picture", "identity"}, name);
    graph.value(Graph::kOutput, name, {1, planes, height, width});
  }
  return graph.model();
}

std::vector<char> harmful_network(Harm harm, int width, int height) {
  Graph graph;
  graph.value(Graph::kInput, "picture", {1, 3, height, width});
  const std::int64_t announced = harm == Harm::kCrash ? std::int64_t{1} << 26 : 1;
  const std::int64_t margin = harm == Harm::kMemory ? 10000 : 0;
  graph.constant<float>("weights", {1, 3, 1, announced}, {0.f, 0.f, 0.f});
  for (const char* name : {"pixels0", "pixels1", "pixels2"}) {
    if (harm == Harm::kNeverEnds) {
      graph.node("AveragePool", {"picture"}, name,
                 Graph::attribute("kernel_shape", {height - 1, width - 1}) +
                     Graph::attribute("pads", {height / 2, width / 2, height / 2, width / 2}));
    } else {
      graph.node("Conv", {"picture", "weights"}, name,
                 Graph::attribute("kernel_shape", {1, 1}) +
                     Graph::attribute("pads", {margin, margin, margin, margin}));
    }
    graph.value(Graph::kOutput, name, {1, 3, height, width});
  }
  return graph.model();
}

std::vector<char> raw_network(int width, int height, bool channels_last) {
  Graph graph;
  graph.value(Graph::kInput, "picture", {1, 3, height, width});
  std::vector<float> weights(6 * 3);
  weights[4 * 3 + 0] = weights[5 * 3 + 1] = 20.f;
  graph.constant("weights", {6, 3, 1, 1}, weights);
  graph.constant<float>("biases", {6}, {-1.f, -1.25f, -1.5f, -1.75f, -10.f, -10.f});
  for (const int stride : {8, 16, 32}) {
    const std::string name = "stride" + std::to_string(stride);
    graph.means(name + ".means", stride);
    graph.convolution({name + ".means", "weights", "biases"}, channels_last ? name + "p" : name);
    Extents shape = {1, 6, height / stride, width / stride};
    if (channels_last) {
      graph.node("Transpose", {name + "p"}, name, Graph::attribute("perm", {0, 2, 3, 1}));
      shape = {1, height / stride, width / stride, 6};
    }
    graph.value(Graph::kOutput, name, shape);
  }
  return graph.model();
}

std::vector<char> decoded_network(int width, int height, int keypoint_values) {
  const int columns = width / kCellSize;
  const int cells = columns * (height / kCellSize);
  std::vector<float> boxes;
  std::vector<float> points;
  for (int cell = 0; cell < cells; ++cell) {
    for (const int far : {0, 1}) {
      boxes.push_back(static_cast<float>((cell % columns + far) * kCellSize) /
                      static_cast<float>(width));
      boxes.push_back(static_cast<float>((cell / columns + far) * kCellSize) /
                      static_cast<float>(height));
    }
    for (int k = 0; k < keypoint_values; ++k) {
      points.push_back(static_cast<float>((cell + 1) * (k + 1)) / 1024.f);
    }
  }
  Graph graph;
  graph.value(Graph::kInput, "picture", {1, 3, height, width});
  graph.means("means", kCellSize);
  graph.rows("means", "scores", {1, cells, 3},
             std::vector<float>(static_cast<std::size_t>(cells) * 3));
  // What does not depend on the picture is added to zeros that formally do.
  const auto constant_rows = [&](const std::string& name, int count,
                                 const std::vector<float>& rows) {
    graph.constant(name + ".zeros", {count, 3, 1, 1},
                   std::vector<float>(static_cast<std::size_t>(count) * 3));
    graph.convolution({"means", name + ".zeros"}, name + ".planes");
    graph.rows(name + ".planes", name, {1, cells, count}, rows);
  };
  constant_rows("boxes", 4, boxes);
  if (keypoint_values > 0) {
    constant_rows("points", keypoint_values, points);
  }
  return graph.model();
}

}  // namespace tiny_onnx
