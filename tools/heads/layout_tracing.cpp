// SPDX-License-Identifier: Apache-2.0
// layout_tracing.cpp - compares the places from which the first elements of rows come, one step back for each
// kind of node. A graph may have been made to mislead: no more steps are taken than kMostSteps. Declared in
// head_evidence.h.
#include <algorithm>
#include <optional>
#include <vector>

#include "tools/heads/head_evidence.h"
#include "tools/network/selection_tail.h"

namespace olvex_tools {

namespace {

using onnx::NodeProto;

// From which element of which value an element of an output was moved to its place.
struct ElementOrigin {
  std::string value;
  Shape shape;             // of value; empty when it is not known
  std::int64_t place = 0;  // of the element in the memory of value
};

constexpr int kMostSteps = 500;

Shape places_of(std::int64_t place, const Shape& shape) {
  Shape places(shape.size());
  for (std::size_t i = shape.size(); i-- > 0;) {
    places[i] = place % shape[i];
    place /= shape[i];
  }
  return places;
}

std::int64_t place_of(const Shape& places, const Shape& shape) {
  std::int64_t place = 0;
  for (std::size_t i = 0; i < shape.size(); ++i) {
    place = place * shape[i] + places[i];
  }
  return place;
}

bool is_known(const std::optional<Shape>& shape) {
  return shape && !shape->empty() &&
         std::all_of(shape->begin(), shape->end(), [](std::int64_t size) { return size > 0; });
}

class WayBack {
 public:
  explicit WayBack(const NetworkGraph& network) : network_(network) {}

  ElementOrigin from(ElementOrigin origin) const {
    for (int step = 0; step < kMostSteps; ++step) {
      const std::optional<Shape> shape = network_.shape_of(origin.value);
      origin.shape = is_known(shape) ? *shape : Shape();
      const NodeProto* const node = network_.producer_of(origin.value);
      if (origin.shape.empty() || node == nullptr || node->input_size() == 0 ||
          origin.place >= elements_of(origin.shape)) {
        return origin;
      }
      const std::optional<ElementOrigin> before = step_back(*node, origin);
      if (!before) {
        return origin;
      }
      origin = *before;
    }
    return origin;
  }

 private:
  std::optional<ElementOrigin> step_back(const NodeProto& node, const ElementOrigin& at) const {
    if (only_reshapes(node) || is_one_of(node, {"Sigmoid", "HardSigmoid", "Softmax", "Exp", "Tanh",
                                                "Relu", "Clip", "Sqrt"})) {
      return ElementOrigin{node.input(0), {}, at.place};
    }
    if (node.op_type() == "Transpose") {
      return transposed(node, at);
    }
    if (node.op_type() == "Concat") {
      return concatenated(node, at);
    }
    if (node.op_type() == "Split") {
      return split(node, at);
    }
    if (node.op_type() == "Slice") {
      return sliced(node, at);
    }
    return is_one_of(node, {"Add", "Sub", "Mul", "Div", "Pow"}) ? computed(node, at) : std::nullopt;
  }

  std::optional<ElementOrigin> transposed(const NodeProto& node, const ElementOrigin& at) const {
    const std::optional<Shape> shape = network_.shape_of(node.input(0));
    const Shape order = integers_attribute(node, "perm");
    const auto rank = static_cast<std::int64_t>(at.shape.size());
    if (!is_known(shape) || shape->size() != at.shape.size() || order.size() != shape->size() ||
        std::any_of(order.begin(), order.end(),
                    [rank](std::int64_t axis) { return axis < 0 || axis >= rank; })) {
      return std::nullopt;
    }
    const Shape places = places_of(at.place, at.shape);
    Shape before(places.size());
    for (std::size_t i = 0; i < places.size(); ++i) {
      before[static_cast<std::size_t>(order[i])] = places[i];
    }
    return ElementOrigin{node.input(0), {}, place_of(before, *shape)};
  }

  // The dimension of a Concat, Split or Slice; nothing when there is none such.
  static std::optional<std::size_t> dimension(std::int64_t axis, const Shape& shape) {
    axis += axis < 0 ? static_cast<std::int64_t>(shape.size()) : 0;
    return axis >= 0 && axis < static_cast<std::int64_t>(shape.size())
               ? std::make_optional(static_cast<std::size_t>(axis))
               : std::nullopt;
  }

  // The same element in a value that is longer or shorter along a dimension.
  std::optional<ElementOrigin> moved(const std::string& value, const ElementOrigin& at,
                                     std::size_t along, std::int64_t by) const {
    const std::optional<Shape> shape = network_.shape_of(value);
    Shape places = places_of(at.place, at.shape);
    places[along] += by;
    if (!is_known(shape) || shape->size() != places.size() || places[along] < 0 ||
        places[along] >= (*shape)[along]) {
      return std::nullopt;
    }
    return ElementOrigin{value, {}, place_of(places, *shape)};
  }

