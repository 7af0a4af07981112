// tiny_onnx.cpp - the few messages of ONNX's protocol-buffer format that small networks need; see
// tiny_onnx.h for the networks.
#include "tests/support/tiny_onnx.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <utility>

namespace tiny_onnx {
namespace {

// One protocol-buffer message under construction.
class Message {
 public:
  Message& number(unsigned field, std::int64_t value) {
    varint(field << 3);
    varint(static_cast<std::uint64_t>(value));
    return *this;
  }

  Message& bytes(unsigned field, const std::string& content) {
    varint(field << 3 | 2);
    varint(content.size());
    text_ += content;
    return *this;
  }

  const std::string& text() const { return text_; }

 private:
  void varint(std::uint64_t value) {
    for (; value >= 0x80; value >>= 7) {
      text_ += static_cast<char>(value | 0x80);
    }
    text_ += static_cast<char>(value);
  }

  std::string text_;
};

using Extents = std::vector<std::int64_t>;
using Attributes = std::vector<std::pair<std::string, Extents>>;

constexpr int kFloat = 1;
constexpr int kInt64 = 7;

class Graph {
 public:
  Graph() { graph_.bytes(2, "tiny"); }

  Graph& input(const std::string& name, const Extents& shape) { return value(11, name, shape); }
  Graph& output(const std::string& name, const Extents& shape) { return value(12, name, shape); }

  template <typename Element>
  Graph& constant(const std::string& name, const Extents& shape,
                  const std::vector<Element>& values) {
    Message tensor;
    for (const std::int64_t extent : shape) {
      tensor.number(1, extent);
    }
    tensor.number(2, sizeof(Element) == sizeof(float) ? kFloat : kInt64).bytes(8, name);
    std::string raw(values.size() * sizeof(Element), '\0');
    std::memcpy(&raw[0], values.data(), raw.size());
    graph_.bytes(5, tensor.bytes(9, raw).text());
    return *this;
  }

  Graph& node(const std::string& type, const std::vector<std::string>& inputs,
              const std::string& output, const Attributes& attributes = {}) {
    Message node;
    for (const std::string& input : inputs) {
      node.bytes(1, input);
    }
    node.bytes(2, output).bytes(4, type);
    for (const auto& attribute : attributes) {
      constexpr int kListOfIntegers = 7;
      Message message;
      message.bytes(1, attribute.first).number(20, kListOfIntegers);
      for (const std::int64_t extent : attribute.second) {
        message.number(8, extent);
      }
      node.bytes(5, message.text());
    }
    graph_.bytes(1, node.text());
    return *this;
  }

  std::vector<char> model() const {
    constexpr int kFormatVersion = 7;
    constexpr int kOperatorVersion = 11;
    Message model;
    model.number(1, kFormatVersion).bytes(7, graph_.text());
    model.bytes(8, Message().bytes(1, "").number(2, kOperatorVersion).text());
    return std::vector<char>(model.text().begin(), model.text().end());
  }

 private:
  Graph& value(unsigned field, const std::string& name, const Extents& extents) {
    Message shape;
    for (const std::int64_t extent : extents) {
      shape.bytes(1, Message().number(1, extent).text());
    }
    const Message tensor = Message().number(1, kFloat).bytes(2, shape.text());
    const Message type = Message().bytes(1, tensor.text());
    graph_.bytes(field, Message().bytes(1, name).bytes(2, type.text()).text());
    return *this;
  }

  Message graph_;
};

// Means of each plane over square cells.
void add_means(Graph* graph, const std::string& name, int cell) {
  graph->node("AveragePool", {"picture"}, name,
              {{"kernel_shape", {cell, cell}}, {"strides", {cell, cell}}});
}

// 1 x C x H x W to 1 x N x C, with the given values added.
void add_rows(Graph* graph, const std::string& source, const std::string& name,
              const Extents& shape, const std::vector<float>& values) {
  graph->constant<std::int64_t>(name + ".shape", {3}, {1, shape[2], shape[1]});
  graph->node("Reshape", {source, name + ".shape"}, name + ".columns");
  graph->node("Transpose", {name + ".columns"}, name + ".rows", {{"perm", {0, 2, 1}}});
  graph->constant(name + ".values", shape, values);
  graph->node("Add", {name + ".rows", name + ".values"}, name);
  graph->output(name, shape);
}

}  // namespace

std::vector<char> pixel_network(int width, int height, int planes) {
  Graph graph;
  const Extents shape = {1, planes, height, width};
  graph.input("picture", shape);
  std::vector<float> identity(static_cast<std::size_t>(planes * planes));
  for (int i = 0; i < planes; ++i) {
    identity[static_cast<std::size_t>(i * planes + i)] = 1.f;
  }
  graph.constant("identity", {planes, planes, 1, 1}, identity);
  for (const char* name : {"pixels0", "pixels1", "pixels2"}) {
    graph.node("Conv", {"picture", "identity"}, name, {{"kernel_shape", {1, 1}}});
    graph.output(name, shape);
  }
  return graph.model();
}

std::vector<char> raw_network(int width, int height, bool channels_last) {
  Graph graph;
  graph.input("picture", {1, 3, height, width});
  std::vector<float> weights(6 * 3);
  weights[4 * 3 + 0] = 20.f;
  weights[5 * 3 + 1] = 20.f;
  graph.constant("weights", {6, 3, 1, 1}, weights);
  graph.constant<float>("biases", {6}, {-1.f, -1.25f, -1.5f, -1.75f, -10.f, -10.f});
  for (const int stride : {8, 16, 32}) {
    const std::string name = "stride" + std::to_string(stride);
    const std::string planes = channels_last ? name + ".planes" : name;
    add_means(&graph, name + ".means", stride);
    graph.node("Conv", {name + ".means", "weights", "biases"}, planes, {{"kernel_shape", {1, 1}}});
    if (channels_last) {
      graph.node("Transpose", {planes}, name, {{"perm", {0, 2, 3, 1}}});
      graph.output(name, {1, height / stride, width / stride, 6});
    } else {
      graph.output(name, {1, 6, height / stride, width / stride});
    }
  }
  return graph.model();
}

std::vector<char> decoded_network(int width, int height, int keypoint_values) {
  const int columns = width / kCellSize;
  const int cells = columns * (height / kCellSize);
  std::vector<float> boxes;
  std::vector<float> points;
  for (int cell = 0; cell < cells; ++cell) {
    const int left = cell % columns * kCellSize;
    const int top = cell / columns * kCellSize;
    for (const int edge : {left, left + kCellSize}) {
      boxes.push_back(static_cast<float>(edge) / static_cast<float>(width));
      boxes.push_back(static_cast<float>(edge - left + top) / static_cast<float>(height));
    }
    for (int k = 0; k < keypoint_values; ++k) {
      points.push_back(static_cast<float>((cell + 1) * (k + 1)) / 1024.f);
    }
  }
  Graph graph;
  graph.input("picture", {1, 3, height, width});
  add_means(&graph, "means", kCellSize);
  add_rows(&graph, "means", "scores", {1, cells, 3},
           std::vector<float>(static_cast<std::size_t>(cells) * 3));
  // What does not depend on the picture is added to zeros that formally do.
  const auto add_constant_rows = [&](const std::string& name, int values_per_row,
                                     const std::vector<float>& values) {
    graph.constant(name + ".zeros", {values_per_row, 3, 1, 1},
                   std::vector<float>(static_cast<std::size_t>(values_per_row) * 3));
    graph.node("Conv", {"means", name + ".zeros"}, name + ".planes", {{"kernel_shape", {1, 1}}});
    add_rows(&graph, name + ".planes", name, {1, cells, values_per_row}, values);
  };
  add_constant_rows("boxes", 4, boxes);
  if (keypoint_values > 0) {
    add_constant_rows("points", keypoint_values, points);
  }
  return graph.model();
}

}  // namespace tiny_onnx