  std::optional<ElementOrigin> concatenated(const NodeProto& node, const ElementOrigin& at) const {
    const auto along = dimension(integer_attribute(node, "axis", 1), at.shape);
    std::int64_t first = 0;
    for (const std::string& input : node.input()) {
      const std::optional<Shape> shape = network_.shape_of(input);
      if (!along || !is_known(shape) || shape->size() != at.shape.size()) {
        return std::nullopt;
      }
      if (places_of(at.place, at.shape)[*along] < first + (*shape)[*along]) {
        return moved(input, at, *along, -first);
      }
      first += (*shape)[*along];
    }
    return std::nullopt;
  }

  std::optional<ElementOrigin> split(const NodeProto& node, const ElementOrigin& at) const {
    const auto along = dimension(integer_attribute(node, "axis", 0), at.shape);
    std::int64_t first = 0;
    for (const std::string& output : node.output()) {
      if (!along || output == at.value) {
        break;
      }
      const std::optional<Shape> shape = network_.shape_of(output);
      first += is_known(shape) && *along < shape->size() ? (*shape)[*along] : 0;
    }
    return along ? moved(node.input(0), at, *along, first) : std::nullopt;
  }

  std::optional<ElementOrigin> sliced(const NodeProto& node, const ElementOrigin& at) const {
    const auto integers = [&](int input, const std::string& attribute) {
      const auto numbers =
          node.input_size() > input ? network_.numbers(node.input(input)) : std::nullopt;
      return numbers ? Shape(numbers->begin(), numbers->end())
                     : integers_attribute(node, attribute);
    };
    const Shape starts = integers(1, "starts");
    const Shape axes = integers(3, "axes");
    const Shape steps = integers(4, "steps");
    const std::optional<Shape> shape = network_.shape_of(node.input(0));
    const auto along = axes.size() == 1 ? dimension(axes[0], at.shape) : std::nullopt;
    if (starts.size() != 1 || !along || !is_known(shape) || shape->size() != at.shape.size() ||
        !(steps.empty() || steps == Shape{1})) {
      return std::nullopt;
    }
    const std::int64_t size = (*shape)[*along];
    if (starts[0] < -size || starts[0] >= size) {
      return std::nullopt;
    }
    return moved(node.input(0), at, *along, starts[0] < 0 ? starts[0] + size : starts[0]);
  }

  // One value, with constants of the same or of a smaller shape.
  std::optional<ElementOrigin> computed(const NodeProto& node, const ElementOrigin& at) const {
    std::string value;
    for (const std::string& input : node.input()) {
      if (network_.constant(input) == nullptr) {
        value = value.empty() ? input : "";
      }
    }
    return !value.empty() && network_.shape_of(value) == at.shape
               ? std::make_optional(ElementOrigin{value, {}, at.place})
               : std::nullopt;
  }

  const NetworkGraph& network_;
};

// Through what only moves elements or computes each by itself; stops at the first node that is none of these.
ElementOrigin origin_of(const NetworkGraph& network, const std::string& value, std::int64_t place) {
  return WayBack(network).from({value, {}, place});
}

ElementOrigin origin_of_row(const HeadQuestion& question, const HeadLayout& layout,
                            std::int64_t row) {
  const HeadTensor& tensor = layout.kinds.front().tensors.front();
  const bool columns = tensor.arrangement == Arrangement::kColumns;
  return origin_of(question.network, tensor.output, columns ? row : row * tensor.channels);
}

// Of the layer 1 x C x H x W that the element is from; 0: it is from none of a usual stride.
std::int64_t cells_of_layer(const HeadQuestion& question, const ElementOrigin& origin) {
  const Shape& shape = origin.shape;
  const bool is_layer =
      shape.size() == 4 && shape[0] == 1 && stride_of(question.size, shape[2], shape[3]) != 0;
  return is_layer ? shape[2] * shape[3] : 0;
}

}  // namespace

void find_row_order(const HeadQuestion& question, HeadLayout* layout) {
  if (layout->knows_order || layout->strides.empty() || layout->anchors < 2) {
    return;
  }
  if (question.options.anchors_first) {
    layout->anchors_first = *question.options.anchors_first;
    layout->knows_order = true;
    return;
  }
  const ElementOrigin first = origin_of_row(question, *layout, 0);
  const ElementOrigin second = origin_of_row(question, *layout, 1);
  const std::int64_t cells = cells_of_layer(question, first);
  if (first.value == second.value && cells == cells_of(question.size, layout->strides.front())) {
    const bool same_cell = first.place % cells == second.place % cells;
    const bool same_plane = first.place / cells == second.place / cells;
    layout->knows_order = same_cell != same_plane;
    layout->anchors_first = same_plane && !same_cell;
  }
}

bool are_cells_traced(const HeadQuestion& question, const HeadLayout& layout) {
  std::int64_t row = 0;
  for (const int stride : layout.strides) {
    const std::int64_t cells = cells_of(question.size, stride);
    if (cells_of_layer(question, origin_of_row(question, layout, row)) != cells) {
      return false;
    }
    row += cells * layout.anchors;
  }
  return true;
}

}  // namespace olvex_tools
